// A compressed run of weeks: the daemon beside a modem that floods it through a small budget of
// 1 MiB segments while a TCP client connects and leaves all along, sampled from /proc; then a
// restart on the same directory with a smaller budget, then hang-ups of the port. The soak test
// runs it for a gigabyte, bench/soak for as long as it is told.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "daemon_run.h"

namespace daemon_test {

struct SoakSample {
    double seconds = 0;
    long rssKiB = 0;
    int threads = 0;
    int fds = 0;
};

struct SoakFigures {
    std::vector<SoakSample> samples; // of the first run, every 200 ms
    uint64_t delivered = 0;          // bytes the first run read
    int segmentsOpened = 0;          // by the first run (rotations + 1)
    long long largestStore = 0;      // the most .zom bytes seen in the directory at once
    long long journalBytes = 0;      // the first run's journal (daemon.log)
    long long journalBytesPerSegment = 0;
    int clientSessions = 0; // client connections that got data
};

inline SoakSample SampleProcess(pid_t pid, double seconds) {
    SoakSample sample;
    sample.seconds = seconds;
    std::istringstream status(zavra_test::ReadFile("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            sample.rssKiB = std::stol(line.substr(6));
        if (line.rfind("Threads:", 0) == 0)
            sample.threads = std::stoi(line.substr(8));
    }
    if (DIR* fds = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        while (readdir(fds) != nullptr)
            ++sample.fds;
        sample.fds -= 2; // "." and ".."
        closedir(fds);
    }
    return sample;
}

// An endless stream whose every byte follows from its offset alone, so that a gigabyte is checked
// without a copy: the modem plays it from a FIFO that a thread keeps full.
inline uint8_t PatternByte(uint64_t offset) {
    uint64_t z = (offset >> 3) + 0x9E3779B97F4A7C15ull; // splitmix64 of the word's index
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return static_cast<uint8_t>((z ^ (z >> 31)) >> ((offset & 7) * 8));
}
inline std::string Pattern(uint64_t offset, size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(PatternByte(offset + i));
    return bytes;
}

class PatternFeeder {
public:
    // Makes the FIFO at `path`; the thread writes once the modem opens it for reading.
    explicit PatternFeeder(const std::string& path) : m_path(path) {
        mkfifo(path.c_str(), 0600);
        m_thread = std::thread([this] { Run(); });
    }
    ~PatternFeeder() {
        m_stop = true;
        m_thread.join();
    }

private:
    void Run() {
        int fd = -1;
        while (!m_stop && (fd = open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::string block;
        size_t at = 0;
        for (uint64_t offset = 0; !m_stop;) {
            if (at == block.size()) {
                block = Pattern(offset, 1 << 16);
                at = 0;
            }
            pollfd wait = {fd, POLLOUT, 0};
            if (poll(&wait, 1, 50) != 1)
                continue;
            const ssize_t written = write(fd, block.data() + at, block.size() - at);
            if (written <= 0)
                break; // the modem has gone
            at += static_cast<size_t>(written);
            offset += static_cast<uint64_t>(written);
        }
        if (fd >= 0)
            close(fd);
    }
    std::string m_path;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// A client that connects, reads for 20 to 80 ms and leaves, again and again.
class ComingAndGoingClient {
public:
    explicit ComingAndGoingClient(int port) : m_thread([this, port] { Run(port); }) {}
    ~ComingAndGoingClient() { Stop(); }
    int Stop() {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
        return m_sessions;
    }

private:
    void Run(int port) {
        char buffer[65536];
        for (unsigned round = 0; !m_stop; ++round) {
            const int fd = zavra_test::ConnectTcp(port, 1000);
            if (fd < 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                continue;
            }
            const auto end =
                std::chrono::steady_clock::now() + std::chrono::milliseconds(20 + 20 * (round % 4));
            bool got = false;
            while (std::chrono::steady_clock::now() < end) {
                pollfd wait = {fd, POLLIN, 0};
                if (poll(&wait, 1, 10) == 1 && read(fd, buffer, sizeof buffer) > 0)
                    got = true;
            }
            m_sessions += got;
            close(fd);
        }
    }
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_sessions{0};
    std::thread m_thread;
};

// The segment number of a segment's name ("daemon_<time>_<number>.zom").
inline long SegmentNumber(const std::string& name) {
    return std::stol(name.substr(25, name.size() - 29));
}

// Stops the stream and waits until the host has read all of it. The modem takes the stop from
// its worker a moment later and finishes the piece it was sending: drained once is not enough.
inline void StopStream(DaemonRun& run) {
    run.modem.Apply(zsim::Control::StreamOn(false));
    for (uint64_t sent = ~0ull; sent != run.modem.Counters().sent;) {
        sent = run.modem.Counters().sent;
        EXPECT_TRUE(run.modem.WaitUntil(zsim::Drained(), 10000));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// The first run: the daemon with `budget` (e.g. "16,1") floods until it has read `bytes` or
// `seconds` have passed (whichever is set), then the stream stops, the daemon reads the rest
// and is ended with SIGTERM.
inline SoakFigures SoakFirstRun(DaemonRun& run, const std::string& budget, uint64_t bytes,
                                double seconds) {
    SoakFigures figures;
    run.StartTool(budget, {run.Serve()});
    const auto start = std::chrono::steady_clock::now();
    auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    ComingAndGoingClient client(run.port);
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        figures.samples.push_back(SampleProcess(run.tool.Pid(), elapsed()));
        figures.largestStore = std::max(figures.largestStore, ZomBytes(run.store));
        figures.delivered = run.modem.Counters().delivered;
        if ((bytes != 0 && figures.delivered >= bytes) || (seconds != 0 && elapsed() >= seconds))
            break;
    }
    StopStream(run);
    figures.clientSessions = client.Stop();
    figures.samples.push_back(SampleProcess(run.tool.Pid(), elapsed()));
    run.Terminate();
    figures.delivered = run.modem.Counters().delivered;
    // One log: its last segment's number tells how many it had (the journal may have rotated).
    const std::vector<std::string> kept = ZomFiles(run.store);
    figures.segmentsOpened = kept.empty() ? 0 : static_cast<int>(SegmentNumber(kept.back()) + 1);
    figures.journalBytes = zavra_test::FileSize(run.StoreFile("daemon.log"));
    figures.journalBytesPerSegment =
        figures.journalBytes /
        std::max(1, JournalCount(run.store, "NewLogData. Log file opened '"));
    return figures;
}

} // namespace daemon_test
