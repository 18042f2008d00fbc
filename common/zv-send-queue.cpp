#include "zv-send-queue.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "zv-socket.h"

namespace {
// The writer looks at the stop flag at least this often while the peer takes nothing.
const int kWritableWaitMs = 50;
// A flush gives up once the peer has taken nothing for this long.
const unsigned kFlushIdleMs = 250;
} // namespace

ZvSendQueue::ZvSendQueue(size_t limit) : m_limit(limit) {}

ZvSendQueue::~ZvSendQueue() {
    Stop(0);
}

bool ZvSendQueue::Start(ZvSocket& socket) {
    std::lock_guard<std::mutex> control(m_controlLock);
    StopLocked(0);
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_chunks.clear();
        m_queuedBytes = 0;
        m_inFlightLeft = 0;
        m_peerGone = false;
        m_dropping = false;
        m_drainedSinceDrop = false;
        m_episodeChunks = 0;
        m_episodeBytes = 0;
        m_running = true;
    }
    m_socket = &socket;
    m_stop = false;
    if (m_thread.Create(&ZvSendQueue::WriterThreadFunc, this))
        return true;
    std::lock_guard<std::mutex> lock(m_lock);
    m_running = false;
    m_socket = nullptr;
    return false;
}

bool ZvSendQueue::Stop(unsigned flushMs) {
    std::lock_guard<std::mutex> control(m_controlLock);
    return StopLocked(flushMs);
}

bool ZvSendQueue::StopLocked(unsigned flushMs) {
    if (m_socket == nullptr)
        return false;
    {
        std::unique_lock<std::mutex> lock(m_lock);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(flushMs);
        while (m_queuedBytes != 0 && !m_peerGone && std::chrono::steady_clock::now() < deadline) {
            const size_t before = m_queuedBytes;
            const auto idle = std::min(deadline, std::chrono::steady_clock::now() +
                                                     std::chrono::milliseconds(kFlushIdleMs));
            if (!m_progress.wait_until(lock, idle,
                                       [&] { return m_queuedBytes != before || m_peerGone; }))
                break;
        }
        // No new chunks from here on; the writer ends within one writable wait.
        m_running = false;
        m_stop = true;
        m_haveWork.notify_all();
    }
    m_thread.WaitForThreadFinish(ZvThread::kWaitForever);
    m_socket = nullptr;

    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_peerGone && m_queuedBytes != 0) {
        // Not delivered: accounted for like any other drop, so that every byte is either sent
        // or counted.
        const uint64_t chunks = m_chunks.size() + (m_inFlightLeft != 0 ? 1 : 0);
        if (!m_dropping) {
            m_dropping = true;
            m_episodeChunks = 0;
            m_episodeBytes = 0;
        }
        CountDropLocked(chunks, m_queuedBytes);
    }
    m_chunks.clear();
    m_queuedBytes = 0;
    m_inFlightLeft = 0;
    // The episode ends with the peer; its counts stay readable until the next one.
    const bool episodeOpen = m_dropping;
    m_dropping = false;
    return episodeOpen;
}

ZvSendQueue::PushResult ZvSendQueue::Push(const unsigned char* data, unsigned size) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_running || m_peerGone)
        return kNotSending;
    if (size == 0)
        return kQueued;
    if (m_queuedBytes + size > m_limit) {
        // Whole chunks only: the peer then sees a gap at a chunk boundary, never a chunk cut.
        if (!m_dropping) {
            m_dropping = true;
            m_drainedSinceDrop = false;
            m_episodeChunks = 0;
            m_episodeBytes = 0;
            CountDropLocked(1, size);
            return kDropStarted;
        }
        CountDropLocked(1, size);
        return kDropped;
    }
    PushResult result = kQueued;
    if (m_dropping && m_drainedSinceDrop) {
        m_dropping = false;
        result = kResumed;
    }
    m_chunks.emplace_back(data, data + size);
    m_queuedBytes += size;
    m_haveWork.notify_one();
    return result;
}

void ZvSendQueue::CountDropLocked(uint64_t chunks, uint64_t bytes) {
    m_droppedChunks += chunks;
    m_droppedBytes += bytes;
    m_episodeChunks += chunks;
    m_episodeBytes += bytes;
}

void ZvSendQueue::WriterThreadFunc(ZvThread*, void* self) {
    static_cast<ZvSendQueue*>(self)->WriterLoop();
}

void ZvSendQueue::WriterLoop() {
    std::unique_lock<std::mutex> lock(m_lock);
    for (;;) {
        m_haveWork.wait(lock, [&] { return m_stop || !m_chunks.empty(); });
        if (m_stop)
            return;
        // The chunk leaves the queue but its bytes still count against the limit until sent.
        std::vector<unsigned char> chunk = std::move(m_chunks.front());
        m_chunks.pop_front();
        m_inFlightLeft = chunk.size();
        lock.unlock();
        const bool delivered = SendChunk(chunk);
        lock.lock();
        if (!delivered) {
            // The peer has gone: nothing more is queued for it, and nothing counted.
            m_peerGone = true;
            m_chunks.clear();
            m_queuedBytes = 0;
            m_inFlightLeft = 0;
            m_progress.notify_all();
            return;
        }
        if (m_queuedBytes == 0 && m_dropping)
            m_drainedSinceDrop = true;
    }
}

bool ZvSendQueue::SendChunk(const std::vector<unsigned char>& chunk) {
    size_t done = 0;
    while (done < chunk.size() && !m_stop) {
        const int sent = m_socket->WriteNonBlocking(chunk.data() + done,
                                                    static_cast<unsigned>(chunk.size() - done));
        if (sent > 0) {
            done += static_cast<size_t>(sent);
            std::lock_guard<std::mutex> lock(m_lock);
            m_queuedBytes -= static_cast<size_t>(sent);
            m_inFlightLeft -= static_cast<size_t>(sent);
            m_progress.notify_all();
            continue;
        }
        if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            return false;
        if (sent == 0)
            return false; // the socket was closed under the writer
        // The socket's buffer is full: wait for room in short steps, so a stop is seen soon.
        pollfd room = {m_socket->GetHandle(), POLLOUT, 0};
        if (room.fd < 0)
            return false;
        poll(&room, 1, kWritableWaitMs);
    }
    return true;
}

bool ZvSendQueue::IsSending() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_running && !m_peerGone;
}

size_t ZvSendQueue::QueuedBytes() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_queuedBytes;
}

uint64_t ZvSendQueue::DroppedChunks() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_droppedChunks;
}

uint64_t ZvSendQueue::DroppedBytes() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_droppedBytes;
}

uint64_t ZvSendQueue::EpisodeChunks() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_episodeChunks;
}

uint64_t ZvSendQueue::EpisodeBytes() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_episodeBytes;
}
