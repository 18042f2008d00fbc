#include "zavra_log_zom_files.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

#include "zv-file-find.h"
#include "zv-file-util.h"
#include "zv-file.h"

namespace {

const char kLogPrefix[] = "daemon_";
// "daemon_" and a log's start time, "yy-mm-dd_hh-mm-ss".
const size_t kLogNameLength = 7 + 17;
const char* const kCrashSuffixes[] = {"-crash.zip",  "-crash.txt",  "-crashlog.txt",
                                      "-extram.bin", "-extram.dmp", "-crash-files"};

ZvAString FileName(const ZvAString& path) {
    const char* name = ZvFileUtil::GetFullName(path.c_str());
    return name != nullptr ? name : "";
}

// The log a file belongs to: "daemon_<time>" for the store's logs and the tool's crash bundles,
// the whole name for a file named otherwise.
ZvAString LogOf(const ZvAString& path) {
    const ZvAString name = FileName(path);
    for (const char* suffix : kCrashSuffixes)
        if (name.EndsWith(suffix))
            return name.substr(0, name.size() - strlen(suffix));
    if (name.compare(0, strlen(kLogPrefix), kLogPrefix) == 0 && name.size() > kLogNameLength)
        return name.substr(0, kLogNameLength);
    return name;
}

// A log segment's number read as a number ("_1000" follows "_999", which a byte order would not);
// -1 for a file named otherwise.
long long SegmentNumber(const ZvAString& path) {
    const ZvAString name = FileName(path);
    const size_t digitsAt = kLogNameLength + 1, suffix = strlen(".zom");
    if (name.compare(0, strlen(kLogPrefix), kLogPrefix) != 0 || !name.EndsWith(".zom") ||
        name.size() <= digitsAt + suffix || name[kLogNameLength] != '_')
        return -1;
    const std::string digits = name.substr(digitsAt, name.size() - digitsAt - suffix);
    if (digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos)
        return -1;
    return std::stoll(digits);
}

// The order of the files found at start-up: by log (its name carries its start time, most
// significant first), within a log its segments by number, then its crash bundle.
bool OlderThan(const std::unique_ptr<ZlZomLogFile>& a, const std::unique_ptr<ZlZomLogFile>& b) {
    const int byLog = LogOf(a->m_path).compare(LogOf(b->m_path));
    if (byLog != 0)
        return byLog < 0;
    if (a->m_crash != b->m_crash)
        return !a->m_crash;
    const long long numberA = SegmentNumber(a->m_path), numberB = SegmentNumber(b->m_path);
    if (numberA >= 0 && numberB >= 0 && numberA != numberB)
        return numberA < numberB;
    return a->m_path.compare(b->m_path) < 0;
}

// The bytes of a file, or of every file in a folder; -1 when they cannot be read.
long long BytesOf(const ZvAString& path) {
    if (!ZvFileUtil::IsDir(path.c_str()))
        return ZvFileUtil::GetFileSize(path.c_str());
    ZvAStringList files;
    ZvFileUtil::GetDirFiles(path.c_str(), files, "*", true);
    long long total = 0;
    for (unsigned i = 0; i < files.Count(); ++i)
        total += std::max(0LL, ZvFileUtil::GetFileSize(files[i].c_str()));
    return total;
}

} // namespace

bool ZlZomFileList::IsCrashFileName(const ZvAString& name) {
    if (name.compare(0, strlen(kLogPrefix), kLogPrefix) != 0)
        return false;
    for (const char* suffix : kCrashSuffixes)
        if (name.EndsWith(suffix))
            return true;
    return false;
}

void ZlZomFileList::Add(const ZvAString& path, unsigned long long size, bool crash,
                        const char* how) {
    m_files.push_back(std::make_unique<ZlZomLogFile>(path, size, crash));
    m_size += size;
    m_journal.Text("%s '%s' of %llu bytes.", how, path.c_str(), size);
}

void ZlZomFileList::Scan(const ZvAString& directory) {
    ZvFileFind find;
    ZvFindFileData found;
    for (bool more = find.FindFirst(directory.c_str(), "*", found); more;
         more = find.FindNext(found)) {
        const bool log = found.type == ZvFindFileData::TypeFile && found.name.EndsWith(".zom");
        const bool crash =
            !log && IsCrashFileName(found.name) &&
            (found.type == ZvFindFileData::TypeFile || found.type == ZvFindFileData::TypeDirectory);
        if (!log && !crash)
            continue;
        ZvAString path = directory;
        ZvFileUtil::AppendToPath(path, found.name.c_str());
        long long size = BytesOf(path);
        if (size < 0) {
            m_journal.Text("Initialise: Failed to get existing file size '%s'.", path.c_str());
            continue;
        }
        Add(path, static_cast<unsigned long long>(size), crash,
            crash ? "Initialise: Adding existing crash file" : "Initialise: Adding existing file");
        if (crash && LogOf(path).compare(m_newestBundle) > 0)
            m_newestBundle = LogOf(path);
    }
    m_journal.Text("Current Logs Size: %llu", m_size);
    m_journal.Text("Sorting existing files");
    std::stable_sort(m_files.begin(), m_files.end(), OlderThan);
    for (const auto& entry : m_files)
        m_journal.Text("Sorted '%s' of %llu bytes.", entry->m_path.c_str(), entry->m_size);
}

bool ZlZomFileList::AddCrashBundle(const ZvAString& directory, const ZvAString& log) {
    // An earlier bundle of the same log was replaced, or removed, by the new one.
    for (size_t i = m_files.size(); i-- > 0;) {
        if (!m_files[i]->m_crash || LogOf(m_files[i]->m_path) != log)
            continue;
        m_size -= std::min(m_size, m_files[i]->m_size);
        m_files.erase(m_files.begin() + static_cast<std::ptrdiff_t>(i));
    }
    bool found = false;
    ZvFileFind find;
    ZvFindFileData entry;
    const ZvAString prefix = log + "-";
    for (bool more = find.FindFirst(directory.c_str(), "*", entry); more;
         more = find.FindNext(entry)) {
        if (entry.name.compare(0, prefix.size(), prefix) != 0 || !IsCrashFileName(entry.name))
            continue;
        ZvAString path = directory;
        ZvFileUtil::AppendToPath(path, entry.name.c_str());
        const long long size = BytesOf(path);
        Add(path, static_cast<unsigned long long>(std::max(0LL, size)), true, "Crash file");
        found = true;
    }
    if (found)
        m_newestBundle = log;
    return found;
}

bool ZlZomFileList::MayDelete(const ZlZomLogFile* entry) const {
    if (entry == m_current)
        return false;
    if (!entry->m_crash || m_newestBundle.empty() || LogOf(entry->m_path) != m_newestBundle)
        return true;
    // The newest crash bundle stays as long as a file of its log does.
    for (const auto& other : m_files)
        if (!other->m_crash && LogOf(other->m_path) == m_newestBundle)
            return false;
    return true;
}

long ZlZomFileList::OldestDeletable() const {
    for (size_t i = 0; i < m_files.size(); ++i)
        if (MayDelete(m_files[i].get()))
            return static_cast<long>(i);
    return -1;
}

unsigned long long ZlZomFileList::DeletableBytes() const {
    unsigned long long bytes = 0;
    for (const auto& entry : m_files)
        if (MayDelete(entry.get()))
            bytes += entry->m_size;
    return bytes;
}

unsigned long long ZlZomFileList::RoomForCrash(unsigned long long freeBytes) const {
    const unsigned long long deletable = DeletableBytes();
    const unsigned long long kept = m_size - std::min(m_size, deletable);
    const unsigned long long inBudget =
        m_total == 0 ? ULLONG_MAX : (m_total > kept ? m_total - kept : 0);
    const unsigned long long onDisk =
        freeBytes > ULLONG_MAX - deletable ? ULLONG_MAX : freeBytes + deletable;
    return std::min(inBudget, onDisk);
}

void ZlZomFileList::MakeRoomForCrash(unsigned long long bytes,
                                     const std::function<unsigned long long()>& freeBytes) {
    while (((m_total != 0 && m_size + bytes > m_total) || freeBytes() < bytes) && DeleteOldest()) {
    }
}

bool ZlZomFileList::TrimToBudget() {
    if (m_total == 0)
        return true;
    while (m_size > m_total) {
        if (!DeleteOldest())
            return false;
    }
    return true;
}

void ZlZomFileList::MakeRoomFor(unsigned incoming) {
    if (m_total == 0)
        return;
    // The budget counts what is on disk; the chunk about to be written is counted in advance.
    m_size += incoming;
    // Only closed files are deleted: the file being written is the newest data, and once it is
    // the only one left a retry could never succeed and would hold up the port reader for good.
    while (m_size > m_total && HasClosedFile()) {
        if (DeleteOldest()) {
            if (m_deleteFailing) {
                m_journal.Text("NewLogData. Old files can be deleted again.");
                m_deleteFailing = false;
            }
            continue;
        }
        // A file that cannot be removed now is tried again with the next chunk; waiting here
        // would stall the stream and the client for as long as the fault lasts.
        if (!m_deleteFailing)
            m_journal.Fault("NewLogData. Failed to delete an old file.");
        m_deleteFailing = true;
        break;
    }
    m_size -= std::min<unsigned long long>(incoming, m_size);
}

bool ZlZomFileList::HasClosedFile() const {
    return OldestDeletable() >= 0;
}

bool ZlZomFileList::Contains(const ZvAString& path) const {
    for (const auto& entry : m_files)
        if (entry->m_path == path)
            return true;
    return false;
}

void ZlZomFileList::AddCurrent(const ZvAString& path, bool segmented, unsigned segmentsInLog) {
    auto entry = std::make_unique<ZlZomLogFile>(path, 0);
    m_current = entry.get();
    if (m_keepFirstSegment && segmented) {
        if (m_first == nullptr)
            m_first = m_current;
        else
            MoveFirstSegmentLast(segmentsInLog);
    }
    m_files.push_back(std::move(entry));
}

void ZlZomFileList::MoveFirstSegmentLast(unsigned segmentsInLog) {
    // From the third segment of the log on; counted per log, as the numbers may not start at 000.
    if (segmentsInLog <= 2 || m_files.size() < 2)
        return;
    const size_t count = m_files.size();
    if (m_files[count - 2].get() == m_first) {
        // Segment 000 moves behind the segment closed last, so the middle segments go first.
        std::swap(m_files[count - 2], m_files[count - 1]);
        return;
    }
    m_journal.Text("NewLogData. First segment move failed %u, '%s'.", static_cast<unsigned>(count),
                   m_files[count - 2]->m_path.c_str());
}

void ZlZomFileList::DropCurrent() {
    // Nothing of this file exists: forget it, so that a long fault does not grow the list.
    if (m_first == m_current)
        m_first = nullptr;
    m_current = nullptr;
    m_files.pop_back();
}

void ZlZomFileList::CloseCurrent(unsigned long long size) {
    if (m_current == nullptr)
        return;
    m_journal.Text("Log file closed '%s' of %llu bytes.", m_current->m_path.c_str(), size);
    m_current->m_size = size;
    m_current = nullptr;
}

const ZvAString& ZlZomFileList::CurrentPath() const {
    static const ZvAString kNone;
    return m_current != nullptr ? m_current->m_path : kNone;
}

bool ZlZomFileList::DeleteOldest() {
    const long oldest = OldestDeletable();
    if (oldest < 0) {
        m_journal.Text("DeleteOldestFile error. Attempt to delete an old file when none exists.");
        return false;
    }
    return DeleteAt(static_cast<size_t>(oldest));
}

bool ZlZomFileList::DeleteOldestForSpace() {
    for (size_t i = 0; i < m_files.size(); ++i) {
        const ZlZomLogFile* entry = m_files[i].get();
        if (!MayDelete(entry) || (m_keepFirstSegment && entry == m_first))
            continue;
        return DeleteAt(i);
    }
    return false;
}

bool ZlZomFileList::DeleteAt(size_t index) {
    ZlZomLogFile* entry = m_files[index].get();
    const char* path = entry->m_path.c_str();
    // A closed segment may still be open for its sync: its blocks would stay in use.
    m_sync.Forget(entry->m_path);
    const bool removed =
        ZvFileUtil::IsDir(path) ? ZvFileUtil::DeleteDir(path, true) : ZvFileUtil::DelFile(path);
    if (ZvFile::Exists(path) && !removed) {
        m_journal.Fault("DeleteOldestFile error. Failed to delete '%s'.", path);
        return false;
    }
    m_sync.DirectoryChanged();
    m_journal.Text("Deleting old file '%s' of %llu bytes (total %llu).", path, entry->m_size,
                   m_size);
    if (entry->m_size > m_size) {
        m_journal.Text("DeleteOldestFile error. Inconsistent sizes, current %llu, file %llu",
                       m_size, entry->m_size);
        m_size = 0;
    } else {
        m_size -= entry->m_size;
    }
    if (entry == m_current)
        m_current = nullptr;
    if (entry == m_first)
        m_first = nullptr;
    m_files.erase(m_files.begin() + static_cast<std::ptrdiff_t>(index));
    return true;
}

void ZlZomFileList::Clear() {
    m_newestBundle.clear();
    m_first = nullptr;
    m_current = nullptr;
    m_files.clear();
}

void ZlZomFileList::GetPaths(ZvAStringList& paths) const {
    paths.Clear();
    for (const auto& entry : m_files)
        paths.Add(entry->m_path);
}
