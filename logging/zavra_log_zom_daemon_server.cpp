// The live side of ZlZomDaemon: the connect thread that keeps the target port open, the socket
// thread that serves one TCP client, the client send path and the orderly shut-down.
#include "zavra_log_zom_daemon.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "zv-time.h"

namespace {
// How long Shutdown waits, beyond the 200 ms of the End calls, for a thread still inside a port
// hook before it frees what the thread uses.
const unsigned kShutdownGraceMs = 2000;
const unsigned kEndWaitMs = 200;
const unsigned kOpenRetryMs = 1000;
const unsigned kAcceptRetryMs = 200;
const unsigned kAcceptRetryStepMs = 20;
} // namespace

void ZlZomDaemon::ConnectThreadFunc(ZvThread*, void* daemon) {
    static_cast<ZlZomDaemon*>(daemon)->ConnectThread();
}

void ZlZomDaemon::SocketThreadFunc(ZvThread*, void* daemon) {
    static_cast<ZlZomDaemon*>(daemon)->SocketThread();
}

void ZlZomDaemon::PortFailureDetected() {
    LogFault("Port Failure Detected.");
    m_connectSema.Post();
}

bool ZlZomDaemon::WaitConnectRequest(unsigned ms) {
    return m_connectSema.Wait(ms);
}

void ZlZomDaemon::ConnectThread() {
    for (;;) {
        // The end flag is looked at before waiting too: the retry pause below may have taken the
        // post that came with it.
        if (m_connectThreadEnd || !m_connectSema.Wait() || m_connectThreadEnd) {
            LogText("ConnectThread: Finished.");
            return;
        }
        LogText("ConnectThread: Connect request.");
        m_portOpen = false;
        if (m_socketPort >= 0) {
            LogText("ConnectThread: Closing sockets as target port closed.");
            CloseSockets();
        }
        ClosePort();
        {
            std::lock_guard<std::mutex> lock(m_storeLock);
            CloseCurrentFileLocked(m_bytesOnDiskInCurrentFile);
        }

        unsigned failures = 0;
        ZvAString reported;
        while (!m_portOpen && !m_connectThreadEnd) {
            bool ok = OpenPort();
            if (ok)
                ok = InitialiseTarget();
            m_portOpen = ok;
            if (!ok) {
                NotePortOpenFailure(failures, reported);
                // A pause that an end request (or another connect request) cuts short; the
                // request is this very retry, so taking its post loses nothing.
                WaitConnectRequest(kOpenRetryMs);
            }
        }
        if (!m_portOpen)
            continue;
        LogText("ConnectThread: Port opened.");
        if (failures != 0)
            NotePortOpenedAfterFailures(failures);
        if (m_socketPort >= 0)
            OpenListeningSocket();
    }
}

void ZlZomDaemon::NotePortOpenFailure(unsigned& failures, ZvAString& reported) {
    ++failures;
    // Retried every second, for days if need be: the reason is told once, and again only when it
    // changes (the modem appeared, but another program holds its port).
    ZvAString reason = PortOpenFailure();
    if (reason.empty())
        reason = "The port could not be opened.";
    if (failures != 1 && reason == reported)
        return;
    reported = reason;
    LogFault("ConnectThread: %s Retrying every second.", reason.c_str());
    ZvLog::Warning("%s Retrying every second.", reason.c_str());
}

void ZlZomDaemon::NotePortOpenedAfterFailures(unsigned failures) {
    const ZvAString port = PortName();
    LogText("ConnectThread: Port '%s' opened after %u failed attempts.", port.c_str(), failures);
    ZvLog::Warning("The port '%s' opened after %u failed attempts.", port.c_str(), failures);
}

void ZlZomDaemon::OpenListeningSocket() {
    int server = -1;
    if (!ZvSocket::OpenSocketServer(m_socketPort, server, kSocketRcvBuf, kSocketSndBuf)) {
        const int error = errno;
        ZvSocket::CloseSocketServer(server);
        LogText("ConnectThread: Server socket not opened %d.", error);
        return;
    }
    m_serverSocket = server;
    m_socketSema.Post();
}

void ZlZomDaemon::CloseSockets() {
    int server = m_serverSocket.exchange(-1);
    ZvSocket::CloseSocketServer(server);
    CloseClient(true);
}

void ZlZomDaemon::SocketThread() {
    for (;;) {
        if (m_socketThreadEnd || !m_socketSema.Wait() || m_socketThreadEnd) {
            LogText("Socket Read Thread Finished.");
            return;
        }
        while (m_portOpen && !m_socketThreadEnd) {
            LogText("SocketThread: Listening for socket connection.");
            if (m_client.OpenServer(m_serverSocket, kSocketRcvBuf, kSocketSndBuf)) {
                ServeOneClient();
                continue;
            }
            LogText("Failed to listen for socket connection (%d).", errno);
            // A pause in short steps that an end request cuts short. The semaphore is left
            // alone: a post taken and put back here would make this pause return at once, again
            // and again, for as long as accepting fails.
            for (unsigned slept = 0; slept < kAcceptRetryMs && !m_socketThreadEnd;
                 slept += kAcceptRetryStepMs)
                ZvTime::Sleep(kAcceptRetryStepMs);
        }
    }
}

void ZlZomDaemon::ServeOneClient() {
    const ZvAString peer = m_client.GetPeerAddress();
    LogText("SocketThread: Connected to %s.", peer.c_str());
    {
        std::lock_guard<std::mutex> lock(m_clientLock);
        if (!m_clientQueue.Start(m_client))
            LogText("SocketThread: No writer thread for %s, the stream cannot reach it.",
                    peer.c_str());
    }
    unsigned char buffer[kClientReadSize];
    int got;
    int error;
    for (;;) {
        got = m_client.Read(buffer, sizeof(buffer));
        error = errno;
        if (got > 0) {
            SendPort(buffer, static_cast<unsigned>(got));
            continue;
        }
        if (got < 0 && error == EINTR)
            continue;
        break;
    }
    LogText("SocketThread: Closing connection to %s (read return %d, %d).", peer.c_str(), got,
            error);
    CloseClient(false);
    SocketClientDisconnect();
    LogText("SocketThread: Disconnected.");
}

void ZlZomDaemon::SendToClient(const unsigned char* data, unsigned size) {
    // No client lock here: closing a client may wait for its queue to drain, and the port reader
    // must not wait for that. The queue orders its own pushes against its stop.
    switch (m_clientQueue.Push(data, size)) {
    case ZvSendQueue::kDropStarted:
        LogText("NewLogData. Client not reading, dropping data for the client.");
        break;
    case ZvSendQueue::kResumed:
        NoteDroppingEnded("Client reading again");
        break;
    default:
        break;
    }
}

void ZlZomDaemon::NoteDroppingEnded(const char* how) {
    LogText("NewLogData. %s, %llu chunks (%llu bytes) were dropped for it.", how,
            static_cast<unsigned long long>(m_clientQueue.EpisodeChunks()),
            static_cast<unsigned long long>(m_clientQueue.EpisodeBytes()));
}

void ZlZomDaemon::CloseClient(bool abortive) {
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

unsigned long long ZlZomDaemon::GetClientDroppedChunks() {
    return m_clientQueue.DroppedChunks();
}

unsigned long long ZlZomDaemon::GetClientDroppedBytes() {
    return m_clientQueue.DroppedBytes();
}

bool ZlZomDaemon::EndConnectThread() {
    m_connectThreadEnd = true;
    m_connectSema.Post();
    return m_connectThread.WaitForThreadFinish(kEndWaitMs);
}

bool ZlZomDaemon::EndSocketThread() {
    m_socketThreadEnd = true;
    m_socketSema.Post();
    return m_socketThread.WaitForThreadFinish(kEndWaitMs);
}

void ZlZomDaemon::ShutdownStore(bool closePort) {
    if (m_shutDown.exchange(true))
        return;
    m_portOpen = false;
    if (!EndConnectThread())
        m_connectThread.WaitForThreadFinish(kShutdownGraceMs);
    if (m_socketPort >= 0) {
        int server = m_serverSocket.exchange(-1);
        ZvSocket::CloseSocketServer(server);
        // The socket thread may be reading from a client: closing it ends that read.
        CloseClient(false);
        if (!EndSocketThread())
            m_socketThread.WaitForThreadFinish(kShutdownGraceMs);
    }
    // The connect thread may have opened the port again just before it ended.
    if (closePort)
        ClosePort();
    {
        std::lock_guard<std::mutex> lock(m_storeLock);
        NoteLossAtShutdown();
        CloseCurrentFileLocked(m_bytesOnDiskInCurrentFile);
        m_storeClosed = true;
        m_firstSegmentEntry = nullptr;
        m_files.clear();
    }
    // The last segment, and the directory, reach the disk before the process ends.
    EndSyncThread();
    LogText("Shut down");
    {
        std::lock_guard<std::mutex> lock(m_journalLock);
        if (m_journalFd >= 0) {
            fdatasync(m_journalFd);
            close(m_journalFd);
            m_journalFd = -1;
        }
    }
    if (m_dirFd >= 0) {
        close(m_dirFd);
        m_dirFd = -1;
    }
    if (m_lockFd >= 0) {
        close(m_lockFd);
        m_lockFd = -1;
    }
}
