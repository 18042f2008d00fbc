#include "zv-send-queue.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "zv-socket.h"

namespace {
// The writer looks at the stop flag at least this often while the peer takes nothing.
const int kWritableWaitMs = 50;
// A flush gives up once the peer has taken nothing for this long.
const unsigned kFlushIdleMs = 250;
// How often a flush looks at the writer's progress.
const unsigned kFlushPollMs = 5;

// A send that found the socket's buffer full, as opposed to a peer that has gone.
bool SocketFull(int sent) {
    return sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}
} // namespace

ZvSendQueue::ZvSendQueue(size_t limit) : m_limit(limit) {}

ZvSendQueue::~ZvSendQueue() {
    Stop(0);
}

bool ZvSendQueue::Start(ZvSocket& socket) {
    std::lock_guard<std::mutex> control(m_controlLock);
    StopLocked(0);
    // No producer and no writer from here until m_running is set.
    m_queuedTotal = 0;
    m_sentTotal = 0;
    m_ringBase = 0;
    m_emptyAt = 0;
    m_chunkEnds.clear();
    m_dropping = false;
    m_episodeChunks = 0;
    m_episodeBytes = 0;
    m_peerGone = false;
    m_stop = false;
    m_socket = &socket;
    if (!m_thread.Create(&ZvSendQueue::WriterThreadFunc, this)) {
        m_socket = nullptr;
        return false;
    }
    m_running = true;
    return true;
}

bool ZvSendQueue::Stop(unsigned flushMs) {
    std::lock_guard<std::mutex> control(m_controlLock);
    return StopLocked(flushMs);
}

bool ZvSendQueue::StopLocked(unsigned flushMs) {
    if (m_socket == nullptr)
        return false;
    WaitForFlush(flushMs);
    // No new chunks from here on: a Push in progress finishes first (it never waits).
    m_running = false;
    while (m_pushing.load())
        std::this_thread::yield();
    {
        std::lock_guard<std::mutex> lock(m_wakeLock);
        m_stop = true;
    }
    m_wake.notify_all(); // the writer ends within one writable wait
    m_thread.WaitForThreadFinish(ZvThread::kWaitForever);
    m_socket = nullptr;

    const uint64_t sent = m_sentTotal.load();
    const uint64_t queued = m_queuedTotal.load();
    if (!m_peerGone && queued != sent) {
        // Not delivered: accounted for like any other drop, so that every byte is either sent
        // or counted. A chunk sent in part counts as one.
        const uint64_t chunks = static_cast<uint64_t>(std::count_if(
            m_chunkEnds.begin(), m_chunkEnds.end(), [sent](uint64_t end) { return end > sent; }));
        if (!m_dropping) {
            m_dropping = true;
            m_episodeChunks = 0;
            m_episodeBytes = 0;
        }
        CountDrop(chunks, queued - sent);
    }
    m_sentTotal = queued;
    m_chunkEnds.clear();
    m_ring.reset();
    // The episode ends with the peer; its counts stay readable until the next one.
    const bool episodeOpen = m_dropping;
    m_dropping = false;
    return episodeOpen;
}

void ZvSendQueue::WaitForFlush(unsigned flushMs) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(flushMs);
    auto lastProgress = Clock::now();
    uint64_t lastSent = m_sentTotal.load();
    while (QueuedBytes() != 0 && Clock::now() < deadline) {
        const uint64_t sent = m_sentTotal.load();
        if (sent != lastSent) {
            lastSent = sent;
            lastProgress = Clock::now();
        } else if (Clock::now() - lastProgress >= std::chrono::milliseconds(kFlushIdleMs)) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kFlushPollMs));
    }
}

ZvSendQueue::PushResult ZvSendQueue::Push(const unsigned char* data, unsigned size) {
    m_pushing.store(true);
    const PushResult result =
        m_running.load() && !m_peerGone.load() ? PushRunning(data, size) : kNotSending;
    m_pushing.store(false);
    return result;
}

ZvSendQueue::PushResult ZvSendQueue::PushRunning(const unsigned char* data, unsigned size) {
    if (size == 0)
        return kQueued;
    const uint64_t sent = m_sentTotal.load(std::memory_order_acquire);
    const uint64_t queued = m_queuedTotal.load(std::memory_order_relaxed) - sent;
    while (!m_chunkEnds.empty() && m_chunkEnds.front() <= sent)
        m_chunkEnds.pop_front();
    if (queued + size > m_limit) {
        // Whole chunks only: the peer then sees a gap at a chunk boundary, never a chunk cut.
        const bool started = !m_dropping;
        if (started) {
            m_dropping = true;
            m_dropMark = m_queuedTotal.load(std::memory_order_relaxed);
            m_episodeChunks = 0;
            m_episodeBytes = 0;
        }
        CountDrop(1, size);
        return started ? kDropStarted : kDropped;
    }
    PushResult result = kQueued;
    if (m_dropping && (queued == 0 || m_emptyAt.load(std::memory_order_acquire) >= m_dropMark)) {
        m_dropping = false;
        result = kResumed;
    }
    if (queued == 0) {
        // Nothing before it, and the writer has nothing in hand: the chunk may go straight out.
        const int taken = m_socket->WriteNonBlocking(data, size);
        if (taken == static_cast<int>(size))
            return result;
        if (taken == 0 || (taken < 0 && !SocketFull(taken))) {
            // The peer has gone: nothing more is queued for it, and nothing counted.
            m_peerGone = true;
            return kNotSending;
        }
        if (taken > 0) {
            data += taken;
            size -= static_cast<unsigned>(taken);
        }
    }
    Append(data, size);
    return result;
}

void ZvSendQueue::Append(const unsigned char* data, unsigned size) {
    if (!m_ring)
        m_ring.reset(new unsigned char[m_limit]);
    const uint64_t queued = m_queuedTotal.load(std::memory_order_relaxed);
    if (queued == m_sentTotal.load(std::memory_order_acquire))
        m_ringBase.store(queued, std::memory_order_relaxed); // empty: start at the beginning
    const size_t at =
        static_cast<size_t>((queued - m_ringBase.load(std::memory_order_relaxed)) % m_limit);
    const size_t first = std::min<size_t>(size, m_limit - at);
    memcpy(m_ring.get() + at, data, first);
    memcpy(m_ring.get(), data + first, size - first);
    m_chunkEnds.push_back(queued + size);
    m_queuedTotal.store(queued + size);
    if (m_writerIdle.load()) {
        std::lock_guard<std::mutex> lock(m_wakeLock);
        m_wake.notify_one();
    }
}

void ZvSendQueue::CountDrop(uint64_t chunks, uint64_t bytes) {
    m_droppedChunks.fetch_add(chunks, std::memory_order_relaxed);
    m_droppedBytes.fetch_add(bytes, std::memory_order_relaxed);
    m_episodeChunks.fetch_add(chunks, std::memory_order_relaxed);
    m_episodeBytes.fetch_add(bytes, std::memory_order_relaxed);
}

size_t ZvSendQueue::QueuedBytes() const {
    if (m_peerGone.load())
        return 0;
    // Sent first: the queued total read after it is never smaller.
    const uint64_t sent = m_sentTotal.load();
    return static_cast<size_t>(m_queuedTotal.load() - sent);
}

void ZvSendQueue::WriterThreadFunc(ZvThread*, void* self) {
    static_cast<ZvSendQueue*>(self)->WriterLoop();
}

void ZvSendQueue::WaitForWork() {
    std::unique_lock<std::mutex> lock(m_wakeLock);
    m_writerIdle.store(true);
    m_wake.wait(lock, [&] {
        return m_stop.load() || m_queuedTotal.load() != m_sentTotal.load(std::memory_order_relaxed);
    });
    m_writerIdle.store(false);
}

void ZvSendQueue::WriterLoop() {
    while (!m_stop.load()) {
        const uint64_t queued = m_queuedTotal.load(std::memory_order_acquire);
        const uint64_t sent = m_sentTotal.load(std::memory_order_relaxed);
        if (queued == sent) {
            m_emptyAt.store(sent, std::memory_order_release);
            WaitForWork();
            continue;
        }
        // Everything queued up to the end of the ring in one send.
        const size_t at =
            static_cast<size_t>((sent - m_ringBase.load(std::memory_order_relaxed)) % m_limit);
        const size_t count = static_cast<size_t>(std::min<uint64_t>(queued - sent, m_limit - at));
        const int taken =
            m_socket->WriteNonBlocking(m_ring.get() + at, static_cast<unsigned>(count));
        if (taken > 0) {
            m_sentTotal.store(sent + static_cast<uint64_t>(taken), std::memory_order_release);
            continue;
        }
        if (!SocketFull(taken)) {
            // The peer has gone (or the socket was closed under the writer).
            m_peerGone = true;
            return;
        }
        // The socket's buffer is full: wait for room in short steps, so a stop is seen soon.
        pollfd room = {m_socket->GetHandle(), POLLOUT, 0};
        if (room.fd < 0) {
            m_peerGone = true;
            return;
        }
        poll(&room, 1, kWritableWaitMs);
    }
}
