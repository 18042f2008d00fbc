// ZlsSocketStream: the one TCP client of the tool outside daemon mode. The merged stream goes up
// to it through a bounded queue and its writer thread (the port reader never waits for the
// client); what the client sends comes down to the target through the input callback, released
// only once the target has been initialised.
#pragma once

#include <atomic>
#include <cstdint>

#include "zv-sema.h"
#include "zv-send-queue.h"
#include "zv-socket.h"
#include "zv-string-ascii.h"
#include "zv-thread.h"

typedef void (*ZlsSocketInputCallback)(unsigned char channel, unsigned char* data, unsigned length);

class ZlsSocketStream {
public:
    static const int kReceiveBufferSize = 16384;
    static const int kSendBufferSize = 262144;
    static const unsigned kReadSize = 1024;

    ~ZlsSocketStream() { Close(); }
    ZlsSocketStream(const ZlsSocketStream&) = delete;
    ZlsSocketStream& operator=(const ZlsSocketStream&) = delete;

    // How long Close lets the client take what is still queued for it.
    static const unsigned kCloseFlushMs = 2000;

    // `queueLimit`: the most bytes held for a client that has fallen behind.
    explicit ZlsSocketStream(size_t queueLimit = ZvSendQueue::kDefaultLimit)
        : m_upQueue(queueLimit) {}

    // Waits for one client on the listening socket `server`, starts the writer of its queue and
    // the reader, which holds the client's data until Release(). False with ErrorText() on
    // failure.
    bool OpenSocket(int server, int port, ZlsSocketInputCallback callback);
    // Lets the reader pass the client's data down (after the start messages).
    void Release();
    // Lets the client take what is queued (up to kCloseFlushMs), then hangs up.
    void Close();

    // Queues a chunk going up to the client; when the queue is full the chunk is dropped whole
    // for the client only, counted, and the episode reported once (verbosity above 4). Never
    // waits for the client. Safe against a concurrent Close.
    void WriteUp(const unsigned char* data, unsigned length);

    bool IsOpen() const { return m_open; }
    ZvAString PeerAddress() const { return m_socket.GetPeerAddress(); }
    const ZvAString& ErrorText() const { return m_errorText; }
    // Every byte of the stream either reached the client's socket or is counted here.
    uint64_t DroppedChunks() const { return m_upQueue.DroppedChunks(); }
    uint64_t DroppedBytes() const { return m_upQueue.DroppedBytes(); }

private:
    static void InputSocketStreamThreadFunc(ZvThread* thread, void* self);
    void ReadLoop();

    std::atomic<bool> m_open{false};
    ZvSocket m_socket;
    ZvAString m_errorText;
    ZvThread m_thread;
    ZlsSocketInputCallback m_callback = nullptr;
    ZvSema m_start;
    bool m_startCreated = false;
    ZvSendQueue m_upQueue;
};
