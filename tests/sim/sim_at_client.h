// The host's end of the simulated modem's AT port in these tests: the pty opened raw, or a TCP
// connection to the loopback AT port. Commands and replies are plain strings of bytes.
#pragma once

#include "zavra_test_net.h"

#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

struct AtClient {
    int fd = -1;
    bool tcp = false;

    AtClient() = default;
    AtClient(const AtClient&) = delete;
    AtClient& operator=(const AtClient&) = delete;
    ~AtClient() { Close(); }

    bool OpenPty(const std::string& path) {
        Close();
        tcp = false;
        fd = open(path.c_str(), O_RDWR | O_NOCTTY);
        termios tio{};
        if (fd >= 0 && tcgetattr(fd, &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(fd, TCSANOW, &tio);
        }
        return fd >= 0;
    }
    bool OpenTcp(int port, int timeoutMs) {
        Close();
        tcp = true;
        fd = zavra_test::ConnectTcp(port, timeoutMs);
        return fd >= 0;
    }
    void Close() {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

    bool Send(const std::string& command) const {
        ssize_t sent = tcp ? send(fd, command.data(), command.size(), MSG_NOSIGNAL)
                           : write(fd, command.data(), command.size());
        return sent == static_cast<ssize_t>(command.size());
    }
    // Reads until `count` bytes arrived, the other end went away, or nothing came for quietMs.
    std::string Read(size_t count, int quietMs) const {
        std::string out;
        char buffer[65536];
        while (out.size() < count) {
            pollfd pfd{fd, POLLIN, 0};
            if (poll(&pfd, 1, quietMs) <= 0)
                break;
            ssize_t got = read(fd, buffer, std::min(sizeof buffer, count - out.size()));
            if (got <= 0)
                break;
            out.append(buffer, static_cast<size_t>(got));
        }
        return out;
    }
    // The reply to one command: as many bytes as expected, then whatever else arrives before
    // 150 ms of silence (which must be nothing: the host ends a reply by a silence).
    std::string Ask(const std::string& command, size_t expectedSize) const {
        if (!Send(command))
            return "(write failed)";
        std::string reply = Read(expectedSize, 5000);
        return reply + Read(SIZE_MAX, 150);
    }
    // The modem closed its end: a read sees end of file or an error.
    bool HungUp(int timeoutMs) const {
        pollfd pfd{fd, POLLIN, 0};
        char byte;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < deadline) {
            if (poll(&pfd, 1, 50) > 0 && read(fd, &byte, 1) <= 0)
                return true;
        }
        return false;
    }
};
