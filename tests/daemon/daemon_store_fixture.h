// In-process harness for the daemon store: a subclass whose port hooks record their calls, a
// scratch directory, and helpers to read back what the store left on disk.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "zavra_log_zom_daemon.h"

namespace daemon_test {

class RecordingDaemon : public ZlZomDaemon {
public:
    ~RecordingDaemon() override { Shutdown(); }

    std::atomic<int> opens{0};
    std::atomic<int> closes{0};
    std::atomic<int> initialises{0};
    std::atomic<int> disconnects{0};
    std::atomic<int> segments{0};
    // OpenPort fails this many times before it succeeds.
    std::atomic<int> failingOpens{0};

    std::string SentToPort();
    size_t LargestPieceToPort();

protected:
    void ClosePort() override { ++closes; }
    bool OpenPort() override;
    void SendPort(unsigned char* data, unsigned int size) override;
    bool InitialiseTarget() override {
        ++initialises;
        return true;
    }
    void SocketClientDisconnect() override { ++disconnects; }
    void OnNewLogSegment() override { ++segments; }

private:
    std::mutex m_lock;
    std::string m_sent;
    size_t m_largestPiece = 0;
};

// A fresh scratch directory per test, removed afterwards.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// A deterministic, non-repeating byte stream.
std::string MakeStream(size_t size, unsigned seed = 1);
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& data);
// The ".zom" file names of a directory, sorted.
std::vector<std::string> ZomFiles(const std::string& dir);
// The sum of their sizes, and their contents concatenated in name order.
long long ZomBytes(const std::string& dir);
std::string ZomConcat(const std::string& dir);
std::vector<std::string> JournalLines(const std::string& dir);
// How many journal lines contain `text`.
int CountLines(const std::vector<std::string>& lines, const std::string& text);
// Pushes `stream` through NewLogData in pieces of `chunk` bytes.
void Feed(ZlZomDaemon& daemon, const std::string& stream, size_t chunk);
// Initialises and waits until the connect thread has opened the (pretend) port, so that no
// connect request closes the first log behind the test's back.
bool Start(RecordingDaemon& daemon, const std::string& dir, unsigned long long total,
           unsigned long long file);
// Polls `condition` every 10 ms until it holds or `ms` pass.
template <class Condition>
bool WaitUntil(Condition condition, int ms);
int FreeTcpPort();
int ConnectTcp(int port, int timeoutMs);

template <class Condition>
bool WaitUntil(Condition condition, int ms) {
    for (int waited = 0; waited <= ms; waited += 10) {
        if (condition())
            return true;
        struct timespec pause = {0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return condition();
}

} // namespace daemon_test
