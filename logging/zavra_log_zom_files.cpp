#include "zavra_log_zom_files.h"

#include <algorithm>

#include "zv-file-find.h"
#include "zv-file-util.h"
#include "zv-file.h"

void ZlZomFileList::Scan(const ZvAString& directory) {
    ZvFileFind find;
    ZvFindFileData found;
    for (bool more = find.FindFirst(directory.c_str(), "*.zom", found); more;
         more = find.FindNext(found)) {
        if (found.type != ZvFindFileData::TypeFile)
            continue;
        ZvAString path = directory;
        ZvFileUtil::AppendToPath(path, found.name.c_str());
        long long size = ZvFileUtil::GetFileSize(path.c_str());
        if (size < 0) {
            m_journal.Text("Initialise: Failed to get existing file size '%s'.", path.c_str());
            continue;
        }
        m_files.push_back(std::make_unique<ZlZomLogFile>(path, size));
        m_size += static_cast<unsigned long long>(size);
        m_journal.Text("Initialise: Adding existing file '%s' of %lld bytes.", path.c_str(), size);
    }
    m_journal.Text("Current Logs Size: %llu", m_size);
    m_journal.Text("Sorting existing files");
    // The names carry their start time most significant first, so byte order is time order.
    std::stable_sort(
        m_files.begin(), m_files.end(),
        [](const std::unique_ptr<ZlZomLogFile>& a, const std::unique_ptr<ZlZomLogFile>& b) {
            return a->m_path.compare(b->m_path) < 0;
        });
    for (const auto& entry : m_files)
        m_journal.Text("Sorted '%s' of %llu bytes.", entry->m_path.c_str(), entry->m_size);
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
    return m_files.size() > (m_current != nullptr ? 1u : 0u);
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
    if (m_files.empty()) {
        m_journal.Text("DeleteOldestFile error. Attempt to delete an old file when none exists.");
        return false;
    }
    return DeleteAt(0);
}

bool ZlZomFileList::DeleteOldestForSpace() {
    for (size_t i = 0; i < m_files.size(); ++i) {
        const ZlZomLogFile* entry = m_files[i].get();
        if (entry == m_current || (m_keepFirstSegment && entry == m_first))
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
    if (ZvFile::Exists(path) && !ZvFileUtil::DelFile(path)) {
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
    m_first = nullptr;
    m_current = nullptr;
    m_files.clear();
}

void ZlZomFileList::GetPaths(ZvAStringList& paths) const {
    paths.Clear();
    for (const auto& entry : m_files)
        paths.Add(entry->m_path);
}
