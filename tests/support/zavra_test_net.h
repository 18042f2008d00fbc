// Loopback TCP helpers for tests: a port nobody listens on, and a client connection.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

namespace zavra_test {

// A TCP port on 127.0.0.1 that was free a moment ago (bound to port 0 and released; the socket
// never listened, so the port is not left in TIME_WAIT).
int FreeTcpPort();

// Connects to 127.0.0.1:port, retrying until the server listens or the time-out passes.
// Returns the descriptor (blocking) or -1.
int ConnectTcp(int port, int timeoutMs);
// The same to another loopback `address` (IPv4), from the loopback address `from` when given.
int ConnectTcp(const std::string& address, int port, int timeoutMs, const std::string& from = "");

// Reads from a descriptor until `count` bytes are held or the time-out passes; returns the bytes.
std::string ReadExactly(int fd, size_t count, int timeoutMs);

// Reads until `count` bytes arrived, the other end went away, or nothing came for `quietMs`.
std::string ReadUntilQuiet(int fd, size_t count, int quietMs);

// Writes all of `data` to a socket (no SIGPIPE) or a pty, blocking; false on error.
bool WriteAll(int fd, const std::string& data);

// A client behind a link that stalls now and then: a thread reads everything from `fd` (with a
// small receive buffer, so that the sender feels each stall), except for `pauseMs` after every
// `everyMs` of reading, until the other end hangs up or Stop.
class PausingReader {
public:
    PausingReader(int fd, unsigned everyMs, unsigned pauseMs);
    ~PausingReader() { Stop(); }
    PausingReader(const PausingReader&) = delete;
    PausingReader& operator=(const PausingReader&) = delete;

    std::string Bytes() const;
    size_t Size() const;
    unsigned Pauses() const { return m_pauses; }
    void Stop();

private:
    void Run(int fd, unsigned everyMs, unsigned pauseMs);

    mutable std::mutex m_lock;
    std::string m_bytes;
    std::atomic<bool> m_stop{false};
    std::atomic<unsigned> m_pauses{0};
    std::thread m_thread;
};

} // namespace zavra_test
