// Loopback TCP helpers for tests: a port nobody listens on, and a client connection.
#pragma once

#include <string>

namespace zavra_test {

// A TCP port on 127.0.0.1 that was free a moment ago (bound to port 0 and released; the socket
// never listened, so the port is not left in TIME_WAIT).
int FreeTcpPort();

// Connects to 127.0.0.1:port, retrying until the server listens or the time-out passes.
// Returns the descriptor (blocking) or -1.
int ConnectTcp(int port, int timeoutMs);

// Reads from a descriptor until `count` bytes are held or the time-out passes; returns the bytes.
std::string ReadExactly(int fd, size_t count, int timeoutMs);

// Writes all of `data` (blocking, no SIGPIPE); false on error.
bool WriteAll(int fd, const std::string& data);

} // namespace zavra_test
