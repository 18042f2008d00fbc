// The store side of ZlZomDaemon: journal, start-up scan, writing, splitting and rotation.
#include "zavra_log_zom_daemon.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "zv-file-util.h"
#include "zv-file.h"
#include "zv-time.h"

namespace {
// Writes the whole buffer unless the system refuses; returns the bytes written.
size_t WriteAll(int fd, const unsigned char* data, size_t size, int& error) {
    size_t done = 0;
    error = 0;
    while (done < size) {
        ssize_t written = write(fd, data + done, size - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
        } else if (written < 0 && errno == EINTR) {
            continue;
        } else {
            error = written < 0 ? errno : 0;
            break;
        }
    }
    return done;
}
} // namespace

ZlZomDaemon::ZlZomDaemon()
    : m_totalLimit(0), m_fileLimit(0), m_currentLogsSize(0), m_currentEntry(nullptr),
      m_firstSegmentEntry(nullptr), m_keepFirstSegment(false), m_bytesInCurrentFile(0),
      m_segmentNumber(0), m_segmentsInLog(0), m_fileFd(-1), m_writeFailing(false),
      m_bytesNotWritten(0), m_openFailing(false), m_openFailures(0), m_deleteFailing(false),
      m_journalFd(-1), m_portOpen(false), m_connectThreadEnd(false), m_socketPort(-1),
      m_serverSocket(-1), m_socketThreadEnd(false), m_shutDown(false), m_storeClosed(false) {
    m_connectSema.Create(0);
    m_socketSema.Create(0);
    m_syncSema.Create(0);
}

ZlZomDaemon::~ZlZomDaemon() {
    ShutdownStore(false);
}

void ZlZomDaemon::LogText(const char* format, ...) {
    ZvAString message;
    va_list args;
    va_start(args, format);
    message.Vprintf(format, args);
    va_end(args);
    WriteJournalLine(message, false);
}

void ZlZomDaemon::LogFault(const char* format, ...) {
    ZvAString message;
    va_list args;
    va_start(args, format);
    message.Vprintf(format, args);
    va_end(args);
    WriteJournalLine(message, true);
}

void ZlZomDaemon::WriteJournalLine(const ZvAString& message, bool sync) {
    std::lock_guard<std::mutex> lock(m_journalLock);
    if (m_journalFd < 0)
        return;
    const ZvAString stamp = ZvTime::GetReverseTimeStringText();
    if (m_journalLinesLost != 0) {
        ZvAString note;
        note.Printf("%s: Journal: %u lines could not be written.\n", stamp.c_str(),
                    m_journalLinesLost);
        if (!WriteJournalRaw(note)) {
            ++m_journalLinesLost;
            return;
        }
        m_journalLinesLost = 0;
        sync = true;
    }
    ZvAString line = stamp;
    line += ": ";
    line += message;
    line += "\n";
    if (!WriteJournalRaw(line)) {
        ++m_journalLinesLost;
        return;
    }
    if (sync)
        fdatasync(m_journalFd);
}

bool ZlZomDaemon::WriteJournalRaw(const ZvAString& line) {
    // One write per line: the line reaches the file at once. Should only part of it fit (a full
    // disk), the part is cut off again, so that the journal never holds a torn line.
    int error;
    const size_t written = WriteAll(
        m_journalFd, reinterpret_cast<const unsigned char*>(line.data()), line.size(), error);
    if (written == line.size()) {
        m_journalSize += static_cast<long long>(written);
        return true;
    }
    if (written != 0) {
        if (ftruncate(m_journalFd, m_journalSize) != 0) {
            // The part stays; end it so that the next line starts on its own.
            m_journalSize += static_cast<long long>(written);
            return false;
        }
        lseek(m_journalFd, m_journalSize, SEEK_SET);
    }
    return false;
}

bool ZlZomDaemon::LockDirectory(const ZvAString& directory, ZvAString& error) {
    ZvAString path = directory;
    ZvFileUtil::AppendToPath(path, "daemon.lock");
    const int fd = ZvFile::OpenFd(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        error.Printf("Failed to create the lock file '%s' (%s).", path.c_str(), strerror(errno));
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int reason = errno;
        if (reason == EWOULDBLOCK) {
            char owner[32] = {0};
            const ssize_t got = pread(fd, owner, sizeof(owner) - 1, 0);
            ZvAString pid(got > 0 ? owner : "");
            pid.Trim();
            error.Printf("Another daemon is already logging to the directory '%s'%s%s%s.",
                         directory.c_str(), pid.empty() ? "" : " (process ", pid.c_str(),
                         pid.empty() ? "" : ")");
        } else {
            error.Printf("Failed to lock '%s' (%s).", path.c_str(), strerror(reason));
        }
        close(fd);
        errno = reason; // for the caller's exit status
        return false;
    }
    // The owner's process id, for the message of a second daemon.
    ZvAString pid;
    pid.Printf("%d\n", static_cast<int>(getpid()));
    if (ftruncate(fd, 0) == 0)
        (void)!pwrite(fd, pid.data(), pid.size(), 0);
    m_lockFd = fd;
    return true;
}

bool ZlZomDaemon::Initialise(ZvAString directory, unsigned long long totalSize,
                             unsigned long long fileSize, ZvVer& version) {
    {
        std::lock_guard<std::mutex> lock(m_storeLock);
        m_directory = directory;
        m_totalLimit = totalSize;
        m_fileLimit = fileSize;
        m_currentLogsSize = 0;
        m_bytesInCurrentFile = 0;
        m_currentEntry = nullptr;
    }

    ZvAString journal = directory;
    ZvFileUtil::AppendToPath(journal, "daemon.log");
    {
        std::lock_guard<std::mutex> lock(m_journalLock);
        m_journalFd =
            ZvFile::OpenFd(journal.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        m_journalSize = 0;
        m_journalLinesLost = 0;
    }
    m_dirFd = ZvFile::OpenFd(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ZvAString versionText;
    version.GetFullVersionString(versionText);
    LogText("Initialising started.");
    LogText("%s", versionText.c_str());
    LogText("Directory: %s", directory.c_str());
    LogText("Total Size: %llu", totalSize);
    LogText("File Size: %llu", fileSize);
    if (m_socketPort >= 0)
        LogText("Socket port number: %d", m_socketPort);

    bool ok = true;
    {
        std::lock_guard<std::mutex> lock(m_storeLock);
        ScanExistingFiles();
        if (m_totalLimit != 0) {
            while (m_currentLogsSize > m_totalLimit) {
                if (!DeleteOldestFileLocked()) {
                    ok = false;
                    break;
                }
            }
        }
    }

    if (ok)
        StartSyncThread();
    if (ok && m_socketPort >= 0) {
        if (!m_socketThread.Create(SocketThreadFunc, this) ||
            !m_socketThread.WaitForThreadStart(ZvThread::kWaitForever)) {
            LogText("Failed to start socket thread.");
            ok = false;
        }
    }
    if (ok) {
        if (!m_connectThread.Create(ConnectThreadFunc, this) ||
            !m_connectThread.WaitForThreadStart(ZvThread::kWaitForever)) {
            LogText("Failed to start connect thread.");
            ok = false;
        }
    }
    if (ok && m_connectSema.IsCreated())
        m_connectSema.Post();
    LogText("Initialising finished.");
    return ok;
}

void ZlZomDaemon::ScanExistingFiles() {
    ZvFileFind find;
    ZvFindFileData found;
    for (bool more = find.FindFirst(m_directory.c_str(), "*.zom", found); more;
         more = find.FindNext(found)) {
        if (found.type != ZvFindFileData::TypeFile)
            continue;
        ZvAString path = m_directory;
        ZvFileUtil::AppendToPath(path, found.name.c_str());
        long long size = ZvFileUtil::GetFileSize(path.c_str());
        if (size < 0) {
            LogText("Initialise: Failed to get existing file size '%s'.", path.c_str());
            continue;
        }
        m_files.push_back(std::make_unique<ZlZomDaemonDirFile>(path, size));
        m_currentLogsSize += static_cast<unsigned long long>(size);
        LogText("Initialise: Adding existing file '%s' of %lld bytes.", path.c_str(), size);
    }
    LogText("Current Logs Size: %llu", m_currentLogsSize);
    LogText("Sorting existing files");
    // The names carry their start time most significant first, so byte order is time order.
    std::stable_sort(m_files.begin(), m_files.end(),
                     [](const std::unique_ptr<ZlZomDaemonDirFile>& a,
                        const std::unique_ptr<ZlZomDaemonDirFile>& b) {
                         return a->m_path.compare(b->m_path) < 0;
                     });
    for (const auto& entry : m_files)
        LogText("Sorted '%s' of %llu bytes.", entry->m_path.c_str(), entry->m_size);
}

void ZlZomDaemon::NewLogData(unsigned char* data, unsigned size) {
    {
        std::lock_guard<std::mutex> lock(m_storeLock);
        if (m_storeClosed)
            return;
        if (m_fileFd < 0) {
            m_logName = ZvTime::GetReverseTimeString();
            m_segmentNumber = 0;
            m_segmentsInLog = 0;
            m_bytesInCurrentFile = 0;
            m_firstSegmentEntry = nullptr;
        }
        if (m_totalLimit != 0)
            MakeRoomFor(size);

        const unsigned long long before = m_bytesInCurrentFile;
        m_bytesInCurrentFile += size;
        const unsigned char* rest = data;
        unsigned restSize = size;
        if (m_fileLimit != 0 && m_bytesInCurrentFile > m_fileLimit) {
            if (m_fileFd < 0) {
                LogText("NewLogData. File limit exceeded but no open file, num bytes %d", size);
                OpenNextFile();
            }
            // The segment ends at exactly the limit; the rest, whatever its size, goes whole
            // into the next one (one split per chunk).
            const unsigned first =
                before < m_fileLimit ? static_cast<unsigned>(m_fileLimit - before) : 0;
            WriteToFile(data, first);
            CloseCurrentFileLocked(m_bytesOnDiskInCurrentFile);
            rest = data + first;
            restSize = size - first;
            m_bytesInCurrentFile = restSize;
            // Only matters when a segment is about as large as the whole budget: the segment
            // just closed is then the one that has to go.
            if (m_totalLimit != 0)
                MakeRoomFor(restSize);
        }
        if (m_fileFd < 0)
            OpenNextFile();
        WriteToFile(rest, restSize);
    }
    SendToClient(data, size);
}

void ZlZomDaemon::MakeRoomFor(unsigned incoming) {
    // The budget counts what is on disk; the chunk about to be written is counted in advance.
    m_currentLogsSize += incoming;
    MakeRoom();
    m_currentLogsSize -= std::min<unsigned long long>(incoming, m_currentLogsSize);
}

void ZlZomDaemon::MakeRoom() {
    // Only closed files are deleted: the file being written is the newest data, and once it is
    // the only one left a retry could never succeed and would hold up the port reader for good.
    while (m_currentLogsSize > m_totalLimit && HasClosedFile()) {
        if (DeleteOldestFileLocked()) {
            if (m_deleteFailing) {
                LogText("NewLogData. Old files can be deleted again.");
                m_deleteFailing = false;
            }
            continue;
        }
        // A file that cannot be removed now is tried again with the next chunk; waiting here
        // would stall the stream and the client for as long as the fault lasts.
        if (!m_deleteFailing)
            LogFault("NewLogData. Failed to delete an old file.");
        m_deleteFailing = true;
        break;
    }
}

bool ZlZomDaemon::HasClosedFile() const {
    return m_files.size() > (m_currentEntry != nullptr ? 1u : 0u);
}

bool ZlZomDaemon::PathInList(const ZvAString& path) const {
    for (const auto& entry : m_files)
        if (entry->m_path == path)
            return true;
    return false;
}

void ZlZomDaemon::OpenNextFile() {
    ZvAString name;
    ZvAString path;
    bool append = false;
    if (m_fileLimit == 0) {
        name.Printf("daemon_%s.zom", m_logName.c_str());
        path = m_directory;
        ZvFileUtil::AppendToPath(path, name.c_str());
        // A log that starts within the same second as an earlier one (or as a file left by an
        // earlier run) gets the same name: add to that file rather than truncate it.
        append = PathInList(path);
    } else {
        // Likewise a repeated name must not truncate earlier segments: the numbers continue
        // after the ones already in the directory.
        ++m_segmentsInLog;
        do {
            name.Printf("daemon_%s_%03u.zom", m_logName.c_str(), m_segmentNumber);
            ++m_segmentNumber;
            path = m_directory;
            ZvFileUtil::AppendToPath(path, name.c_str());
        } while (PathInList(path));
    }

    auto entry = std::make_unique<ZlZomDaemonDirFile>(path, 0);
    ZlZomDaemonDirFile* created = entry.get();
    m_currentEntry = created;
    if (m_keepFirstSegment && m_fileLimit != 0) {
        if (m_firstSegmentEntry == nullptr)
            m_firstSegmentEntry = created;
        else
            ApplyKeepFirstSegment();
    }
    m_files.push_back(std::move(entry));

    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC);
    m_fileFd = ZvFile::OpenFd(path.c_str(), flags, 0666);
    // A full disk may not even take a new file: older files make room for it.
    while (m_fileFd < 0 && (errno == ENOSPC || errno == EDQUOT) && DeleteOldestForSpace())
        m_fileFd = ZvFile::OpenFd(path.c_str(), flags, 0666);
    m_bytesOnDiskInCurrentFile = 0;
    m_currentFileDirty = false;
    if (m_fileFd >= 0) {
        NoteDirectoryChanged();
        LogText("NewLogData. Log file opened '%s'.", path.c_str());
        if (m_openFailing) {
            LogText("NewLogData. Log files open again after %u failed attempts.", m_openFailures);
            m_openFailing = false;
            m_openFailures = 0;
        }
        if (m_fileLimit != 0)
            OnNewLogSegment();
        return;
    }
    if (!m_openFailing)
        LogFault("NewLogData. Log file failed to opened '%s'.", path.c_str());
    m_openFailing = true;
    ++m_openFailures;
    // Nothing of this file exists: forget it, so that a long fault does not grow the list.
    if (m_firstSegmentEntry == created)
        m_firstSegmentEntry = nullptr;
    m_currentEntry = nullptr;
    m_files.pop_back();
}

void ZlZomDaemon::ApplyKeepFirstSegment() {
    // From the third segment of the log on; counted per log, as the numbers may not start at 000.
    if (m_segmentsInLog <= 2 || m_files.size() < 2)
        return;
    const size_t count = m_files.size();
    if (m_files[count - 2].get() == m_firstSegmentEntry) {
        // Segment 000 moves behind the segment closed last, so the middle segments go first.
        std::swap(m_files[count - 2], m_files[count - 1]);
        return;
    }
    LogText("NewLogData. First segment move failed %u, '%s'.", static_cast<unsigned>(count),
            m_files[count - 2]->m_path.c_str());
}

void ZlZomDaemon::WriteToFile(const unsigned char* data, unsigned size) {
    if (size == 0)
        return;
    while (size > 0) {
        if (m_fileFd < 0) {
            NoteBytesLost(size, 0); // no file could be opened
            return;
        }
        // Straight to the descriptor, no user-space buffer: every byte handed over is in the
        // file at once, whatever way the process ends.
        int error;
        const size_t written = WriteAll(m_fileFd, data, size, error);
        m_bytesOnDiskInCurrentFile += written;
        m_currentLogsSize += written;
        m_currentFileDirty = m_currentFileDirty || written != 0;
        data += written;
        size -= static_cast<unsigned>(written);
        if (size == 0)
            break;
        // A full disk keeps the newest data: older files go, and the rest of the chunk is tried
        // again. Bytes are lost only once nothing is left to delete.
        if ((error == ENOSPC || error == EDQUOT) && DeleteOldestForSpace())
            continue;
        NoteBytesLost(size, error);
        return;
    }
    if (m_writeFailing)
        NoteWriteResumed();
}

bool ZlZomDaemon::DeleteOldestForSpace() {
    for (size_t i = 0; i < m_files.size(); ++i) {
        const ZlZomDaemonDirFile* entry = m_files[i].get();
        if (entry == m_currentEntry || (m_keepFirstSegment && entry == m_firstSegmentEntry))
            continue;
        if (!DeleteFileAt(i))
            return false;
        return true;
    }
    return false;
}

void ZlZomDaemon::NoteBytesLost(unsigned long long bytes, int error) {
    m_bytesNotWritten += bytes;
    m_bytesLost += bytes;
    if (m_writeFailing)
        return;
    // One pair of lines per episode, in the journal and on standard error, however many chunks
    // it lasts; the episode's loss is given exactly when it ends.
    m_writeFailing = true;
    LogFault("NewLogData. Call to fwrite failed, return=%u, errno=%d, file=0x%08X.", 0u, error,
             static_cast<unsigned>(m_fileFd));
    ZvLog::Warning("Writing to the log directory '%s' stopped (%s): nothing is left to delete, "
                   "log data is being lost.",
                   m_directory.c_str(), error != 0 ? strerror(error) : "no log file is open");
}

void ZlZomDaemon::NoteWriteResumed() {
    LogFault("NewLogData. Writing resumed, %llu bytes could not be written.", m_bytesNotWritten);
    ZvLog::Warning("Writing to the log directory '%s' resumed; %llu bytes of log data were lost.",
                   m_directory.c_str(), m_bytesNotWritten);
    m_writeFailing = false;
    m_bytesNotWritten = 0;
}

void ZlZomDaemon::NoteLossAtShutdown() {
    if (!m_writeFailing)
        return;
    LogFault("NewLogData. Writing did not resume, %llu bytes could not be written.",
             m_bytesNotWritten);
    ZvLog::Warning(
        "Writing to the log directory '%s' did not resume; %llu bytes of log data were lost.",
        m_directory.c_str(), m_bytesNotWritten);
    m_writeFailing = false;
    m_bytesNotWritten = 0;
}

void ZlZomDaemon::CloseCurrentFile(unsigned long long size) {
    std::lock_guard<std::mutex> lock(m_storeLock);
    CloseCurrentFileLocked(size);
}

void ZlZomDaemon::CloseCurrentFileLocked(unsigned long long size) {
    if (m_fileFd >= 0) {
        // The sync thread syncs and closes it, so the reader does not wait for the disk.
        QueueForSync(m_fileFd, m_currentEntry != nullptr ? m_currentEntry->m_path : ZvAString());
        m_fileFd = -1;
        m_currentFileDirty = false;
    }
    if (m_currentEntry != nullptr) {
        LogText("Log file closed '%s' of %llu bytes.", m_currentEntry->m_path.c_str(), size);
        m_currentEntry->m_size = size;
        m_currentEntry = nullptr;
    }
}

bool ZlZomDaemon::DeleteOldestFile() {
    std::lock_guard<std::mutex> lock(m_storeLock);
    return DeleteOldestFileLocked();
}

bool ZlZomDaemon::DeleteOldestFileLocked() {
    if (m_files.empty()) {
        LogText("DeleteOldestFile error. Attempt to delete an old file when none exists.");
        return false;
    }
    return DeleteFileAt(0);
}

bool ZlZomDaemon::DeleteFileAt(size_t index) {
    ZlZomDaemonDirFile* entry = m_files[index].get();
    const char* path = entry->m_path.c_str();
    // A closed segment may still be open for its sync: its blocks would stay in use.
    ForgetPendingSync(entry->m_path);
    if (ZvFile::Exists(path) && !ZvFileUtil::DelFile(path)) {
        LogFault("DeleteOldestFile error. Failed to delete '%s'.", path);
        return false;
    }
    NoteDirectoryChanged();
    LogText("Deleting old file '%s' of %llu bytes (total %llu).", path, entry->m_size,
            m_currentLogsSize);
    if (entry->m_size > m_currentLogsSize) {
        LogText("DeleteOldestFile error. Inconsistent sizes, current %llu, file %llu",
                m_currentLogsSize, entry->m_size);
        m_currentLogsSize = 0;
    } else {
        m_currentLogsSize -= entry->m_size;
    }
    if (entry == m_currentEntry)
        m_currentEntry = nullptr;
    if (entry == m_firstSegmentEntry)
        m_firstSegmentEntry = nullptr;
    m_files.erase(m_files.begin() + static_cast<std::ptrdiff_t>(index));
    return true;
}

void ZlZomDaemon::GetCrashFileName(ZvAString& path) {
    std::lock_guard<std::mutex> lock(m_storeLock);
    path = m_directory;
    ZvAString name = "daemon_";
    name += m_logName;
    ZvFileUtil::AppendToPath(path, name.c_str());
}

unsigned long long ZlZomDaemon::GetCurrentLogsSize() {
    std::lock_guard<std::mutex> lock(m_storeLock);
    return m_currentLogsSize;
}

void ZlZomDaemon::GetFileList(ZvAStringList& paths) {
    std::lock_guard<std::mutex> lock(m_storeLock);
    paths.Clear();
    for (const auto& entry : m_files)
        paths.Add(entry->m_path);
}

unsigned long long ZlZomDaemon::GetBytesLost() {
    std::lock_guard<std::mutex> lock(m_storeLock);
    return m_bytesLost;
}
