// The store's sync thread: what the store writes reaches the disk within about a second, without
// the port reader ever waiting for it.
//
// - The segment being written is synced at most once a second, through a duplicate of its
//   descriptor that the store hands over under its lock, so the reader may close the original
//   meanwhile.
// - A closed segment is handed over with its descriptor; the thread syncs it and closes it.
// - After segments are created or deleted the directory itself is synced, so that their entries
//   survive a power cut too.
// All of it happens once a second, in one pass: each sync of a file or a directory costs the file
// system a journal commit, and a commit per segment would slow the writes of the port reader.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "zavra_log_zom_journal.h"
#include "zv-sema.h"
#include "zv-thread.h"

class ZlZomSync {
public:
    // Returns a duplicate descriptor of the segment being written when it has data not yet synced
    // (having called BeginSync with its path), or -1.
    using CurrentFile = std::function<int()>;

    explicit ZlZomSync(ZlZomJournal& journal);
    ZlZomSync(const ZlZomSync&) = delete;
    ZlZomSync& operator=(const ZlZomSync&) = delete;

    void OpenDirectory(const ZvAString& directory);
    void Start(CurrentFile currentFile);
    // Ends the thread and does what is still waiting, then closes the directory.
    void End();

    // A closed segment: the thread syncs and closes it.
    void Queue(int fd, const ZvAString& path);
    // Before a file is deleted: no descriptor of ours may keep its blocks in use.
    void Forget(const ZvAString& path);
    // The file at `path` is being synced from now until the sync of the current file returns.
    void BeginSync(const ZvAString& path);
    void DirectoryChanged() { m_directoryDirty = true; }

private:
    void Thread();
    void Pass();
    void SyncCurrentFile();

    struct Pending {
        int fd;
        ZvAString path;
    };

    ZlZomJournal& m_journal;
    CurrentFile m_currentFile;
    int m_dirFd = -1;
    // Closed segments waiting to be synced and closed, and the paths being synced now.
    std::mutex m_lock;
    std::condition_variable m_done;
    std::deque<Pending> m_pending;
    std::vector<ZvAString> m_syncing;
    std::atomic<bool> m_directoryDirty{false};
    ZvThread m_thread;
    ZvSema m_sema;
    std::atomic<bool> m_end{false};
    bool m_running = false;
    unsigned m_lastCurrentSyncTick = 0;
};
