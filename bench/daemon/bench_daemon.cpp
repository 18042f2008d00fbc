// bench_daemon [MiB per run] [rounds]
//
// Floods a pseudo-terminal with a reproducible stream and lets zavra_log_serial capture it, in
// turns: plain capture to one file (the baseline); daemon capture (-a with 1 MiB segments and no
// total limit, so that every byte stays to be checked), which syncs the segment being written
// once a second and every closed segment and the directory; and daemon capture within a 16 MiB
// budget, which also deletes a segment for each new one. For each run: the time until the output
// holds every byte, the throughput, the tool's CPU time and peak resident set, the time the tool
// takes to end once told (its last syncs), and a byte for byte check of the output (the stream's
// tail for the budgeted run). Prints the daemon/plain ratios of the median throughputs, and of
// the median times until every byte is on disk (the tool's end included), against the 0.95
// target.
#include <dirent.h>
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/resource.h>
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

#include "bench_spawn.h"

namespace {

using Clock = std::chrono::steady_clock;
const size_t kBlock = 64 * 1024;
const long long kSegment = 1 << 20;
const long long kBudgetMiB = 16;
const double kTargetRatio = 0.95;

enum Kind { kPlain, kDaemon, kBudget, kKinds };
const char* const kKindNames[kKinds] = {"plain", "daemon", "budget"};

struct Stream {
    uint64_t state = 0x2545F4914F6CDD1Dull;
    void Fill(unsigned char* out, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            if (i % 8 == 0) {
                state ^= state << 13;
                state ^= state >> 7;
                state ^= state << 17;
            }
            out[i] = static_cast<unsigned char>(state >> (8 * (i % 8)));
        }
    }
};

struct Result {
    double seconds = 0;
    double exitSeconds = 0;
    double cpuSeconds = 0;
    long peakRssKiB = 0;
    bool identical = false;
    bool segmentsExact = true;
};

std::vector<std::string> Outputs(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* handle = opendir(dir.c_str())) {
        while (dirent* entry = readdir(handle)) {
            std::string name = entry->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".zom") == 0)
                names.push_back(dir + "/" + name);
        }
        closedir(handle);
    }
    std::sort(names.begin(), names.end());
    return names;
}

long long TotalSize(const std::vector<std::string>& files) {
    long long total = 0;
    struct stat info;
    for (const std::string& file : files)
        if (stat(file.c_str(), &info) == 0)
            total += info.st_size;
    return total;
}

// Compares the files, concatenated, with the stream; notes segments that are not 1 MiB.
// `skip` bytes of the stream come first and are not in the files (deleted for the budget).
bool SameAsStream(const std::vector<std::string>& files, long long size, bool segments,
                  bool& segmentsExact, long long skip = 0) {
    Stream expected;
    std::vector<unsigned char> want(kBlock), got(kBlock);
    // The stream is made in 8-byte steps, so a skip in whole blocks keeps it aligned.
    for (long long skipped = 0; skipped < skip; skipped += kBlock)
        expected.Fill(want.data(), kBlock);
    long long compared = 0;
    for (size_t i = 0; i < files.size(); ++i) {
        FILE* file = fopen(files[i].c_str(), "rb");
        if (file == nullptr)
            return false;
        long long inFile = 0;
        size_t n;
        while ((n = fread(got.data(), 1, kBlock, file)) > 0) {
            expected.Fill(want.data(), n);
            if (memcmp(want.data(), got.data(), n) != 0) {
                fclose(file);
                return false;
            }
            inFile += static_cast<long long>(n);
        }
        fclose(file);
        compared += inFile;
        if (segments && i + 1 < files.size() && inFile != kSegment)
            segmentsExact = false;
    }
    return compared == size - skip;
}

long PeakRssKiB(pid_t pid) {
    FILE* status = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    long kib = 0;
    char line[256];
    while (status != nullptr && fgets(line, sizeof(line), status) != nullptr)
        if (strncmp(line, "VmHWM:", 6) == 0)
            kib = atol(line + 6);
    if (status != nullptr)
        fclose(status);
    return kib;
}

// Reads what the tool sends down (its start-up messages, a host time per segment) so that the
// pty never fills in that direction; `seen` counts the bytes.
void DrainMaster(int master, std::atomic<bool>& stop, std::atomic<long long>& seen) {
    unsigned char buffer[4096];
    while (!stop) {
        struct timeval wait = {0, 20000};
        fd_set set;
        FD_ZERO(&set);
        FD_SET(master, &set);
        if (select(master + 1, &set, nullptr, nullptr, &wait) > 0) {
            ssize_t n = read(master, buffer, sizeof(buffer));
            if (n > 0)
                seen += n;
        }
    }
}

// The end of the name of the segment that ends the stream: one segment per MiB, from 000.
std::string LastSegmentSuffix(long long size) {
    char suffix[32];
    snprintf(suffix, sizeof(suffix), "_%03lld.zom", size / kSegment - 1);
    return suffix;
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

Result RunOnce(Kind kind, long long size, const std::string& work) {
    const bool daemon = kind != kPlain;
    Result result;
    int master = -1, slave = -1;
    char slaveName[128];
    if (openpty(&master, &slave, slaveName, nullptr, nullptr) != 0) {
        perror("openpty");
        exit(1);
    }
    termios raw;
    tcgetattr(slave, &raw);
    cfmakeraw(&raw);
    tcsetattr(slave, TCSANOW, &raw);

    const std::string out = work + "/" + kKindNames[kind];
    system(("rm -rf '" + out + "' && mkdir -p '" + out + "'").c_str());
    std::vector<std::string> args = {ZAVRA_LOG_SERIAL_PATH, std::string("-d") + slaveName, "-t",
                                     "-v1"};
    if (kind == kDaemon)
        args.push_back("-a" + out + ",0,1");
    else if (kind == kBudget)
        args.push_back("-a" + out + "," + std::to_string(kBudgetMiB) + ",1");
    else
        args.push_back(out + "/capture.zom");

    std::atomic<bool> stop{false};
    std::atomic<long long> seen{0};
    std::thread drain(DrainMaster, master, std::ref(stop), std::ref(seen));
    pid_t pid = bench::Spawn(args);
    if (pid < 0) {
        perror("posix_spawn");
        exit(1);
    }
    // The tool is ready once its start-up messages have arrived and gone quiet.
    long long last = -1;
    for (int i = 0; i < 500 && (seen == 0 || seen != last); ++i) {
        last = seen;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }

    Stream stream;
    std::vector<unsigned char> block(kBlock);
    const auto start = Clock::now();
    for (long long sent = 0; sent < size;) {
        size_t n = static_cast<size_t>(std::min<long long>(kBlock, size - sent));
        stream.Fill(block.data(), n);
        for (size_t done = 0; done < n;) {
            ssize_t w = write(master, block.data() + done, n - done);
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0) {
                perror("write");
                exit(1);
            }
            done += static_cast<size_t>(w);
        }
        sent += static_cast<long long>(n);
    }
    // A daemon run is complete once the segment that ends the stream is full. Its directory is
    // listed only when the newest segment seen is full, about once a MiB: listing it as often as
    // the single file of the plain run is looked at would take CPU from the tool being measured.
    std::string newest;
    const std::string lastSuffix = LastSegmentSuffix(size);
    auto complete = [&] {
        if (kind == kPlain)
            return TotalSize({out + "/capture.zom"}) >= size;
        if (newest.empty() || TotalSize({newest}) >= kSegment) {
            std::vector<std::string> files = Outputs(out);
            newest = files.empty() ? "" : files.back();
        }
        return EndsWith(newest, lastSuffix) && TotalSize({newest}) >= kSegment;
    };
    while (!complete() && Clock::now() - start < std::chrono::seconds(120))
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();

    // The live process's own high-water mark: wait4's figure would include the parent's resident
    // set, which a spawned child inherits as its starting maximum.
    result.peakRssKiB = PeakRssKiB(pid);
    const auto told = Clock::now();
    kill(pid, SIGTERM);
    result.cpuSeconds = bench::WaitForCpuSeconds(pid);
    result.exitSeconds = std::chrono::duration<double>(Clock::now() - told).count();
    stop = true;
    drain.join();
    close(master);
    close(slave);
    const std::vector<std::string> files = Outputs(out);
    result.identical = SameAsStream(files, size, daemon, result.segmentsExact,
                                    kind == kBudget ? size - TotalSize(files) : 0);
    system(("rm -rf '" + out + "'").c_str());
    return result;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

} // namespace

int main(int argc, char** argv) {
    const long long mib = argc > 1 ? atoll(argv[1]) : 128;
    const int rounds = argc > 2 ? atoi(argv[2]) : 3;
    const long long size = mib << 20;
    if (mib <= kBudgetMiB) {
        fprintf(stderr, "the flood must be larger than the %lld MiB budget\n", kBudgetMiB);
        return 1;
    }
    char work[] = "/tmp/bench_daemon_XXXXXX";
    if (mkdtemp(work) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    printf("pty flood of %lld MiB, %d rounds: plain capture, daemon (1 MiB segments, synced), "
           "daemon within %lld MiB, in turns\n",
           mib, rounds, kBudgetMiB);
    std::vector<double> seconds[kKinds], cpu[kKinds], exits[kKinds], durable[kKinds];
    long rss[kKinds] = {0, 0, 0};
    bool allIdentical = true, allExact = true;
    for (int round = 0; round < rounds; ++round) {
        for (int turn = 0; turn < kKinds; ++turn) {
            // Rotate which goes first, so none always runs on a warmer machine.
            const Kind kind = static_cast<Kind>((turn + round) % kKinds);
            Result r = RunOnce(kind, size, work);
            printf("round %d %-7s %7.3f s %8.1f MB/s  cpu %.3f s  peak RSS %5ld KiB  exit %.3f s  "
                   "%s%s\n",
                   round + 1, kKindNames[kind], r.seconds, size / r.seconds / 1e6, r.cpuSeconds,
                   r.peakRssKiB, r.exitSeconds, r.identical ? "every byte" : "BYTES DIFFER",
                   kind != kPlain
                       ? (r.segmentsExact ? ", segments of exactly 1 MiB" : ", SEGMENT SIZES")
                       : "");
            allIdentical = allIdentical && r.identical;
            allExact = allExact && r.segmentsExact;
            seconds[kind].push_back(r.seconds);
            cpu[kind].push_back(r.cpuSeconds);
            exits[kind].push_back(r.exitSeconds);
            durable[kind].push_back(r.seconds + r.exitSeconds);
            rss[kind] = std::max(rss[kind], r.peakRssKiB);
        }
    }
    rmdir(work);
    // Medians: the machine is shared, and single runs swing widely.
    const double plain = Median(seconds[kPlain]);
    for (Kind kind : {kDaemon, kBudget}) {
        const double ratio = plain / Median(seconds[kind]);
        printf("throughput %s/plain (medians): %.3fx  (plain %.1f MB/s, %s %.1f MB/s)  target "
               ">= %.2fx: %s\n",
               kKindNames[kind], ratio, size / plain / 1e6, kKindNames[kind],
               size / Median(seconds[kind]) / 1e6, kTargetRatio,
               ratio >= kTargetRatio ? "met" : "MISSED");
    }
    // Until every byte is on the disk: plain capture leaves the write-back to the kernel and syncs
    // only at its end, the daemon syncs as it goes, so its end is quick.
    for (Kind kind : {kDaemon, kBudget}) {
        const double ratio = Median(durable[kPlain]) / Median(durable[kind]);
        printf("until on disk, the tool's end included, %s/plain (medians): %.3fx  target >= "
               "%.2fx: %s\n",
               kKindNames[kind], ratio, kTargetRatio, ratio >= kTargetRatio ? "met" : "MISSED");
    }
    printf("cpu per run (medians): plain %.3f s, daemon %.3f s, budget %.3f s\n",
           Median(cpu[kPlain]), Median(cpu[kDaemon]), Median(cpu[kBudget]));
    printf("exit once told (medians): plain %.3f s, daemon %.3f s, budget %.3f s\n",
           Median(exits[kPlain]), Median(exits[kDaemon]), Median(exits[kBudget]));
    printf("peak RSS: plain %ld KiB, daemon %ld KiB, budget %ld KiB\n", rss[kPlain], rss[kDaemon],
           rss[kBudget]);
    printf("no byte lost: %s\n", allIdentical && allExact ? "yes" : "NO");
    return allIdentical && allExact ? 0 : 1;
}
