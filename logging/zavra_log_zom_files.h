// The files of the daemon-mode store, in deletion order (oldest first), and their total size
// against the budget: the logs and the crash bundles found at start-up, then each log file as the
// store opens it and each crash bundle as the tool makes it. The budget counts both kinds, and
// the oldest file goes first whatever its kind; a log's bundle comes after the log's last file.
// Never deleted: the file being written, and the newest crash bundle while a file of its log is
// kept. Deleting a file first takes it from the sync thread, so that no descriptor keeps its
// blocks in use. Not locked itself: the store's lock guards it.
#pragma once

#include <deque>
#include <functional>
#include <memory>

#include "zavra_log_zom_journal.h"
#include "zavra_log_zom_sync.h"
#include "zv-string-list-ascii.h"

// One file known to the store: a log file or a file (or folder) of a crash bundle.
struct ZlZomLogFile {
    ZlZomLogFile(const ZvAString& path, unsigned long long size, bool crash = false)
        : m_path(path), m_size(size), m_crash(crash) {}

    ZvAString m_path;
    // The size found at start-up, 0 while being written, the closing size once closed.
    unsigned long long m_size;
    bool m_crash;
};

class ZlZomFileList {
public:
    ZlZomFileList(ZlZomJournal& journal, ZlZomSync& sync) : m_journal(journal), m_sync(sync) {}

    // The budget in bytes (0: none), and whether segment 000 of each log is deleted last (when
    // logs are split into segments).
    void SetBudget(unsigned long long total) { m_total = total; }
    void SetKeepFirstSegment(bool keep) { m_keepFirstSegment = keep; }
    bool KeepsFirstSegment() const { return m_keepFirstSegment; }

    // Takes over the ".zom" files and the crash bundles in `directory`, oldest first.
    void Scan(const ZvAString& directory);
    // True for the name of a crash bundle's file or folder, as the tool names them after a log:
    // "daemon_<time>" followed by "-crash.zip", "-crash.txt", "-crashlog.txt", "-extram.bin",
    // "-extram.dmp" or "-crash-files".
    static bool IsCrashFileName(const ZvAString& name);
    // The crash bundle named after `log` ("daemon_<time>") was made or replaced in `directory`:
    // its files are counted from now on, as the newest bundle. False when none was found.
    bool AddCrashBundle(const ZvAString& directory, const ZvAString& log);
    // The most a crash bundle may take: within the budget once everything that may go has gone,
    // and on the disk, whose `freeBytes` grow by what is deleted.
    unsigned long long RoomForCrash(unsigned long long freeBytes) const;
    // The bytes of the files that may be deleted.
    unsigned long long DeletableBytes() const;
    // Deletes the oldest files that may go until `bytes` more fit in the budget and on the disk
    // (`freeBytes` tells how much it holds now).
    void MakeRoomForCrash(unsigned long long bytes,
                          const std::function<unsigned long long()>& freeBytes);
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

    // Deletes the oldest file that may go (not the current one, not the newest crash bundle while
    // its log is kept).
    bool DeleteOldest();
    // Room on a full disk: as DeleteOldest, sparing also, with keep-first-segment, the first
    // segment of the current log. False when none is left.
    bool DeleteOldestForSpace();

    void Clear();
    unsigned long long Size() const { return m_size; }
    void GetPaths(ZvAStringList& paths) const;

private:
    bool HasClosedFile() const;
    // Whether the entry may be deleted now.
    bool MayDelete(const ZlZomLogFile* entry) const;
    // Index of the oldest entry that may be deleted, -1 when none.
    long OldestDeletable() const;
    void Add(const ZvAString& path, unsigned long long size, bool crash, const char* how);
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
    // The log name ("daemon_<time>") of the newest crash bundle; empty when there is none.
    ZvAString m_newestBundle;
    // Deleting fails: one line when it starts, one when it works again.
    bool m_deleteFailing = false;
};
