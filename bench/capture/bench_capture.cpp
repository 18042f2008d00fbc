// bench_capture [MiB per run] [rounds]
// (ZAVRA_BENCH_TOOL=<path> measures another build of the tool, for a before-and-after;
// ZAVRA_BENCH_PIN=1 runs the reader on CPU 1 and the benchmark itself on CPU 0.)
//
// Floods a pseudo-terminal with a fixed pseudo-random stream and lets either `cat` (stdin on the
// pty slave in raw mode, stdout to a file) or zavra_log_serial (-d on the slave) copy it to a file,
// alternately, several rounds. For each reader: wall time until the file holds every byte,
// throughput, CPU seconds and peak RSS of the reader process (wait4), and a byte-for-byte compare
// of the file with the stream. The tool fsyncs its file at the end; cat's copy is synced after
// it with sync(1), whose CPU counts as cat's, so that both do the same job. The tool runs three
// times per round: alone; serving a TCP client that reads everything (whose copy is checked
// too); and serving one that connects and never reads (whose queue fills and then drops), to show
// that a stuck client costs the capture nothing. The figures are medians of the runs, and ratios
// to cat are taken round by round, so that a machine whose load changes weighs on both sides
// alike. Then the CPU that each reader spends only to start and exit, which weighs more on a
// short flood than on a long one; one more run of each reader with its system calls counted
// (perf's counters, or strace); the latency of a byte from the pty to the tool's TCP client; and
// a client behind a link that stalls 500 ms every 2 s while the pty carries 2 MB/s, whose copy of
// the stream must be byte-exact.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
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
#include "bench_spawn.h"
#include "bench_syscalls.h"

namespace {

using namespace bench;

// The same pattern checked against reads of any size.
struct PatternCheck {
    Pattern pattern;
    std::vector<unsigned char> block = std::vector<unsigned char>(kBlock);
    size_t at = kBlock;
    bool Matches(const unsigned char* data, size_t size) {
        bool same = true;
        while (size > 0) {
            if (at == kBlock) {
                pattern.Fill(block.data(), kBlock);
                at = 0;
            }
            const size_t n = std::min(size, kBlock - at);
            same = same && memcmp(block.data() + at, data, n) == 0;
            at += n;
            data += n;
            size -= n;
        }
        return same;
    }
};

// The tool under test: the one built beside this benchmark, unless ZAVRA_BENCH_TOOL names another.
const char* ToolPath() {
    const char* other = getenv("ZAVRA_BENCH_TOOL");
    return other != nullptr && *other != '\0' ? other : ZAVRA_LOG_SERIAL_PATH;
}

enum Reader { kCat, kTool, kToolClient, kToolStuckClient, kReaders };
const char* const kReaderNames[kReaders] = {"cat", "tool", "tool+client", "tool+stuck client"};

struct RunResult {
    double seconds = 0;
    double cpu = 0; // cat's includes the sync(1) of its file, the tool's its own fsync
    double syncCpu = 0;
    long maxRssKiB = 0;
    bool identical = false;
    // The client that reads everything: what it got, and whether that was the whole stream.
    uint64_t clientBytes = 0;
    bool clientExact = false;
    bench::SyscallCounts syscalls;
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

// Reads the tool's TCP stream until `total` bytes or the end, checking it against the pattern.
void ReadClient(int client, uint64_t total, std::atomic<uint64_t>& received,
                std::atomic<bool>& same) {
    PatternCheck want;
    std::vector<unsigned char> buffer(kBlock);
    while (received < total) {
        const ssize_t n = read(client, buffer.data(), buffer.size());
        if (n <= 0)
            break;
        same = want.Matches(buffer.data(), static_cast<size_t>(n)) && same;
        received += static_cast<uint64_t>(n);
    }
}

// With ZAVRA_BENCH_PIN set, the reader runs on CPU 1 and everything of the benchmark on CPU 0.
bool Pinning() {
    static const bool pin = getenv("ZAVRA_BENCH_PIN") != nullptr;
    return pin;
}

void PinTo(int cpu) {
    if (!Pinning())
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof set, &set);
}

// CPU seconds of `sync <path>`, which fsyncs the file.
double SyncFileCpu(const std::string& path) {
    return WaitForCpuSeconds(Spawn({"sync", path}));
}

// One reader copies a flood of `total` bytes; with `countSyscalls` its system calls are counted
// from the start of the flood to its end.
RunResult RunOne(Reader reader, uint64_t total, const std::string& dir, const std::string& tag,
                 bool countSyscalls) {
    RunResult result;
    int master = -1, slave = -1;
    std::string slaveName;
    if (!OpenRawPty(master, slave, slaveName)) {
        perror("openpty");
        exit(1);
    }
    const std::string out = dir + "/" + std::to_string(reader) + "-" + tag + ".bin";
    unlink(out.c_str());

    std::atomic<bool> stopDrain{false};
    std::atomic<uint64_t> upBytes{0};
    const bool withClient = reader == kToolClient || reader == kToolStuckClient;
    pid_t pid;
    int port = -1, client = -1;
    PinTo(1); // a spawned reader inherits this thread's CPUs
    if (reader != kCat) {
        // The tool opens the slave itself; it must be the only opener.
        close(slave);
        slave = -1;
        std::vector<std::string> args = {ToolPath(), "-d" + slaveName, "-t", "-v1"};
        if (withClient) {
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
    PinTo(0);
    if (pid < 0) {
        fprintf(stderr, "cannot start the reader\n");
        exit(1);
    }
    if (withClient)
        client = ConnectLoopback(port); // the tool waits for it before it opens the port
    std::atomic<uint64_t> clientBytes{0};
    std::atomic<bool> clientSame{true};
    std::thread clientReader;
    if (reader == kToolClient)
        clientReader =
            std::thread(ReadClient, client, total, std::ref(clientBytes), std::ref(clientSame));
    std::thread drain(DrainMaster, master, std::ref(stopDrain), std::ref(upBytes));
    if (reader != kCat) {
        // Start the flood once the tool has opened the channel (its 124 start-up bytes).
        auto deadline = Clock::now() + std::chrono::seconds(20);
        while (upBytes < 124 && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    bench::SyscallCounter counter;
    if (countSyscalls && !counter.Attach(pid, out + ".syscalls"))
        fprintf(stderr, "cannot count system calls\n");

    Pattern pattern;
    std::vector<unsigned char> block(kBlock);
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
    });
    auto deadline = Clock::now() + std::chrono::seconds(600);
    while (FileSize(out) < static_cast<long long>(total) && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    auto end = Clock::now();
    // A client that fell too far behind has lost whole chunks and never gets `total` bytes: it
    // is done once nothing has come for a second.
    uint64_t clientBefore = clientBytes;
    for (auto quiet = Clock::now(); reader == kToolClient && clientBytes < total &&
                                    Clock::now() - quiet < std::chrono::seconds(1);) {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        if (clientBytes != clientBefore) {
            clientBefore = clientBytes;
            quiet = end = Clock::now();
        }
    }
    result.seconds = std::chrono::duration<double>(end - start).count();
    writer.join();
    if (countSyscalls)
        result.syscalls = counter.Detach();
    // Taken from the live process: the exit path's own allocations are not part of the capture.
    result.maxRssKiB = PeakRssKiB(pid);

    kill(pid, reader != kCat ? SIGINT : SIGTERM);
    result.cpu = WaitForCpuSeconds(pid);
    stopDrain = true;
    drain.join();
    if (client >= 0)
        shutdown(client, SHUT_RDWR); // a client reader that fell short ends here
    if (clientReader.joinable())
        clientReader.join();
    if (slave >= 0)
        close(slave);
    if (client >= 0)
        close(client);
    close(master);
    if (reader == kCat) {
        // The tool fsyncs its file when it closes it, so that the capture is on the disk when
        // it ends; cat leaves its copy in the page cache. The same job for cat is cat, then
        // sync(1) on the file, whose writeback CPU would otherwise fall to nobody here (the
        // file is deleted before the kernel writes it back).
        result.syncCpu = SyncFileCpu(out);
        result.cpu += result.syncCpu;
    }
    result.identical = Compare(out, total);
    result.clientBytes = clientBytes;
    result.clientExact = clientSame && clientBytes == total;
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
    pid_t pid = Spawn({ToolPath(), "-d" + slaveName, "-t", "-v1", "-p" + std::to_string(port), out},
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
    pid_t pid = Spawn({ToolPath(), "-d" + slaveName, "-t", "-v1", "-p" + std::to_string(port), out},
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

std::string LoadAverage() {
    char text[64] = "";
    FILE* f = fopen("/proc/loadavg", "r");
    if (f != nullptr && fgets(text, sizeof text, f) != nullptr) {
        // The 1, 5 and 15 minute averages.
        char* cut = text;
        for (int fields = 0; *cut != '\0' && fields < 3; ++cut)
            fields += *cut == ' ';
        *(cut > text ? cut - 1 : cut) = '\0';
    }
    if (f != nullptr)
        fclose(f);
    return text;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0 : n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// CPU milliseconds of one program that starts, does nothing and exits: the part of a reader's
// cost that a longer flood would spread thinner. cat copies an empty input; the tool, with -o,
// parses its options (which runs device detection), opens the pty, configures it and closes it.
double StartUpCpuMs(Reader reader) {
    int master = -1, slave = -1;
    std::string slaveName;
    if (!OpenRawPty(master, slave, slaveName))
        return 0;
    close(slave); // the tool must be the only opener
    const int empty = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t pid = reader == kCat ? Spawn({"cat"}, empty)
                                     : Spawn({ToolPath(), "-o", "-t", "-d" + slaveName}, empty);
    const double seconds = WaitForCpuSeconds(pid);
    close(empty);
    close(master);
    return 1000.0 * seconds;
}

void PrintSyscalls(const char* name, const bench::SyscallCounts& c, double mib) {
    if (!c.counted) {
        printf("  %-18s not counted\n", name);
        return;
    }
    printf("  %-18s %7.0f   (read %.0f, write %.0f, poll %.0f, futex %.0f, send %.0f)\n", name,
           c.total / mib, c.read / mib, c.write / mib, c.poll / mib, c.futex / mib, c.send / mib);
}

} // namespace

int main(int argc, char** argv) {
    uint64_t mib = argc > 1 ? strtoull(argv[1], nullptr, 0) : 256;
    int rounds = argc > 2 ? atoi(argv[2]) : 3;
    uint64_t total = mib << 20;
    char dirTemplate[] = "/tmp/bench_capture_XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr)
        return 1;
    std::string dir = dirTemplate;
    signal(SIGPIPE, SIG_IGN);
    const std::string loadBefore = LoadAverage();

    std::vector<double> rate[kReaders], cpu[kReaders];
    std::vector<double> rateToCat[kReaders], cpuToCat[kReaders], rateToTool[kReaders],
        cpuToTool[kReaders];
    std::vector<double> catSyncCpu, toolCpuToBareCat;
    long rss[kReaders] = {};
    bool allSame = true;
    bool clientExact = true;
    for (int round = 0; round < rounds; ++round) {
        RunResult r[kReaders];
        for (int which = 0; which < kReaders; ++which) {
            r[which] = RunOne(static_cast<Reader>(which), total, dir, std::to_string(round), false);
            rate[which].push_back(static_cast<double>(total) / (1 << 20) / r[which].seconds);
            cpu[which].push_back(r[which].cpu);
            rss[which] = std::max(rss[which], r[which].maxRssKiB);
            allSame = allSame && r[which].identical;
            printf("round %d %-17s %6.1f MiB/s  cpu %5.2f s  rss %5ld KiB  %s", round,
                   kReaderNames[which], rate[which].back(), r[which].cpu, r[which].maxRssKiB,
                   r[which].identical ? "identical" : "DIFFERENT");
            if (which == kCat)
                printf(", sync(1) %.2f s of its cpu", r[which].syncCpu);
            if (which == kToolClient) {
                clientExact = clientExact && r[which].clientExact;
                if (r[which].clientExact)
                    printf(", client: all in order");
                else
                    printf(", client: %.1f%% (chunks dropped for it)",
                           100.0 * static_cast<double>(r[which].clientBytes) / total);
            }
            printf("\n");
            fflush(stdout);
        }
        for (int which = 0; which < kReaders; ++which) {
            rateToCat[which].push_back(rate[which].back() / rate[kCat].back());
            cpuToCat[which].push_back(cpu[which].back() / cpu[kCat].back());
            rateToTool[which].push_back(rate[which].back() / rate[kTool].back());
            cpuToTool[which].push_back(cpu[which].back() / cpu[kTool].back());
        }
        catSyncCpu.push_back(r[kCat].syncCpu);
        toolCpuToBareCat.push_back(r[kTool].cpu / (r[kCat].cpu - r[kCat].syncCpu));
    }
    const std::string loadAfter = LoadAverage();

    printf("\n%llu MiB per run, %d alternating rounds; load average %s before, %s after "
           "(2 cores)\n",
           static_cast<unsigned long long>(mib), rounds, loadBefore.c_str(), loadAfter.c_str());
    printf("  %-18s %8s %8s %10s\n", "median of runs", "MiB/s", "cpu s", "peak rss");
    for (int which = 0; which < kReaders; ++which)
        printf("  %-18s %8.1f %8.3f %6ld KiB\n", kReaderNames[which], Median(rate[which]),
               Median(cpu[which]), rss[which]);
    printf("tool / cat (median of the per-round ratios): throughput %.3f (aim >= 0.98), cpu %.3f "
           "(aim <= 1.05); peak rss %ld KiB against %ld KiB (aim <= 2765 KiB)\n",
           Median(rateToCat[kTool]), Median(cpuToCat[kTool]), rss[kTool], rss[kCat]);
    printf("  cat's cpu includes sync(1) of its file (median %.3f s), as the tool's includes its "
           "fsync; against cat alone the tool's cpu is %.3f\n",
           Median(catSyncCpu), Median(toolCpuToBareCat));
    printf("tool+client / cat: throughput %.3f, cpu %.3f; %s\n", Median(rateToCat[kToolClient]),
           Median(cpuToCat[kToolClient]),
           clientExact ? "its client got every byte in order"
                       : "its client fell behind and lost chunks in some runs");
    printf("tool+stuck client / tool: throughput %.3f (aim >= 0.95), cpu %.3f; peak rss %ld KiB "
           "(its queue holds up to 4096 KiB)\n",
           Median(rateToTool[kToolStuckClient]), Median(cpuToTool[kToolStuckClient]),
           rss[kToolStuckClient]);
    printf("bytes compared: %llu per run, %s\n", static_cast<unsigned long long>(total),
           allSame ? "all identical" : "MISMATCH");
    std::vector<double> startUp[2];
    for (int i = 0; i < 9; ++i)
        for (Reader which : {kCat, kTool})
            startUp[which == kTool].push_back(StartUpCpuMs(which));
    printf("start-up and exit alone (CPU, median of 9): cat %.1f ms, tool %.1f ms (-o: options, "
           "device detection, port opened and closed), %.1f%% of the tool's CPU on this flood\n",
           Median(startUp[0]), Median(startUp[1]), Median(startUp[1]) / 10 / Median(cpu[kTool]));

    // Counting slows a reader a little (strace a lot): one separate run each, not timed.
    const std::string counter = bench::SyscallCounter::Available();
    if (counter.empty()) {
        printf("system calls: not counted (neither perf nor strace can attach here)\n");
    } else {
        const uint64_t countMiB = std::min<uint64_t>(mib, 64);
        printf("system calls per MiB (%s, one run of %llu MiB each):\n", counter.c_str(),
               static_cast<unsigned long long>(countMiB));
        for (Reader which : {kCat, kTool, kToolClient, kToolStuckClient}) {
            RunResult r = RunOne(which, countMiB << 20, dir, "count", true);
            allSame = allSame && r.identical;
            PrintSyscalls(kReaderNames[which], r.syscalls, static_cast<double>(countMiB));
        }
    }
    fflush(stdout);
    const bool pausedSame = MeasurePausedClient(dir, 12);
    allSame = allSame && pausedSame;
    MeasureLatency(dir, 500);
    rmdir(dir.c_str());
    return allSame ? 0 : 1;
}
