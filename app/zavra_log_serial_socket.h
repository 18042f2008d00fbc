// ZlsSocketStream: the one TCP client of the tool outside daemon mode. The merged stream goes up
// to it (written by the normal receiver, never blocking the port reader); what the client sends
// comes down to the target through the input callback, released only once the target has been
// initialised.
#pragma once

#include <atomic>
#include <cstdint>

#include "zv-sema.h"
#include "zv-socket.h"
#include "zv-string-ascii.h"
#include "zv-thread.h"

typedef void (*ZlsSocketInputCallback)(unsigned char channel, unsigned char* data, unsigned length);

class ZlsSocketStream {
public:
    static const int kReceiveBufferSize = 16384;
    static const int kSendBufferSize = 262144;
    static const unsigned kReadSize = 1024;

    ZlsSocketStream() = default;
    ~ZlsSocketStream() { Close(); }
    ZlsSocketStream(const ZlsSocketStream&) = delete;
    ZlsSocketStream& operator=(const ZlsSocketStream&) = delete;

    // Waits for one client on the listening socket `server` and starts the reader, which holds
    // the client's data until Release(). False with ErrorText() on failure.
    bool OpenSocket(int server, int port, ZlsSocketInputCallback callback);
    // Lets the reader pass the client's data down (after the start messages).
    void Release();
    void Close();

    // One non-blocking send of a chunk going up to the client; what the client cannot take now
    // is dropped for the client only and counted. Safe against a concurrent Close.
    void WriteUp(const unsigned char* data, unsigned length);

    bool IsOpen() const { return m_open; }
    const ZvAString& ErrorText() const { return m_errorText; }
    uint64_t DroppedChunks() const { return m_droppedChunks; }
    uint64_t DroppedBytes() const { return m_droppedBytes; }

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

    // Written only by the port reader thread.
    uint64_t m_droppedChunks = 0;
    uint64_t m_droppedBytes = 0;
    bool m_dropping = false;
};
