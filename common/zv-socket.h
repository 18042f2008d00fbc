// ZvSocket: one TCP connection (IPv4, or IPv6 on a server given an IPv6 address), accepted from a
// listening socket or connected to a server, with readiness waits that keep their failure text in
// the object. The listening socket itself is a plain descriptor owned by the caller, handled by
// OpenSocketServer and CloseSocketServer.
//
// Threads: an object is used by one thread at a time, with these exceptions:
// - SplitWait's abort flag is set from another thread; it is read before every slice.
// - Write, WriteNonBlocking and Close may run on different threads at the same time (a writer
//   thread forwarding data while the reader closes): the descriptor is swapped to -1 before it
//   is shut down and closed, so a write after or during Close fails or returns 0 instead of
//   touching another file. GetPeerAddress returns a copy for the same reason.
// Sends never raise SIGPIPE: a peer that has gone gives -1 (EPIPE or ECONNRESET).
#pragma once

#include <atomic>
#include <mutex>

#include "zv-listen-address.h"
#include "zv-string-ascii.h"

class ZvSocket {
public:
    // Readiness flags for Wait and SplitWait, and their result bits.
    static constexpr unsigned long kWaitRead = 1;
    static constexpr unsigned long kWaitWrite = 2;

    ZvSocket();
    ~ZvSocket();
    ZvSocket(const ZvSocket&) = delete;
    ZvSocket& operator=(const ZvSocket&) = delete;

    // Forgets the connection without closing it; the last message is kept.
    void Clear();
    // When open: shuts down both directions and closes; then Clear().
    void Close();

    // Creates a TCP socket into server and binds it to every local address at port (0 picks a
    // free port, see GetLocalPort). Buffer sizes are applied when non-zero. On a bind failure the
    // descriptor stays open in server; close it with CloseSocketServer.
    static bool OpenSocketServer(int port, int& server, int rcvBuf = 0, int sndBuf = 0);
    // The same on the address and port of `where` (every IPv4 address when it has no host).
    static bool OpenSocketServer(const ZvListenAddress& where, int& server, int rcvBuf = 0,
                                 int sndBuf = 0);
    static void CloseSocketServer(int& server);
    // The local port a socket is bound to, -1 on failure.
    static int GetLocalPort(int fd);

    // Listens on server (backlog 0) and blocks until one client connects. The peer address is the
    // client's IPv4 address in dotted form, or its IPv6 address as text.
    bool OpenServer(int server, int rcvBuf = 0, int sndBuf = 0);
    // Connects to address (IPv4, network order) and port (host order).
    bool OpenClient(int port, unsigned long address, int rcvBuf = 0, int sndBuf = 0);
    bool SetBlocking(bool blocking);

    // One receive: bytes, 0 at end of stream, -1 on error; 0 when closed.
    int Read(void* buffer, unsigned size);
    // One send: bytes sent (possibly fewer), or -1; 0 when size is 0 or closed. No retry.
    int Write(const void* data, unsigned size);
    // One send that never blocks: -1 with errno EAGAIN when the peer cannot take the data now.
    int WriteNonBlocking(const void* data, unsigned size);

    // Waits up to ms for the flags; returns the ready bits, 0 on time-out, -1 on failure.
    int Wait(unsigned long flags, unsigned ms);
    // Wait cut into slices of sliceMs; returns -2 when abort was found set before a slice.
    int SplitWait(unsigned long flags, unsigned totalMs, bool& abort, unsigned sliceMs);
    // Waits without limit for input on any open socket of the array; sockets without input are
    // replaced by null. Returns the wait's result, 0 when it failed.
    static int WaitForData(ZvSocket** sockets, int count);

    bool IsOpen() const { return m_fd.load() != -1; }
    int GetHandle() const { return m_fd.load(); }
    bool IsDataReady() const { return m_dataReady; }
    const ZvAString& GetLastMessage() const { return m_lastMessage; }
    ZvAString GetPeerAddress() const;

private:
    void SetPeerAddress(const char* text);

    std::atomic<int> m_fd;
    ZvAString m_lastMessage;
    ZvAString m_peerAddress;
    std::atomic<bool> m_dataReady;
    mutable std::mutex m_peerLock;
};
