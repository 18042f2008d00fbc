// The sync thread of ZlZomDaemon: what the store writes reaches the disk within about a second,
// without the port reader ever waiting for it.
//
// - The segment being written is synced at most once a second, through a duplicate of its
//   descriptor taken under the store lock, so the reader may close the original meanwhile.
// - A closed segment is handed over with its descriptor; the thread syncs it and closes it.
// - After segments are created or deleted the directory itself is synced, so that their entries
//   survive a power cut too.
// All of it happens once a second, in one pass: each sync of a file or a directory costs the file
// system a journal commit, and a commit per segment would slow the writes of the port reader.
#include "zavra_log_zom_daemon.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

#include "zv-time.h"

namespace {
const unsigned kCurrentSyncMs = 1000;
// Shutdown waits this long for the last syncs; a disk that takes longer is synced inline.
const unsigned kSyncFinishMs = 5000;
} // namespace

void ZlZomDaemon::SyncThreadFunc(ZvThread*, void* daemon) {
    static_cast<ZlZomDaemon*>(daemon)->SyncThread();
}

void ZlZomDaemon::StartSyncThread() {
    m_syncThreadEnd = false;
    m_lastCurrentSyncTick = ZvTime::GetMsTickTime();
    m_syncThreadRunning = m_syncThread.Create(SyncThreadFunc, this) &&
                          m_syncThread.WaitForThreadStart(ZvThread::kWaitForever);
    if (!m_syncThreadRunning)
        LogFault("Failed to start sync thread.");
}

void ZlZomDaemon::EndSyncThread() {
    if (m_syncThreadRunning) {
        m_syncThreadEnd = true;
        m_syncSema.Post();
        m_syncThread.WaitForThreadFinish(kSyncFinishMs);
        m_syncThreadRunning = false;
    }
    // Whatever is still waiting (no thread, or one that did not finish in time) is done here.
    SyncPass();
}

void ZlZomDaemon::SyncThread() {
    ZvThread::SetBackgroundPriority(); // the port reader comes first
    for (;;) {
        // Only an end request posts: otherwise this is a pause of one second.
        m_syncSema.Wait(kCurrentSyncMs);
        const bool end = m_syncThreadEnd;
        SyncPass();
        if (end)
            return;
    }
}

void ZlZomDaemon::SyncPass() {
    std::deque<PendingSync> batch;
    {
        std::lock_guard<std::mutex> lock(m_syncLock);
        batch.swap(m_pendingSyncs);
        for (const PendingSync& item : batch)
            m_syncingPaths.push_back(item.path);
    }
    // Write-back starts for all of them first: the first sync then commits the allocations of
    // every one in one journal commit, and the others only wait for their data.
    for (const PendingSync& item : batch)
        sync_file_range(item.fd, 0, 0, SYNC_FILE_RANGE_WRITE);
    for (const PendingSync& item : batch) {
        fdatasync(item.fd);
        close(item.fd);
        {
            std::lock_guard<std::mutex> lock(m_syncLock);
            m_syncingPaths.erase(
                std::find(m_syncingPaths.begin(), m_syncingPaths.end(), item.path));
        }
        m_syncDone.notify_all();
    }
    if (ZvTime::DiffMsTime(m_lastCurrentSyncTick, ZvTime::GetMsTickTime()) >= kCurrentSyncMs)
        SyncCurrentFile();
    if (m_directoryDirty.exchange(false) && m_dirFd >= 0)
        fsync(m_dirFd);
}

void ZlZomDaemon::SyncCurrentFile() {
    m_lastCurrentSyncTick = ZvTime::GetMsTickTime();
    int fd = -1;
    {
        std::lock_guard<std::mutex> storeLock(m_storeLock);
        if (m_fileFd < 0 || !m_currentFileDirty)
            return;
        fd = fcntl(m_fileFd, F_DUPFD_CLOEXEC, 0);
        if (fd < 0)
            return;
        m_currentFileDirty = false;
        std::lock_guard<std::mutex> lock(m_syncLock);
        m_syncingPaths.push_back(m_currentEntry != nullptr ? m_currentEntry->m_path : ZvAString());
    }
    fdatasync(fd);
    close(fd);
    {
        std::lock_guard<std::mutex> lock(m_syncLock);
        m_syncingPaths.pop_back();
    }
    m_syncDone.notify_all();
}

void ZlZomDaemon::QueueForSync(int fd, const ZvAString& path) {
    std::lock_guard<std::mutex> lock(m_syncLock);
    m_pendingSyncs.push_back({fd, path});
}

void ZlZomDaemon::ForgetPendingSync(const ZvAString& path) {
    std::unique_lock<std::mutex> lock(m_syncLock);
    for (auto it = m_pendingSyncs.begin(); it != m_pendingSyncs.end(); ++it) {
        if (it->path == path) {
            close(it->fd); // about to be deleted: nothing to sync
            m_pendingSyncs.erase(it);
            return;
        }
    }
    // Being synced right now: its descriptor is closed once the sync returns.
    m_syncDone.wait(lock, [&] {
        return std::find(m_syncingPaths.begin(), m_syncingPaths.end(), path) ==
               m_syncingPaths.end();
    });
}

void ZlZomDaemon::NoteDirectoryChanged() {
    m_directoryDirty = true;
}
