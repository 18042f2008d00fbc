#include "zv-socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

void SetBufferSizes(int fd, int rcvBuf, int sndBuf) {
    if (rcvBuf != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvBuf, sizeof(rcvBuf));
    if (sndBuf != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndBuf, sizeof(sndBuf));
}

// A connect interrupted by a signal goes on in the background; starting it again may report it
// as already in progress or already connected. Wait for it to end and take its outcome.
int FinishInterruptedConnect(int fd) {
    pollfd writable = {fd, POLLOUT, 0};
    int ready;
    do {
        ready = poll(&writable, 1, -1);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0)
        return -1;
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        return -1;
    errno = error;
    return error == 0 ? 0 : -1;
}

// The dotted form of an IPv4 peer, byte by byte in network order; an IPv6 peer as text, or in the
// dotted form when it is an IPv4 client of a dual-stack server.
ZvAString PeerText(const sockaddr_storage& peer) {
    const unsigned char* bytes = nullptr;
    if (peer.ss_family == AF_INET) {
        bytes = reinterpret_cast<const unsigned char*>(
            &reinterpret_cast<const sockaddr_in&>(peer).sin_addr.s_addr);
    } else if (peer.ss_family == AF_INET6) {
        const in6_addr& v6 = reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr;
        if (!IN6_IS_ADDR_V4MAPPED(&v6)) {
            char text[INET6_ADDRSTRLEN] = "";
            inet_ntop(AF_INET6, &v6, text, sizeof(text));
            return text;
        }
        bytes = v6.s6_addr + 12;
    } else {
        return ZvAString();
    }
    ZvAString text;
    text.Printf("%lu.%lu.%lu.%lu", static_cast<unsigned long>(bytes[0]),
                static_cast<unsigned long>(bytes[1]), static_cast<unsigned long>(bytes[2]),
                static_cast<unsigned long>(bytes[3]));
    return text;
}

} // namespace

ZvSocket::ZvSocket() : m_fd(-1), m_dataReady(false) {}

ZvSocket::~ZvSocket() {
    Close();
}

void ZvSocket::Clear() {
    m_fd = -1;
    m_dataReady = false;
    SetPeerAddress("");
}

void ZvSocket::Close() {
    // Swapped out first, so a writer on another thread sees -1 rather than a reused number.
    const int fd = m_fd.exchange(-1);
    if (fd >= 0) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
    }
    Clear();
}

ZvAString ZvSocket::GetPeerAddress() const {
    std::lock_guard<std::mutex> lock(m_peerLock);
    return m_peerAddress;
}

void ZvSocket::SetPeerAddress(const char* text) {
    std::lock_guard<std::mutex> lock(m_peerLock);
    m_peerAddress = text;
}

bool ZvSocket::OpenSocketServer(int port, int& server, int rcvBuf, int sndBuf) {
    return OpenSocketServer(ZvListenAddress(port), server, rcvBuf, sndBuf);
}

bool ZvSocket::OpenSocketServer(const ZvListenAddress& where, int& server, int rcvBuf, int sndBuf) {
    sockaddr_storage address;
    const socklen_t length = where.ToSockaddr(address);
    if (length == 0) {
        server = -1;
        errno = EINVAL;
        return false;
    }
    server = socket(address.ss_family, SOCK_STREAM, 0);
    if (server < 0)
        return false;
    SetBufferSizes(server, rcvBuf, sndBuf);
    return bind(server, reinterpret_cast<sockaddr*>(&address), length) == 0;
}

void ZvSocket::CloseSocketServer(int& server) {
    if (server < 0)
        return;
    const int fd = server;
    server = -1;
    shutdown(fd, SHUT_RDWR);
    close(fd);
}

int ZvSocket::GetLocalPort(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return -1;
    // The port sits at the same place in both families' addresses.
    return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

bool ZvSocket::OpenServer(int server, int rcvBuf, int sndBuf) {
    Close();
    m_lastMessage.clear();
    if (server < 0 || listen(server, 0) != 0)
        return false;
    sockaddr_storage peer{};
    socklen_t length = sizeof(peer);
    int fd;
    do {
        fd = accept(server, reinterpret_cast<sockaddr*>(&peer), &length);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return false;
    SetBufferSizes(fd, rcvBuf, sndBuf);
    SetPeerAddress(PeerText(peer).c_str());
    m_fd = fd;
    return true;
}

bool ZvSocket::OpenClient(int port, unsigned long address, int rcvBuf, int sndBuf) {
    Close();
    m_lastMessage.clear();
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        m_lastMessage.Printf("Failed to create socket (%d).", errno);
        return false;
    }
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_addr.s_addr = static_cast<in_addr_t>(address);
    server.sin_port = htons(static_cast<uint16_t>(port));
    int result = connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof(server));
    if (result != 0 && errno == EINTR)
        result = FinishInterruptedConnect(fd);
    if (result != 0) {
        m_lastMessage.Printf("Failed to connect to socket (%d).", errno);
        close(fd);
        return false;
    }
    SetBufferSizes(fd, rcvBuf, sndBuf);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &server.sin_addr, text, sizeof(text));
    SetPeerAddress(text);
    m_fd = fd;
    return true;
}

bool ZvSocket::SetBlocking(bool blocking) {
    const int fd = m_fd.load();
    if (fd < 0)
        return false;
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0)
        return false;
    const int wanted = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    return fcntl(fd, F_SETFL, wanted) == 0;
}

int ZvSocket::Read(void* buffer, unsigned size) {
    const int fd = m_fd.load();
    if (fd < 0)
        return 0;
    return static_cast<int>(recv(fd, buffer, size, 0));
}

int ZvSocket::Write(const void* data, unsigned size) {
    const int fd = m_fd.load();
    if (size == 0 || fd < 0)
        return 0;
    return static_cast<int>(send(fd, data, size, MSG_NOSIGNAL));
}

int ZvSocket::WriteNonBlocking(const void* data, unsigned size) {
    const int fd = m_fd.load();
    if (size == 0 || fd < 0)
        return 0;
    return static_cast<int>(send(fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL));
}

int ZvSocket::Wait(unsigned long flags, unsigned ms) {
    const int fd = m_fd.load();
    if (fd < 0) {
        m_lastMessage = "Wait failed as socket not open.";
        return -1;
    }
    if (fd >= FD_SETSIZE) {
        m_lastMessage.Printf("Wait on socket failed (%d, %d).", -1, EBADF);
        return -1;
    }
    timeval timeout;
    timeout.tv_sec = ms / 1000;
    timeout.tv_usec = (ms % 1000) * 1000;
    fd_set readSet, writeSet, exceptSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    if (flags & kWaitRead)
        FD_SET(fd, &readSet);
    if (flags & kWaitWrite)
        FD_SET(fd, &writeSet);
    FD_SET(fd, &exceptSet);

    const int result = select(fd + 1, &readSet, &writeSet, &exceptSet, &timeout);
    if (result == 0) {
        m_lastMessage.Printf("Wait on socket timed out (%ums).", ms);
        return 0;
    }
    if (result < 0 || FD_ISSET(fd, &exceptSet)) {
        m_lastMessage.Printf("Wait on socket failed (%d, %d).", result, errno);
        return -1;
    }
    m_lastMessage.clear();
    int ready = 0;
    if ((flags & kWaitRead) && FD_ISSET(fd, &readSet))
        ready |= kWaitRead;
    if ((flags & kWaitWrite) && FD_ISSET(fd, &writeSet))
        ready |= kWaitWrite;
    return ready;
}

int ZvSocket::SplitWait(unsigned long flags, unsigned totalMs, bool& abort, unsigned sliceMs) {
    unsigned slice = sliceMs < totalMs ? sliceMs : totalMs;
    unsigned remaining = totalMs;
    const volatile bool& aborted = abort; // set by another thread
    for (;;) {
        if (aborted)
            return -2;
        const int result = Wait(flags, slice);
        if (result != 0)
            return result;
        remaining -= slice;
        if (remaining == 0) {
            m_lastMessage.Printf("Wait on socket timed out (%ums).", totalMs);
            return 0;
        }
        if (remaining < slice)
            slice = remaining;
    }
}

int ZvSocket::WaitForData(ZvSocket** sockets, int count) {
    fd_set readSet;
    FD_ZERO(&readSet);
    int highest = -1;
    for (int i = 0; i < count; ++i) {
        if (sockets[i] == nullptr)
            continue;
        sockets[i]->m_dataReady = false;
        const int fd = sockets[i]->m_fd.load();
        if (fd >= 0 && fd < FD_SETSIZE) {
            FD_SET(fd, &readSet);
            if (fd > highest)
                highest = fd;
        }
    }
    const int result = select(highest + 1, &readSet, nullptr, nullptr, nullptr);
    if (result < 0)
        return 0;
    for (int i = 0; i < count; ++i) {
        if (sockets[i] == nullptr)
            continue;
        const int fd = sockets[i]->m_fd.load();
        if (fd < 0 || fd >= FD_SETSIZE)
            continue;
        if (FD_ISSET(fd, &readSet))
            sockets[i]->m_dataReady = true;
        else
            sockets[i] = nullptr;
    }
    return result;
}
