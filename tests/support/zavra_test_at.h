// Either end of an AT dialogue in tests, as raw bytes over a pty or a loopback TCP socket: the
// host's end of the simulated modem's AT port, or the modem's end played against the tool's own
// AT port. Also a loopback port held so that connections to it are refused.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>

#include "zavra_test_net.h"

namespace zavra_test {

class AtEnd {
public:
    AtEnd() = default;
    AtEnd(const AtEnd&) = delete;
    AtEnd& operator=(const AtEnd&) = delete;
    ~AtEnd() { Close(); }

    // A pty by its path, opened raw.
    bool OpenPty(const std::string& path) {
        Adopt(open(path.c_str(), O_RDWR | O_NOCTTY));
        termios tio{};
        if (m_fd >= 0 && tcgetattr(m_fd, &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(m_fd, TCSANOW, &tio);
        }
        return m_fd >= 0;
    }
    // Takes over a descriptor: a pty master or an accepted connection.
    void Adopt(int fd) {
        Close();
        m_fd = fd;
    }
    void Close() {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = -1;
    }
    int Fd() const { return m_fd; }

    // All of `bytes`; a socket whose peer left fails without SIGPIPE.
    bool Send(const std::string& bytes) const { return WriteAll(m_fd, bytes); }
    // Reads until `count` bytes arrived, the other end went away, or nothing came for quietMs.
    std::string Read(size_t count, int quietMs) const {
        return ReadUntilQuiet(m_fd, count, quietMs);
    }
    // The reply to one command: as many bytes as expected, then whatever else arrives before
    // 150 ms of silence (which must be nothing: a reply ends with a silence).
    std::string Ask(const std::string& command, size_t expectedSize) const {
        if (!Send(command))
            return "(write failed)";
        const std::string reply = Read(expectedSize, 5000);
        return reply + Read(SIZE_MAX, 150);
    }
    // The other end closed: a read sees end of file or an error.
    bool HungUp(int timeoutMs) const {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        char byte;
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd pfd{m_fd, POLLIN, 0};
            if (poll(&pfd, 1, 50) > 0 && read(m_fd, &byte, 1) <= 0)
                return true;
        }
        return false;
    }

private:
    int m_fd = -1;
};

// A loopback TCP port (a free one for 0) bound but never listening while the object lives:
// connections to it are refused, and no other program can be handed the number meanwhile.
class HeldPort {
public:
    explicit HeldPort(int port = 0) {
        sockaddr_in address{
            AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            m_port = ntohs(address.sin_port);
    }
    HeldPort(const HeldPort&) = delete;
    HeldPort& operator=(const HeldPort&) = delete;
    ~HeldPort() { close(m_fd); }
    // The port, or -1 when it could not be bound.
    int Port() const { return m_port; }

private:
    int m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int m_port = -1;
};

} // namespace zavra_test
