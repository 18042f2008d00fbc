#include "zavra_log_zom_server.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "zv-time.h"

namespace {
const unsigned kEndWaitMs = 200;
const unsigned kAcceptRetryMs = 200;
const unsigned kAcceptRetryStepMs = 20;
} // namespace

ZlZomServer::ZlZomServer(ZlZomJournal& journal, ZlZomPort& port, const std::atomic<bool>& portOpen)
    : m_journal(journal), m_port(port), m_portOpen(portOpen) {
    m_sema.Create(0);
}

bool ZlZomServer::Start() {
    if (m_thread.StartMember<ZlZomServer, &ZlZomServer::Thread>(this))
        return true;
    m_journal.Text("Failed to start socket thread.");
    return false;
}

void ZlZomServer::OpenListeningSocket() {
    int server = -1;
    if (!ZvSocket::OpenSocketServer(GetListenAddress(), server, kSocketRcvBuf, kSocketSndBuf)) {
        const int error = errno;
        ZvSocket::CloseSocketServer(server);
        m_journal.Text("ConnectThread: Server socket not opened %d.", error);
        return;
    }
    m_serverSocket = server;
    m_sema.Post();
}

void ZlZomServer::CloseSockets() {
    int server = m_serverSocket.exchange(-1);
    ZvSocket::CloseSocketServer(server);
    CloseClient(true);
}

void ZlZomServer::Thread() {
    for (;;) {
        if (m_end || !m_sema.Wait() || m_end) {
            m_journal.Text("Socket Read Thread Finished.");
            return;
        }
        while (m_portOpen && !m_end) {
            m_journal.Text("SocketThread: Listening for socket connection.");
            if (m_client.OpenServer(m_serverSocket, kSocketRcvBuf, kSocketSndBuf)) {
                ServeOneClient();
                continue;
            }
            m_journal.Text("Failed to listen for socket connection (%d).", errno);
            // A pause in short steps that an end request cuts short. The semaphore is left
            // alone: a post taken and put back here would make this pause return at once, again
            // and again, for as long as accepting fails.
            for (unsigned slept = 0; slept < kAcceptRetryMs && !m_end; slept += kAcceptRetryStepMs)
                ZvTime::Sleep(kAcceptRetryStepMs);
        }
    }
}

void ZlZomServer::ServeOneClient() {
    const ZvAString peer = m_client.GetPeerAddress();
    m_journal.Text("SocketThread: Connected to %s.", peer.c_str());
    {
        std::lock_guard<std::mutex> lock(m_clientLock);
        if (!m_clientQueue.Start(m_client))
            m_journal.Text("SocketThread: No writer thread for %s, the stream cannot reach it.",
                           peer.c_str());
    }
    unsigned char buffer[kClientReadSize];
    int got;
    int error;
    for (;;) {
        got = m_client.Read(buffer, sizeof(buffer));
        error = errno;
        if (got > 0) {
            m_port.SendPort(buffer, static_cast<unsigned>(got));
            continue;
        }
        if (got < 0 && error == EINTR)
            continue;
        break;
    }
    m_journal.Text("SocketThread: Closing connection to %s (read return %d, %d).", peer.c_str(),
                   got, error);
    CloseClient(false);
    m_port.SocketClientDisconnect();
    m_journal.Text("SocketThread: Disconnected.");
}

void ZlZomServer::Send(const unsigned char* data, unsigned size) {
    // No client lock here: closing a client may wait for its queue to drain, and the port reader
    // must not wait for that. The queue orders its own pushes against its stop.
    switch (m_clientQueue.Push(data, size)) {
    case ZvSendQueue::kDropStarted:
        m_journal.Text("NewLogData. Client not reading, dropping data for the client.");
        break;
    case ZvSendQueue::kResumed:
        NoteDroppingEnded("Client reading again");
        break;
    default:
        break;
    }
}

void ZlZomServer::NoteDroppingEnded(const char* how) {
    m_journal.Text("NewLogData. %s, %llu chunks (%llu bytes) were dropped for it.", how,
                   static_cast<unsigned long long>(m_clientQueue.EpisodeChunks()),
                   static_cast<unsigned long long>(m_clientQueue.EpisodeBytes()));
}

void ZlZomServer::CloseClient(bool abortive) {
    std::lock_guard<std::mutex> lock(m_clientLock);
    // The writer stops first: it must not send on a descriptor that is closed and then reused.
    // An orderly close lets the client take what is queued; an abortive one resets it anyway.
    if (m_clientQueue.Stop(abortive ? 0 : kClientFlushMs))
        NoteDroppingEnded("Client left");
    const int fd = m_client.GetHandle();
    if (!abortive || fd < 0) {
        m_client.Close();
        return;
    }
    // A reset and no FIN: closing with a FIN would leave the connection in TIME_WAIT on the
    // served port, and the listening socket, which does not ask for address reuse, could not be
    // bound again when the target comes back. Shutting down the receive side sends nothing and
    // wakes the socket thread's read.
    linger reset = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    shutdown(fd, SHUT_RD);
    m_client.Clear();
    close(fd);
}

void ZlZomServer::Shutdown(unsigned graceMs) {
    int server = m_serverSocket.exchange(-1);
    ZvSocket::CloseSocketServer(server);
    // The socket thread may be reading from a client: closing it ends that read.
    CloseClient(false);
    m_end = true;
    m_sema.Post();
    if (!m_thread.WaitForThreadFinish(kEndWaitMs))
        m_thread.WaitForThreadFinish(graceMs);
}
