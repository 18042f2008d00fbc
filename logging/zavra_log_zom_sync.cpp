#include "zavra_log_zom_sync.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

#include "zv-file.h"
#include "zv-time.h"

namespace {
const unsigned kCurrentSyncMs = 1000;
// Shutdown waits this long for the last syncs; a disk that takes longer is synced inline.
const unsigned kSyncFinishMs = 5000;
} // namespace

ZlZomSync::ZlZomSync(ZlZomJournal& journal) : m_journal(journal) {
    m_sema.Create(0);
}

void ZlZomSync::OpenDirectory(const ZvAString& directory) {
    m_dirFd = ZvFile::OpenFd(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

void ZlZomSync::Start(CurrentFile currentFile) {
    m_currentFile = std::move(currentFile);
    m_end = false;
    m_lastCurrentSyncTick = ZvTime::GetMsTickTime();
    m_running = m_thread.StartMember<ZlZomSync, &ZlZomSync::Thread>(this);
    if (!m_running)
        m_journal.Fault("Failed to start sync thread.");
}

void ZlZomSync::End() {
    if (m_running) {
        m_end = true;
        m_sema.Post();
        m_thread.WaitForThreadFinish(kSyncFinishMs);
        m_running = false;
    }
    // Whatever is still waiting (no thread, or one that did not finish in time) is done here.
    Pass();
    if (m_dirFd >= 0) {
        close(m_dirFd);
        m_dirFd = -1;
    }
}

void ZlZomSync::Thread() {
    ZvThread::SetBackgroundPriority(); // the port reader comes first
    for (;;) {
        // Only an end request posts: otherwise this is a pause of one second.
        m_sema.Wait(kCurrentSyncMs);
        const bool end = m_end;
        Pass();
        if (end)
            return;
    }
}

void ZlZomSync::Pass() {
    std::deque<Pending> batch;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        batch.swap(m_pending);
        for (const Pending& item : batch)
            m_syncing.push_back(item.path);
    }
    // Write-back starts for all of them first: the first sync then commits the allocations of
    // every one in one journal commit, and the others only wait for their data.
    for (const Pending& item : batch)
        sync_file_range(item.fd, 0, 0, SYNC_FILE_RANGE_WRITE);
    for (const Pending& item : batch) {
        fdatasync(item.fd);
        close(item.fd);
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_syncing.erase(std::find(m_syncing.begin(), m_syncing.end(), item.path));
        }
        m_done.notify_all();
    }
    if (ZvTime::DiffMsTime(m_lastCurrentSyncTick, ZvTime::GetMsTickTime()) >= kCurrentSyncMs)
        SyncCurrentFile();
    if (m_directoryDirty.exchange(false) && m_dirFd >= 0)
        fsync(m_dirFd);
}

void ZlZomSync::SyncCurrentFile() {
    m_lastCurrentSyncTick = ZvTime::GetMsTickTime();
    const int fd = m_currentFile ? m_currentFile() : -1;
    if (fd < 0)
        return;
    fdatasync(fd);
    close(fd);
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_syncing.pop_back();
    }
    m_done.notify_all();
}

void ZlZomSync::BeginSync(const ZvAString& path) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_syncing.push_back(path);
}

void ZlZomSync::Queue(int fd, const ZvAString& path) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_pending.push_back({fd, path});
}

void ZlZomSync::Forget(const ZvAString& path) {
    std::unique_lock<std::mutex> lock(m_lock);
    for (auto it = m_pending.begin(); it != m_pending.end(); ++it) {
        if (it->path == path) {
            close(it->fd); // about to be deleted: nothing to sync
            m_pending.erase(it);
            return;
        }
    }
    // Being synced right now: its descriptor is closed once the sync returns.
    m_done.wait(lock, [&] {
        return std::find(m_syncing.begin(), m_syncing.end(), path) == m_syncing.end();
    });
}
