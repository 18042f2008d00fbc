// The daemon-mode store's files: the stream goes into date-named ".zom" files, split into numbered
// segments at the file size, within the total budget (ZlZomFileList deletes the oldest first).
// Straight to the descriptor, so every byte handed over is in the file at once; a full disk
// deletes older files for room and only then loses bytes, once per episode in the journal and on
// standard error. Closed segments go to the sync thread. All of it under one lock: the connect
// thread closes the current file while the port reader may be writing to it, and an unguarded
// descriptor could be closed, reused by the re-opened port and written to.
#pragma once

#include <mutex>

#include "zavra_log_zom_files.h"
#include "zavra_log_zom_journal.h"
#include "zavra_log_zom_port.h"
#include "zavra_log_zom_sync.h"

class ZlZomStore {
public:
    ZlZomStore(ZlZomJournal& journal, ZlZomSync& sync, ZlZomPort& port);
    ZlZomStore(const ZlZomStore&) = delete;
    ZlZomStore& operator=(const ZlZomStore&) = delete;

    void SetKeepFirstSegment(bool keep) { m_files.SetKeepFirstSegment(keep); }
    // Sizes in bytes, 0 meaning no limit / no splitting.
    void Configure(const ZvAString& directory, unsigned long long totalSize,
                   unsigned long long fileSize);
    // Takes over the existing ".zom" files and trims them to the budget; false when an old file
    // cannot be deleted.
    bool TakeOver();

    // One chunk of the stream to the current file, split and rotated; false once the store is
    // closed.
    bool Write(const unsigned char* data, unsigned size);
    // Closes the current file, if any, recording `size` as its size, or the bytes that reached
    // it.
    void CloseCurrentFile(unsigned long long size);
    void CloseCurrentFile();
    bool DeleteOldestFile();
    // Closes the last file for good: later data has nowhere to go.
    void Close();
    // For the sync thread: a duplicate descriptor of the current file when it has data not yet
    // synced, or -1.
    int TakeCurrentFileForSync();

    // The directory joined with "daemon_" and the current log name, without extension.
    void GetCrashFileName(ZvAString& path);
    // Crash bundles: the most one may take (in the budget and on the disk, once the files that
    // may go have gone); making room for `bytes` of it; and counting the bundle the tool made
    // under `basePath` (as given by GetCrashFileName), which may delete older files.
    unsigned long long RoomForCrash();
    void MakeRoomForCrash(unsigned long long bytes);
    void AddCrashBundle(const ZvAString& basePath);
    unsigned long long GetLogsSize();
    void GetFileList(ZvAStringList& paths);
    unsigned long long GetBytesLost();

private:
    // The caller holds m_lock.
    void CloseCurrentLocked(unsigned long long size);
    void OpenNextFile();
    void WriteToFile(const unsigned char* data, unsigned size);
    void NoteBytesLost(unsigned long long bytes, int error);
    void NoteWriteResumed();
    void NoteLossAtClose();
    unsigned long long FreeBytes() const;

    ZlZomJournal& m_journal;
    ZlZomSync& m_sync;
    ZlZomPort& m_port;
    std::mutex m_lock;
    ZlZomFileList m_files;
    ZvAString m_directory;
    unsigned long long m_fileLimit = 0;
    ZvAString m_logName;
    unsigned m_segmentNumber = 0;
    // Segments opened for the current log. Equals m_segmentNumber unless the log's name repeats
    // an earlier one and its numbers continue from there.
    unsigned m_segmentsInLog = 0;
    int m_fileFd = -1;
    // The stream bytes the current segment stands for, lost ones included (so a loss never
    // stretches a segment), and the bytes that actually reached it.
    unsigned long long m_bytesInCurrentFile = 0;
    unsigned long long m_bytesOnDiskInCurrentFile = 0;
    bool m_currentFileDirty = false;
    bool m_closed = false;

    // Quiet journalling of repeated faults: one line when they start, a summary when they end.
    bool m_writeFailing = false;
    unsigned long long m_bytesNotWritten = 0;
    unsigned long long m_bytesLost = 0;
    bool m_openFailing = false;
    unsigned m_openFailures = 0;
};
