#include "zavra_log_zom_store.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "zv-file-util.h"
#include "zv-file.h"
#include "zv-time.h"

ZlZomStore::ZlZomStore(ZlZomJournal& journal, ZlZomSync& sync, ZlZomPort& port)
    : m_journal(journal), m_sync(sync), m_port(port), m_files(journal, sync) {}

void ZlZomStore::Configure(const ZvAString& directory, unsigned long long totalSize,
                           unsigned long long fileSize) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_directory = directory;
    m_files.SetBudget(totalSize);
    m_fileLimit = fileSize;
    m_bytesInCurrentFile = 0;
}

bool ZlZomStore::TakeOver() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_files.Scan(m_directory);
    return m_files.TrimToBudget();
}

bool ZlZomStore::Write(const unsigned char* data, unsigned size) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_closed)
        return false;
    if (m_fileFd < 0) {
        m_logName = ZvTime::GetReverseTimeString();
        m_segmentNumber = 0;
        m_segmentsInLog = 0;
        m_bytesInCurrentFile = 0;
        m_files.StartLog();
    }
    m_files.MakeRoomFor(size);

    const unsigned long long before = m_bytesInCurrentFile;
    m_bytesInCurrentFile += size;
    const unsigned char* rest = data;
    unsigned restSize = size;
    if (m_fileLimit != 0 && m_bytesInCurrentFile > m_fileLimit) {
        if (m_fileFd < 0) {
            m_journal.Text("NewLogData. File limit exceeded but no open file, num bytes %d", size);
            OpenNextFile();
        }
        // The segment ends at exactly the limit; the rest, whatever its size, goes whole into
        // the next one (one split per chunk).
        const unsigned first =
            before < m_fileLimit ? static_cast<unsigned>(m_fileLimit - before) : 0;
        WriteToFile(data, first);
        CloseCurrentLocked(m_bytesOnDiskInCurrentFile);
        rest = data + first;
        restSize = size - first;
        m_bytesInCurrentFile = restSize;
        // Only matters when a segment is about as large as the whole budget: the segment just
        // closed is then the one that has to go.
        m_files.MakeRoomFor(restSize);
    }
    if (m_fileFd < 0)
        OpenNextFile();
    WriteToFile(rest, restSize);
    return true;
}

void ZlZomStore::OpenNextFile() {
    ZvAString name;
    ZvAString path;
    bool append = false;
    if (m_fileLimit == 0) {
        name.Printf("daemon_%s.zom", m_logName.c_str());
        path = m_directory;
        ZvFileUtil::AppendToPath(path, name.c_str());
        // A log that starts within the same second as an earlier one (or as a file left by an
        // earlier run) gets the same name: add to that file rather than truncate it.
        append = m_files.Contains(path);
    } else {
        // Likewise a repeated name must not truncate earlier segments: the numbers continue
        // after the ones already in the directory.
        ++m_segmentsInLog;
        do {
            name.Printf("daemon_%s_%03u.zom", m_logName.c_str(), m_segmentNumber);
            ++m_segmentNumber;
            path = m_directory;
            ZvFileUtil::AppendToPath(path, name.c_str());
        } while (m_files.Contains(path));
    }
    m_files.AddCurrent(path, m_fileLimit != 0, m_segmentsInLog);

    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC);
    m_fileFd = ZvFile::OpenFd(path.c_str(), flags, 0666);
    // A full disk may not even take a new file: older files make room for it.
    while (m_fileFd < 0 && (errno == ENOSPC || errno == EDQUOT) && m_files.DeleteOldestForSpace())
        m_fileFd = ZvFile::OpenFd(path.c_str(), flags, 0666);
    m_bytesOnDiskInCurrentFile = 0;
    m_currentFileDirty = false;
    if (m_fileFd >= 0) {
        m_sync.DirectoryChanged();
        m_journal.Text("NewLogData. Log file opened '%s'.", path.c_str());
        if (m_openFailing) {
            m_journal.Text("NewLogData. Log files open again after %u failed attempts.",
                           m_openFailures);
            m_openFailing = false;
            m_openFailures = 0;
        }
        if (m_fileLimit != 0)
            m_port.OnNewLogSegment();
        return;
    }
    if (!m_openFailing)
        m_journal.Fault("NewLogData. Log file failed to opened '%s'.", path.c_str());
    m_openFailing = true;
    ++m_openFailures;
    m_files.DropCurrent();
}

void ZlZomStore::WriteToFile(const unsigned char* data, unsigned size) {
    if (size == 0)
        return;
    while (size > 0) {
        if (m_fileFd < 0) {
            NoteBytesLost(size, 0); // no file could be opened
            return;
        }
        int error;
        const size_t written = ZvFile::WriteAll(m_fileFd, data, size, error);
        m_bytesOnDiskInCurrentFile += written;
        m_files.CountWritten(written);
        m_currentFileDirty = m_currentFileDirty || written != 0;
        data += written;
        size -= static_cast<unsigned>(written);
        if (size == 0)
            break;
        // A full disk keeps the newest data: older files go, and the rest of the chunk is tried
        // again. Bytes are lost only once nothing is left to delete.
        if ((error == ENOSPC || error == EDQUOT) && m_files.DeleteOldestForSpace())
            continue;
        NoteBytesLost(size, error);
        return;
    }
    if (m_writeFailing)
        NoteWriteResumed();
}

void ZlZomStore::NoteBytesLost(unsigned long long bytes, int error) {
    m_bytesNotWritten += bytes;
    m_bytesLost += bytes;
    if (m_writeFailing)
        return;
    // One pair of lines per episode, in the journal and on standard error, however many chunks
    // it lasts; the episode's loss is given exactly when it ends.
    m_writeFailing = true;
    m_journal.Fault("NewLogData. Call to fwrite failed, return=%u, errno=%d, file=0x%08X.", 0u,
                    error, static_cast<unsigned>(m_fileFd));
    ZvLog::Warning("Writing to the log directory '%s' stopped (%s): nothing is left to delete, "
                   "log data is being lost.",
                   m_directory.c_str(), error != 0 ? strerror(error) : "no log file is open");
}

void ZlZomStore::NoteWriteResumed() {
    m_journal.Fault("NewLogData. Writing resumed, %llu bytes could not be written.",
                    m_bytesNotWritten);
    ZvLog::Warning("Writing to the log directory '%s' resumed; %llu bytes of log data were lost.",
                   m_directory.c_str(), m_bytesNotWritten);
    m_writeFailing = false;
    m_bytesNotWritten = 0;
}

void ZlZomStore::NoteLossAtClose() {
    if (!m_writeFailing)
        return;
    m_journal.Fault("NewLogData. Writing did not resume, %llu bytes could not be written.",
                    m_bytesNotWritten);
    ZvLog::Warning(
        "Writing to the log directory '%s' did not resume; %llu bytes of log data were lost.",
        m_directory.c_str(), m_bytesNotWritten);
    m_writeFailing = false;
    m_bytesNotWritten = 0;
}

void ZlZomStore::CloseCurrentFile(unsigned long long size) {
    std::lock_guard<std::mutex> lock(m_lock);
    CloseCurrentLocked(size);
}

void ZlZomStore::CloseCurrentFile() {
    std::lock_guard<std::mutex> lock(m_lock);
    CloseCurrentLocked(m_bytesOnDiskInCurrentFile);
}

void ZlZomStore::CloseCurrentLocked(unsigned long long size) {
    if (m_fileFd >= 0) {
        // The sync thread syncs and closes it, so the reader does not wait for the disk.
        m_sync.Queue(m_fileFd, m_files.CurrentPath());
        m_fileFd = -1;
        m_currentFileDirty = false;
    }
    m_files.CloseCurrent(size);
}

bool ZlZomStore::DeleteOldestFile() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_files.DeleteOldest();
}

void ZlZomStore::Close() {
    std::lock_guard<std::mutex> lock(m_lock);
    NoteLossAtClose();
    CloseCurrentLocked(m_bytesOnDiskInCurrentFile);
    m_closed = true;
    m_files.Clear();
}

int ZlZomStore::TakeCurrentFileForSync() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_fileFd < 0 || !m_currentFileDirty)
        return -1;
    const int fd = fcntl(m_fileFd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    m_currentFileDirty = false;
    // Before the lock is let go: a delete of this file waits for the sync to end.
    m_sync.BeginSync(m_files.CurrentPath());
    return fd;
}

void ZlZomStore::GetCrashFileName(ZvAString& path) {
    std::lock_guard<std::mutex> lock(m_lock);
    path = m_directory;
    ZvAString name = "daemon_";
    name += m_logName;
    ZvFileUtil::AppendToPath(path, name.c_str());
}

unsigned long long ZlZomStore::FreeBytes() const {
    unsigned long long bytes = 0;
    return ZvFileUtil::GetFreeSpace(m_directory.c_str(), bytes) ? bytes : ULLONG_MAX;
}

unsigned long long ZlZomStore::RoomForCrash() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_files.RoomForCrash(FreeBytes());
}

void ZlZomStore::MakeRoomForCrash(unsigned long long bytes) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_files.MakeRoomForCrash(bytes, [this] { return FreeBytes(); });
}

void ZlZomStore::AddCrashBundle(const ZvAString& basePath) {
    std::lock_guard<std::mutex> lock(m_lock);
    const char* name = ZvFileUtil::GetFullName(basePath.c_str());
    if (name == nullptr || !m_files.AddCrashBundle(m_directory, name))
        return;
    // Within the budget again, the oldest first; the new bundle stays while its log does.
    m_files.MakeRoomFor(0);
}

unsigned long long ZlZomStore::GetLogsSize() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_files.Size();
}

void ZlZomStore::GetFileList(ZvAStringList& paths) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_files.GetPaths(paths);
}

unsigned long long ZlZomStore::GetBytesLost() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_bytesLost;
}
