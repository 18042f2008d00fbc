// The daemon's TCP server: while the target port is open it listens on the socket port and serves
// one client at a time. The stream reaches the client through a bounded queue with its own writer
// thread (ZvSendQueue): queueing never waits, so a slow client never holds up the store, and a
// client that falls behind loses whole chunks, journalled once per episode. What the client sends
// goes to the target port.
#pragma once

#include <atomic>
#include <mutex>

#include "zavra_log_zom_journal.h"
#include "zavra_log_zom_port.h"
#include "zv-sema.h"
#include "zv-send-queue.h"
#include "zv-socket.h"
#include "zv-thread.h"

class ZlZomServer {
public:
    // Socket buffer sizes of the listening socket and of each accepted client.
    static const int kSocketRcvBuf = 0x4000;
    static const int kSocketSndBuf = 0x40000;
    // The most a client sends to the target in one piece.
    static const unsigned kClientReadSize = 1024;
    // How long an orderly close lets the client take what is still queued for it.
    static const unsigned kClientFlushMs = 1000;

    // Serves while `portOpen` holds.
    ZlZomServer(ZlZomJournal& journal, ZlZomPort& port, const std::atomic<bool>& portOpen);
    ZlZomServer(const ZlZomServer&) = delete;
    ZlZomServer& operator=(const ZlZomServer&) = delete;

    // The TCP port to serve, -1 for none, and the address to serve it on (empty: every address).
    void SetSocketPort(int port) { m_socketPort = port; }
    void SetSocketHost(const ZvAString& host) { m_socketHost = host; }
    ZvListenAddress GetListenAddress() const { return ZvListenAddress(m_socketHost, m_socketPort); }
    int GetSocketPort() const { return m_socketPort; }
    bool Serves() const { return m_socketPort >= 0; }

    bool Start();
    // The target port is open: listening starts.
    void OpenListeningSocket();
    // The target port closed: the listening socket and the client go at once.
    void CloseSockets();
    // One chunk of the stream for the client; never waits.
    void Send(const unsigned char* data, unsigned size);
    // Stops listening, lets the client take what is queued, and ends the thread (waiting up to
    // `graceMs` more for one still inside a port hook).
    void Shutdown(unsigned graceMs);

    unsigned long long GetDroppedChunks() { return m_clientQueue.DroppedChunks(); }
    unsigned long long GetDroppedBytes() { return m_clientQueue.DroppedBytes(); }

private:
    void Thread();
    void ServeOneClient();
    // Stops the client's writer (letting it send what is queued unless abortive), then closes.
    void CloseClient(bool abortive);
    // Ends a dropping episode with its summary line.
    void NoteDroppingEnded(const char* how);

    ZlZomJournal& m_journal;
    ZlZomPort& m_port;
    const std::atomic<bool>& m_portOpen;
    int m_socketPort = -1;
    ZvAString m_socketHost;
    std::atomic<int> m_serverSocket{-1};
    ZvSocket m_client;
    ZvThread m_thread;
    ZvSema m_sema;
    std::atomic<bool> m_end{false};
    // The queue to the client, started for each client accepted. The lock orders queueing,
    // starting and stopping against closing the client socket.
    std::mutex m_clientLock;
    ZvSendQueue m_clientQueue;
};
