// ZvSendQueue: a bounded queue of chunks between a producer that must never wait (the serial port
// reader) and one TCP peer that may pause now and then (a viewer behind a busy link).
//
// Push copies a chunk into the queue or, when it does not fit, drops it whole; a writer thread
// of the queue sends what is queued, and the part of a chunk that the socket did not take stays
// queued, so the peer gets a byte-exact stream for as long as the queue has room.
//
// Why a writer thread rather than non-blocking sends on the producer's thread: sends attempted
// only when a new chunk arrives would leave the tail of the stream queued for as long as the
// modem stays quiet, and a peer waiting for the last record would never see it. The producer
// only takes a lock and copies the chunk; all waiting for the peer happens on the writer.
//
// Drops come in episodes: one starts with the first chunk that does not fit and ends when the
// writer has emptied the queue (the peer caught up) and a chunk is queued again. Push tells the
// caller where an episode starts and ends, so that each one is reported once in the caller's own
// words; the totals are kept for the life of the object, across peers.
//
// Threads: Push from one producer thread; Start and Stop from any thread (serialised here); the
// counters from any thread. The socket must stay open until Stop has returned: the writer uses
// it until then.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "zv-thread.h"

class ZvSocket;

class ZvSendQueue {
public:
    static const size_t kDefaultLimit = 4u << 20;

    enum PushResult {
        kQueued,      // queued; no drop episode open
        kResumed,     // queued, and it ends a drop episode (its counts in EpisodeChunks/Bytes)
        kDropStarted, // dropped whole, the first drop of an episode
        kDropped,     // dropped whole, within an episode
        kNotSending,  // no peer (not started, or it has gone): nothing queued, nothing counted
    };

    explicit ZvSendQueue(size_t limit = kDefaultLimit);
    // Stops the writer without waiting for the peer.
    ~ZvSendQueue();
    ZvSendQueue(const ZvSendQueue&) = delete;
    ZvSendQueue& operator=(const ZvSendQueue&) = delete;

    // Starts the writer sending to `socket` (a connected socket, blocking or not: sends here
    // never block). Stops an earlier writer first. False when the thread cannot start.
    bool Start(ZvSocket& socket);
    // Gives the writer up to flushMs to send what is queued (less when the peer takes nothing
    // for a while), then stops it. What is still queued then is counted as dropped, unless the
    // peer had already gone. True when a drop episode was open at the end; its counts are in
    // EpisodeChunks/Bytes.
    bool Stop(unsigned flushMs = 0);

    // Called for every chunk; see PushResult. Never waits for the peer.
    PushResult Push(const unsigned char* data, unsigned size);

    size_t Limit() const { return m_limit; }
    bool IsSending() const;
    // Bytes queued and not yet sent (including the unsent part of the chunk being sent).
    size_t QueuedBytes() const;
    uint64_t DroppedChunks() const;
    uint64_t DroppedBytes() const;
    // The episode open now, or the one that ended last.
    uint64_t EpisodeChunks() const;
    uint64_t EpisodeBytes() const;

private:
    // Stop with m_controlLock held.
    bool StopLocked(unsigned flushMs);
    static void WriterThreadFunc(ZvThread* thread, void* self);
    void WriterLoop();
    // Sends one chunk; false when the peer has gone. Returns early (true) when told to stop.
    bool SendChunk(const std::vector<unsigned char>& chunk);
    void CountDropLocked(uint64_t chunks, uint64_t bytes);

    const size_t m_limit;
    std::mutex m_controlLock; // serialises Start and Stop
    ZvThread m_thread;
    ZvSocket* m_socket = nullptr;
    std::atomic<bool> m_stop{false};

    mutable std::mutex m_lock;          // everything below
    std::condition_variable m_haveWork; // a chunk queued, or stop
    std::condition_variable m_progress; // bytes sent, or the peer gone
    std::deque<std::vector<unsigned char>> m_chunks;
    size_t m_queuedBytes = 0;
    size_t m_inFlightLeft = 0;
    bool m_running = false;
    bool m_peerGone = false;
    bool m_dropping = false;
    bool m_drainedSinceDrop = false;
    uint64_t m_droppedChunks = 0;
    uint64_t m_droppedBytes = 0;
    uint64_t m_episodeChunks = 0;
    uint64_t m_episodeBytes = 0;
};
