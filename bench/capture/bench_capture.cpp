// bench_capture [MiB per run] [rounds]
//
// Floods a pseudo-terminal with a fixed pseudo-random stream and lets either `cat` (stdin on the
// pty slave in raw mode, stdout to a file) or zavra_log_serial (-d on the slave) copy it to a file,
// alternately, several rounds. For each reader: wall time until the file holds every byte,
// throughput, CPU seconds and peak RSS of the reader process (wait4), and a byte-for-byte compare
// of the file with the stream. The tool runs twice per round: alone, and serving a TCP client that
// connects and never reads (whose queue fills and then drops), to show that a stuck client costs
// the capture nothing. Then the latency of a byte from the pty to the tool's TCP client, and a
// client behind a link that stalls 500 ms every 2 s while the pty carries 2 MB/s, whose copy of
// the stream must be byte-exact.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench_pattern.h"

extern char** environ;

namespace {

using namespace bench;

// The same pattern checked byte by byte against reads of any size.
struct PatternCheck {
    Pattern pattern;
    std::vector<unsigned char> block = std::vector<unsigned char>(kBlock);
    size_t at = kBlock;
    bool Matches(const unsigned char* data, size_t size) {
        bool same = true;
        for (size_t i = 0; i < size; ++i) {
            if (at == kBlock) {
                pattern.Fill(block.data(), kBlock);
                at = 0;
            }
            same = same && block[at++] == data[i];
        }
        return same;
    }
};

struct RunResult {
    double seconds = 0;
    double cpu = 0;
    long maxRssKiB = 0;
    bool identical = false;
    uint64_t bytes = 0;
};

// The peak resident set of a running process (VmHWM), in KiB; 0 when unknown.
long PeakRssKiB(pid_t pid) {
    FILE* f = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    long kib = 0;
    char line[256];
    while (f != nullptr && fgets(line, sizeof line, f) != nullptr)
        if (strncmp(line, "VmHWM:", 6) == 0)
            kib = atol(line + 6);
    if (f != nullptr)
        fclose(f);
    return kib;
}

long long FileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

bool Compare(const std::string& path, uint64_t total) {
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    Pattern pattern;
    std::vector<unsigned char> want(kBlock), got(kBlock);
    uint64_t done = 0;
    bool same = true;
    while (done < total && same) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(kBlock, total - done));
        pattern.Fill(want.data(), n);
        same = fread(got.data(), 1, n, f) == n && memcmp(want.data(), got.data(), n) == 0;
        done += n;
    }
    same = same && fgetc(f) == EOF;
    fclose(f);
    return same;
}

pid_t Spawn(const std::vector<std::string>& args, int stdinFd, int stdoutFd) {
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdinFd >= 0)
        posix_spawn_file_actions_adddup2(&actions, stdinFd, 0);
    if (stdoutFd >= 0)
        posix_spawn_file_actions_adddup2(&actions, stdoutFd, 1);
    // The readers' own messages would mix with the figures.
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// A raw pty; the caller owns both descriptors (slave -1 when not wanted open).
bool OpenRawPty(int& master, int& slave, std::string& slaveName) {
    char name[256];
    if (openpty(&master, &slave, name, nullptr, nullptr) != 0)
        return false;
    termios t;
    tcgetattr(slave, &t);
    cfmakeraw(&t);
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    tcsetattr(slave, TCSANOW, &t);
    slaveName = name;
    return true;
}

// Reads and discards what the reader sends up the pty (the tool's control messages) until
// `stop`, and returns once `want` bytes were seen.
void DrainMaster(int master, std::atomic<bool>& stop, std::atomic<uint64_t>& seen) {
    unsigned char buffer[4096];
    while (!stop) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(master, &set);
        timeval tv{0, 20000};
        if (select(master + 1, &set, nullptr, nullptr, &tv) > 0) {
            ssize_t n = read(master, buffer, sizeof buffer);
            if (n > 0)
                seen += static_cast<uint64_t>(n);
        }
    }
}

int FreePort();
int ConnectLoopback(int port);

// `idleClient`: the tool serves a TCP client that never reads.
RunResult RunOne(bool tool, bool idleClient, uint64_t total, const std::string& dir, int round) {
    RunResult result;
    result.bytes = total;
    int master = -1, slave = -1;
    std::string slaveName;
    if (!OpenRawPty(master, slave, slaveName)) {
        perror("openpty");
        exit(1);
    }
    std::string out = dir + "/" + (tool ? "tool" : "cat") + std::to_string(round) +
                      (idleClient ? "c" : "") + ".bin";
    unlink(out.c_str());

    std::atomic<bool> stopDrain{false};
    std::atomic<uint64_t> upBytes{0};
    pid_t pid;
    int port = -1, client = -1;
    if (tool) {
        // The tool opens the slave itself; it must be the only opener.
        close(slave);
        slave = -1;
        std::vector<std::string> args = {ZAVRA_LOG_SERIAL_PATH, "-d" + slaveName, "-t", "-v1"};
        if (idleClient) {
            port = FreePort();
            args.push_back("-p" + std::to_string(port));
        }
        args.push_back(out);
        pid = Spawn(args, -1, -1);
    } else {
        int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid = Spawn({"cat"}, slave, fd);
        close(fd);
    }
    if (pid < 0) {
        fprintf(stderr, "cannot start the reader\n");
        exit(1);
    }
    if (idleClient)
        client = ConnectLoopback(port); // the tool waits for it before it opens the port
    std::thread drain(DrainMaster, master, std::ref(stopDrain), std::ref(upBytes));
    if (tool) {
        // Start the flood once the tool has opened the channel (its 124 start-up bytes).
        auto deadline = Clock::now() + std::chrono::seconds(20);
        while (upBytes < 124 && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    Pattern pattern;
    std::vector<unsigned char> block(kBlock);
    std::atomic<bool> writing{true};
    auto start = Clock::now();
    std::thread writer([&] {
        uint64_t done = 0;
        while (done < total) {
            size_t n = static_cast<size_t>(std::min<uint64_t>(kBlock, total - done));
            pattern.Fill(block.data(), n);
            if (!WriteAll(master, block.data(), n))
                break;
            done += n;
        }
        writing = false;
    });
    auto deadline = Clock::now() + std::chrono::seconds(600);
    while (FileSize(out) < static_cast<long long>(total) && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    writer.join();
    // Taken from the live process: the exit path's own allocations are not part of the capture.
    result.maxRssKiB = PeakRssKiB(pid);

    if (tool) {
        kill(pid, SIGINT);
    } else {
        kill(pid, SIGTERM);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    stopDrain = true;
    drain.join();
    if (slave >= 0)
        close(slave);
    if (client >= 0)
        close(client);
    close(master);
    result.cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                 static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    result.identical = Compare(out, total);
    unlink(out.c_str());
    return result;
}

int FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

// A blocking connection to the tool's port, retried until it listens; -1 after 5 s.
int ConnectLoopback(int port) {
    for (int i = 0; i < 500; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0)
            return fd;
        close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

// Latency from a write on the pty to the bytes reaching the tool's TCP client: `samples` markers
// of 64 bytes, each carrying its send time, written 2 ms apart.
void MeasureLatency(const std::string& dir, int samples) {
    int master = -1, slave = -1;
    std::string slaveName;
    OpenRawPty(master, slave, slaveName);
    close(slave);
    int port = FreePort();
    std::string out = dir + "/latency.bin";
    pid_t pid = Spawn(
        {ZAVRA_LOG_SERIAL_PATH, "-d" + slaveName, "-t", "-v1", "-p" + std::to_string(port), out},
        -1, -1);
    int client = ConnectLoopback(port);
    std::atomic<bool> stopDrain{false};
    std::atomic<uint64_t> upBytes{0};
    std::thread drain(DrainMaster, master, std::ref(stopDrain), std::ref(upBytes));
    while (upBytes < 124)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    std::vector<double> latencies;
    std::thread reader([&] {
        unsigned char marker[64];
        size_t have = 0;
        while (static_cast<int>(latencies.size()) < samples) {
            ssize_t n = read(client, marker + have, sizeof marker - have);
            if (n <= 0)
                break;
            have += static_cast<size_t>(n);
            if (have == sizeof marker) {
                int64_t sentNs;
                memcpy(&sentNs, marker, sizeof sentNs);
                int64_t nowNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                    Clock::now().time_since_epoch())
                                    .count();
                latencies.push_back(static_cast<double>(nowNs - sentNs) / 1000.0);
                have = 0;
            }
        }
    });
    for (int i = 0; i < samples; ++i) {
        unsigned char marker[64] = {};
        int64_t nowNs =
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
                .count();
        memcpy(marker, &nowNs, sizeof nowNs);
        WriteAll(master, marker, sizeof marker);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    reader.join();
    kill(pid, SIGINT);
    int status = 0;
    waitpid(pid, &status, 0);
    stopDrain = true;
    drain.join();
    close(client);
    close(master);
    unlink(out.c_str());
    std::sort(latencies.begin(), latencies.end());
    if (latencies.empty()) {
        printf("latency: no samples\n");
        return;
    }
    printf("latency pty -> TCP client: %zu samples, median %.0f us, p99 %.0f us, max %.0f us\n",
           latencies.size(), latencies[latencies.size() / 2],
           latencies[std::min(latencies.size() - 1, latencies.size() * 99 / 100)],
           latencies.back());
}

// A client whose link stalls 500 ms every 2 s while the pty carries 2 MB/s for `seconds`: the
// tool must hold each stall's backlog and hand the client the whole stream, byte for byte.
bool MeasurePausedClient(const std::string& dir, int seconds) {
    int master = -1, slave = -1;
    std::string slaveName;
    OpenRawPty(master, slave, slaveName);
    close(slave);
    const int port = FreePort();
    const std::string out = dir + "/paused.bin";
    pid_t pid = Spawn(
        {ZAVRA_LOG_SERIAL_PATH, "-d" + slaveName, "-t", "-v1", "-p" + std::to_string(port), out},
        -1, -1);
    int client = ConnectLoopback(port);
    int small = 65536; // a modest window, so that each stall reaches back to the tool
    setsockopt(client, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    std::atomic<bool> stopDrain{false};
    std::atomic<uint64_t> upBytes{0};
    std::thread drain(DrainMaster, master, std::ref(stopDrain), std::ref(upBytes));
    while (upBytes < 124)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    const uint64_t rate = 2000000, total = rate * static_cast<uint64_t>(seconds);
    std::atomic<uint64_t> received{0};
    std::atomic<bool> same{true};
    int pauses = 0;
    std::thread reader([&] {
        PatternCheck want;
        unsigned char buffer[kBlock];
        auto nextPause = Clock::now() + std::chrono::seconds(2);
        while (received < total) {
            if (Clock::now() >= nextPause) {
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
                ++pauses;
                nextPause = Clock::now() + std::chrono::seconds(2);
            }
            pollfd p{client, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0)
                continue;
            ssize_t n = read(client, buffer, sizeof buffer);
            if (n <= 0)
                break;
            same = want.Matches(buffer, static_cast<size_t>(n)) && same;
            received += static_cast<uint64_t>(n);
        }
    });
    // The pattern is consumed 8 bytes at a time: keep every write a multiple of 8.
    Pattern pattern;
    std::vector<unsigned char> block(kBlock);
    const size_t step = 20000; // 10 ms of stream
    const auto start = Clock::now();
    for (uint64_t done = 0; done < total; done += step) {
        std::this_thread::sleep_until(start + std::chrono::microseconds(done * 1000000 / rate));
        pattern.Fill(block.data(), step);
        WriteAll(master, block.data(), step);
    }
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (received < total && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    kill(pid, SIGINT);
    int status = 0;
    waitpid(pid, &status, 0);
    shutdown(client, SHUT_RDWR);
    reader.join();
    stopDrain = true;
    drain.join();
    close(client);
    close(master);
    unlink(out.c_str());
    const bool exact = same && received == total;
    printf("paused client (500 ms every 2 s, 2 MB/s, %d stalls): %llu of %llu bytes, %s\n", pauses,
           static_cast<unsigned long long>(received.load()), static_cast<unsigned long long>(total),
           exact ? "byte-exact" : "NOT EXACT");
    return exact;
}

} // namespace

int main(int argc, char** argv) {
    uint64_t mib = argc > 1 ? strtoull(argv[1], nullptr, 0) : 256;
    int rounds = argc > 2 ? atoi(argv[2]) : 2;
    uint64_t total = mib << 20;
    char dirTemplate[] = "/tmp/bench_capture_XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr)
        return 1;
    std::string dir = dirTemplate;
    signal(SIGPIPE, SIG_IGN);

    // Three readers per round, in turn: cat, the tool alone, the tool with a client that never
    // reads.
    const char* const names[] = {"cat", "tool", "tool+stuck client"};
    RunResult sums[3];
    std::vector<double> rates[3];
    long rss[3] = {0, 0, 0};
    bool allSame = true;
    for (int round = 0; round < rounds; ++round) {
        for (int which = 0; which < 3; ++which) {
            RunResult r = RunOne(which != 0, which == 2, total, dir, round);
            const double rate = static_cast<double>(total) / (1 << 20) / r.seconds;
            printf("round %d %-17s %6.1f MiB/s  cpu %5.2f s  rss %5ld KiB  %s\n", round,
                   names[which], rate, r.cpu, r.maxRssKiB, r.identical ? "identical" : "DIFFERENT");
            fflush(stdout);
            rates[which].push_back(rate);
            sums[which].seconds += r.seconds;
            sums[which].cpu += r.cpu;
            rss[which] = std::max(rss[which], r.maxRssKiB);
            allSame = allSame && r.identical;
        }
    }
    double total3[3], median[3];
    for (int which = 0; which < 3; ++which) {
        total3[which] = static_cast<double>(total) * rounds / sums[which].seconds / (1 << 20);
        // The machine may be shared: the medians of the single runs are steadier than the totals.
        std::sort(rates[which].begin(), rates[which].end());
        median[which] = rates[which][rates[which].size() / 2];
    }
    printf("\n%llu MiB x %d rounds each\n", static_cast<unsigned long long>(mib), rounds);
    printf("throughput: tool %.1f MiB/s, cat %.1f MiB/s, ratio %.3f (aim >= 0.95)\n", total3[1],
           total3[0], total3[1] / total3[0]);
    printf("median run: tool %.1f MiB/s, cat %.1f MiB/s, ratio %.3f\n", median[1], median[0],
           median[1] / median[0]);
    printf("stuck client: median %.1f MiB/s against %.1f MiB/s alone, ratio %.3f (aim >= 0.95); "
           "totals ratio %.3f\n",
           median[2], median[1], median[2] / median[1], total3[2] / total3[1]);
    printf("cpu: tool %.2f s, cat %.2f s, ratio %.3f (aim <= 1.5); with the stuck client %.2f s, "
           "ratio %.3f to the tool alone\n",
           sums[1].cpu, sums[0].cpu, sums[1].cpu / sums[0].cpu, sums[2].cpu,
           sums[2].cpu / sums[1].cpu);
    printf("peak rss: tool %ld KiB, cat %ld KiB (aim < 4096 KiB); with the stuck client %ld KiB "
           "(its queue holds up to 4096 KiB)\n",
           rss[1], rss[0], rss[2]);
    printf("bytes compared: %llu per run, %s\n", static_cast<unsigned long long>(total),
           allSame ? "all identical" : "MISMATCH");
    const bool pausedSame = MeasurePausedClient(dir, 12);
    allSame = allSame && pausedSame;
    MeasureLatency(dir, 500);
    rmdir(dir.c_str());
    return allSame ? 0 : 1;
}
