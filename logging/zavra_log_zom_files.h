// The log files of the daemon-mode store, in deletion order (oldest first), and their total size
// against the budget: the files found at start-up, then each file as the store opens it. Deleting
// a file first takes it from the sync thread, so that no descriptor keeps its blocks in use.
// Not locked itself: the store's lock guards it.
#pragma once

#include <deque>
#include <memory>

#include "zavra_log_zom_journal.h"
#include "zavra_log_zom_sync.h"
#include "zv-string-list-ascii.h"

// One log file known to the store.
struct ZlZomLogFile {
    ZlZomLogFile(const ZvAString& path, unsigned long long size) : m_path(path), m_size(size) {}

    ZvAString m_path;
    // The size found at start-up, 0 while being written, the closing size once closed.
    unsigned long long m_size;
};

class ZlZomFileList {
public:
    ZlZomFileList(ZlZomJournal& journal, ZlZomSync& sync) : m_journal(journal), m_sync(sync) {}

    // The budget in bytes (0: none), and whether segment 000 of each log is deleted last (when
    // logs are split into segments).
    void SetBudget(unsigned long long total) { m_total = total; }
    void SetKeepFirstSegment(bool keep) { m_keepFirstSegment = keep; }
    bool KeepsFirstSegment() const { return m_keepFirstSegment; }

    // Takes over the ".zom" files in `directory`, in the order of their names.
    void Scan(const ZvAString& directory);
    // Deletes the oldest files until the budget holds; false when one cannot be deleted.
    bool TrimToBudget();
    // Makes room for `incoming` bytes about to be written; only closed files are deleted.
    void MakeRoomFor(unsigned incoming);

    bool Contains(const ZvAString& path) const;
    // A file about to be written, the newest. When logs are `segmented`, with keep-first-segment,
    // the log's first segment moves behind each segment closed from the third on
    // (`segmentsInLog` counts the log's segments with this one).
    void AddCurrent(const ZvAString& path, bool segmented, unsigned segmentsInLog);
    // The current file could not be created after all.
    void DropCurrent();
    // The current file is closed at `size` bytes.
    void CloseCurrent(unsigned long long size);
    bool HasCurrent() const { return m_current != nullptr; }
    const ZvAString& CurrentPath() const;
    // Bytes that reached the current file.
    void CountWritten(unsigned long long bytes) { m_size += bytes; }
    // A new log: its first segment is not known yet.
    void StartLog() { m_first = nullptr; }

    bool DeleteOldest();
    // Room on a full disk: deletes the oldest closed file, sparing the one being written and,
    // with keep-first-segment, the first segment of the current log. False when none is left.
    bool DeleteOldestForSpace();

    void Clear();
    unsigned long long Size() const { return m_size; }
    void GetPaths(ZvAStringList& paths) const;

private:
    bool HasClosedFile() const;
    void MoveFirstSegmentLast(unsigned segmentsInLog);
    bool DeleteAt(size_t index);

    ZlZomJournal& m_journal;
    ZlZomSync& m_sync;
    std::deque<std::unique_ptr<ZlZomLogFile>> m_files;
    unsigned long long m_total = 0;
    unsigned long long m_size = 0;
    ZlZomLogFile* m_current = nullptr;
    ZlZomLogFile* m_first = nullptr;
    bool m_keepFirstSegment = false;
    // Deleting fails: one line when it starts, one when it works again.
    bool m_deleteFailing = false;
};
