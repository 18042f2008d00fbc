// In-process harness for the daemon store: a subclass whose port hooks only count, in a scratch
// directory.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "daemon_test_files.h"
#include "zavra_log_zom_daemon.h"

namespace daemon_test {

class CountingDaemon : public ZlZomDaemon {
public:
    ~CountingDaemon() override { Shutdown(); }
    std::atomic<int> segments{0};

protected:
    void ClosePort() override {}
    bool OpenPort() override { return true; }
    void SendPort(unsigned char*, unsigned int) override {}
    bool InitialiseTarget() override { return true; }
    void SocketClientDisconnect() override {}
    void OnNewLogSegment() override { ++segments; }
};

struct Store {
    zavra_test::TempDir scratch;
    std::string dir = scratch.Path();
    CountingDaemon daemon;

    // Initialises the store and waits until its connect thread has opened the pretend port, so
    // that no connect request ends the first log behind the test's back.
    bool Start(unsigned long long total, unsigned long long file);
    std::string File(const std::string& name) const { return dir + "/" + name; }
    // Pushes `stream` through NewLogData in pieces of `chunk` bytes.
    void Feed(const std::string& stream, size_t chunk);
    // The managed files in deletion order, by name.
    std::vector<std::string> Order();
};

} // namespace daemon_test
