// ZvSendQueue: a bounded queue of chunks between a producer that must never wait (the serial port
// reader) and one TCP peer that may pause now and then (a viewer behind a busy link).
//
// Push hands a chunk to the socket at once when nothing is queued before it and the socket takes
// it (a non-blocking send on the producer's thread: no copy, no other thread involved). What the
// socket does not take is copied into the queue, or, when it does not fit, the chunk is dropped
// whole; a writer thread of the queue sends what is queued, so the peer gets a byte-exact stream
// for as long as the queue has room.
//
// Why a writer thread rather than only non-blocking sends on the producer's thread: sends
// attempted only when a new chunk arrives would leave the tail of the stream queued for as long as
// the modem stays quiet, and a peer waiting for the last record would never see it. All waiting
// for the peer happens on the writer, which sleeps while nothing is queued and is woken only when
// something is queued while it sleeps, not once per chunk.
//
// The queue is a ring of `limit` bytes with one writer of each end: the producer appends, the
// writer sends, each publishing its running total; neither takes a lock for that. The ring is
// allocated when a chunk is first queued and freed by Stop; it starts again at its beginning
// whenever it is found empty, so its resident size follows the largest backlog, not the limit.
//
// Drops come in episodes: one starts with the first chunk that does not fit and ends when the
// writer has emptied the queue (the peer caught up) and a chunk is queued again. Push tells the
// caller where an episode starts and ends, so that each one is reported once in the caller's own
// words; the totals are kept for the life of the object, across peers.
//
// Threads: Push from one producer thread; Start and Stop from any thread (serialised here; Stop
// waits for a Push in progress, which never waits itself); the counters from any thread. The
// socket must stay open until Stop has returned: the producer and the writer use it until then.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "zv-thread.h"

class ZvSocket;

class ZvSendQueue {
public:
    static const size_t kDefaultLimit = 4u << 20;

    enum PushResult {
        kQueued,  // sent or queued; no drop episode open
        kResumed, // sent or queued, and it ends a drop episode (its counts in EpisodeChunks/Bytes)
        kDropStarted, // dropped whole, the first drop of an episode
        kDropped,     // dropped whole, within an episode
        kNotSending,  // no peer (not started, or it has gone): nothing queued, nothing counted
    };

    explicit ZvSendQueue(size_t limit = kDefaultLimit);
    // Stops the writer without waiting for the peer.
    ~ZvSendQueue();
    ZvSendQueue(const ZvSendQueue&) = delete;
    ZvSendQueue& operator=(const ZvSendQueue&) = delete;

    // Starts sending to `socket` (a connected socket, blocking or not: sends here never block).
    // Stops an earlier writer first. False when the thread cannot start.
    bool Start(ZvSocket& socket);
    // Gives the writer up to flushMs to send what is queued (less when the peer takes nothing
    // for a while), then stops it. What is still queued then is counted as dropped, unless the
    // peer had already gone. True when a drop episode was open at the end; its counts are in
    // EpisodeChunks/Bytes.
    bool Stop(unsigned flushMs = 0);

    // Called for every chunk; see PushResult. Never waits for the peer.
    PushResult Push(const unsigned char* data, unsigned size);

    size_t Limit() const { return m_limit; }
    bool IsSending() const { return m_running.load() && !m_peerGone.load(); }
    // Bytes queued and not yet sent.
    size_t QueuedBytes() const;
    uint64_t DroppedChunks() const { return m_droppedChunks.load(std::memory_order_relaxed); }
    uint64_t DroppedBytes() const { return m_droppedBytes.load(std::memory_order_relaxed); }
    // The episode open now, or the one that ended last.
    uint64_t EpisodeChunks() const { return m_episodeChunks.load(std::memory_order_relaxed); }
    uint64_t EpisodeBytes() const { return m_episodeBytes.load(std::memory_order_relaxed); }

private:
    bool StopLocked(unsigned flushMs);
    // Push once the producer holds the right to push (m_pushing set, m_running seen).
    PushResult PushRunning(const unsigned char* data, unsigned size);
    // Copies a chunk (or the part the socket did not take) into the ring and wakes the writer
    // when it sleeps.
    void Append(const unsigned char* data, unsigned size);
    void CountDrop(uint64_t chunks, uint64_t bytes);
    // Waits for the flush of Stop: until the queue is empty, the peer has gone, flushMs have
    // passed or the peer has taken nothing for a while.
    void WaitForFlush(unsigned flushMs);
    static void WriterThreadFunc(ZvThread* thread, void* self);
    void WriterLoop();
    // Sleeps until something is queued or the writer is told to stop.
    void WaitForWork();

    const size_t m_limit;
    std::mutex m_controlLock; // serialises Start and Stop
    ZvThread m_thread;
    ZvSocket* m_socket = nullptr;

    // The producer may push while m_running; it sets m_pushing around each Push, and Stop, after
    // clearing m_running, waits until m_pushing is clear (both sequentially consistent, so that
    // one of the two always sees the other).
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_pushing{false};
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_peerGone{false};

    // The ring and its running totals: bytes ever queued (written by the producer) and bytes of
    // them sent (by the writer). Positions in the ring count from m_ringBase, moved by the
    // producer only while the ring is empty, so never under the writer.
    std::unique_ptr<unsigned char[]> m_ring;
    std::atomic<uint64_t> m_queuedTotal{0};
    std::atomic<uint64_t> m_sentTotal{0};
    std::atomic<uint64_t> m_ringBase{0};
    // m_sentTotal when the writer last found the ring empty: tells the producer that the queue
    // has drained since a drop episode began.
    std::atomic<uint64_t> m_emptyAt{0};
    // The producer's own: where each queued chunk ends (to count whole chunks left at Stop), and
    // the drop episode.
    std::deque<uint64_t> m_chunkEnds;
    bool m_dropping = false;
    uint64_t m_dropMark = 0; // m_queuedTotal when the episode began

    // The writer's sleep: it sets m_writerIdle before it looks for work one last time, and the
    // producer wakes it when it finds the flag set after queueing.
    std::mutex m_wakeLock;
    std::condition_variable m_wake;
    std::atomic<bool> m_writerIdle{false};

    std::atomic<uint64_t> m_droppedChunks{0};
    std::atomic<uint64_t> m_droppedBytes{0};
    std::atomic<uint64_t> m_episodeChunks{0};
    std::atomic<uint64_t> m_episodeBytes{0};
};
