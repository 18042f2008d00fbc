#include "zavra_test_net.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

namespace zavra_test {

namespace {
sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}
} // namespace

int FreeTcpPort() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    close(fd);
    return port;
}

int ConnectTcp(int port, int timeoutMs) {
    return ConnectTcp("127.0.0.1", port, timeoutMs);
}

int ConnectTcp(const std::string& address, int port, int timeoutMs, const std::string& from) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    sockaddr_in server = Loopback(port), source = Loopback(0);
    if (inet_pton(AF_INET, address.c_str(), &server.sin_addr) != 1 ||
        (!from.empty() && inet_pton(AF_INET, from.c_str(), &source.sin_addr) != 1))
        return -1;
    for (;;) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return -1;
        if ((from.empty() || bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof source) == 0) &&
            connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0)
            return fd;
        close(fd);
        if (std::chrono::steady_clock::now() >= deadline)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::string ReadExactly(int fd, size_t count, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string data;
    char buffer[65536];
    while (data.size() < count) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        pollfd p{fd, POLLIN, 0};
        int ready = left > 0 ? poll(&p, 1, static_cast<int>(left)) : 0;
        if (ready < 0 && errno == EINTR)
            continue;
        ssize_t got =
            ready > 0 ? read(fd, buffer, std::min(sizeof buffer, count - data.size())) : 0;
        if (got <= 0)
            break;
        data.append(buffer, static_cast<size_t>(got));
    }
    return data;
}

std::string ReadUntilQuiet(int fd, size_t count, int quietMs) {
    std::string out;
    char buffer[65536];
    while (out.size() < count) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, quietMs) <= 0)
            break;
        const ssize_t got = read(fd, buffer, std::min(sizeof buffer, count - out.size()));
        if (got <= 0)
            break;
        out.append(buffer, static_cast<size_t>(got));
    }
    return out;
}

bool WriteAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t sent = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == ENOTSOCK)
            sent = write(fd, data.data() + done, data.size() - done);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        done += static_cast<size_t>(sent);
    }
    return true;
}

PausingReader::PausingReader(int fd, unsigned everyMs, unsigned pauseMs) {
    int small = 65536;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    m_thread = std::thread(&PausingReader::Run, this, fd, everyMs, pauseMs);
}

void PausingReader::Run(int fd, unsigned everyMs, unsigned pauseMs) {
    using Clock = std::chrono::steady_clock;
    auto nextPause = Clock::now() + std::chrono::milliseconds(everyMs);
    char buffer[16384];
    while (!m_stop) {
        if (Clock::now() >= nextPause) {
            std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
            ++m_pauses;
            nextPause = Clock::now() + std::chrono::milliseconds(everyMs);
        }
        pollfd p{fd, POLLIN, 0};
        const int ready = poll(&p, 1, 50);
        if (ready < 0 && errno != EINTR)
            break;
        if (ready <= 0)
            continue;
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0)
            break;
        std::lock_guard<std::mutex> lock(m_lock);
        m_bytes.append(buffer, static_cast<size_t>(got));
    }
}

std::string PausingReader::Bytes() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_bytes;
}

size_t PausingReader::Size() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_bytes.size();
}

void PausingReader::Stop() {
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

} // namespace zavra_test
