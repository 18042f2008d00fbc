// bench_pcapng [MiB] [rounds]
//
// Writes a capture of the given size (records of layouts A and B with the simulator's mix of body
// sizes, a run of stray bytes every 500 records), then, alternately for several rounds, copies it
// with `cat` and exports it with `zavra_zom_info --pcapng`, each to a file beside it. Prints the
// median throughput of each (input bytes per second), their ratio, and the peak RSS of each
// program (sampled from /proc while it runs); the export's peak RSS also for a capture of a
// sixteenth of the size, which shows that memory does not grow with the input.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_pattern.h"
#include "bench_spawn.h"
#include "quzol-write.h"

namespace {

struct Run {
    double seconds = 0;
    long peakKiB = 0;
};

// A capture of `size` bytes, whole records only but for the stray runs.
bool WriteCapture(const std::string& path, uint64_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return false;
    bench::Pattern pattern;
    std::vector<unsigned char> block;
    unsigned char record[12 + 1024 + 3];
    unsigned time = 1000;
    for (uint64_t written = 0, n = 0; written < size; ++n) {
        unsigned char roll[8];
        pattern.Fill(roll, sizeof roll);
        // Most bodies are short, some medium, a few up to 1 KiB.
        const unsigned body = roll[0] < 179   ? 4 + roll[1] % 61
                              : roll[0] < 243 ? 4 + roll[1]
                                              : 4 + (roll[1] << 2);
        unsigned total = 0;
        unsigned char* at = QoZolWrite::EncodeZol(record, sizeof record, body, roll[2] & 1,
                                                  0x100 + roll[3], time += roll[4], total);
        pattern.Fill(at, body);
        if (roll[5] & 1) // layout B: the sync word of the record's core
            QoZolPutWord(record, (roll[2] & 1) ? 0x0030CF29u : 0x00FB3E98u);
        block.insert(block.end(), record, record + total);
        if (n % 500 == 499)
            block.insert(block.end(), 1 + roll[6] % 40, static_cast<unsigned char>(roll[7] & 31));
        if (block.size() >= (1u << 20) || written + block.size() >= size) {
            const size_t take =
                static_cast<size_t>(std::min<uint64_t>(block.size(), size - written));
            if (!bench::WriteAll(fd, block.data(), take))
                return false;
            written += take;
            block.clear();
        }
    }
    return close(fd) == 0;
}

// The child's peak RSS as far as seen, from /proc (the rusage of a spawned child would count the
// spawning process's memory too).
long PeakKiB(pid_t pid, long seen) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
    FILE* status = fopen(path, "r");
    if (status == nullptr)
        return seen;
    char line[256];
    while (fgets(line, sizeof line, status) != nullptr)
        if (strncmp(line, "VmHWM:", 6) == 0)
            seen = std::max(seen, strtol(line + 6, nullptr, 10));
    fclose(status);
    return seen;
}

// Runs `args` with standard output to `out`; its wall time and peak RSS (sampled every 2 ms).
Run Spawn(const std::vector<std::string>& args, const std::string& out) {
    Run run;
    const int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (outFd < 0)
        return run;
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = bench::Spawn(args, -1, outFd);
    close(outFd);
    if (pid < 0)
        return run;
    int status = 0;
    // Sampled until the child has ended, but left unreaped so that its /proc entry stays.
    siginfo_t info = {};
    for (;;) {
        run.peakKiB = PeakKiB(pid, run.peakKiB);
        info.si_pid = 0;
        if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
            info.si_pid == pid)
            break;
        usleep(2000);
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        run.seconds = -1;
    return run;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    const uint64_t mib = argc > 1 ? strtoull(argv[1], nullptr, 0) : 256;
    const int rounds = argc > 2 ? atoi(argv[2]) : 5;
    const char* tmp = getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp";
    const std::string dir = std::string(tmp) + "/bench_pcapng." + std::to_string(getpid());
    const std::string in = dir + "/capture.zom", small = dir + "/small.zom", out = dir + "/out";
    if (mkdir(dir.c_str(), 0700) != 0 || !WriteCapture(in, mib << 20) ||
        !WriteCapture(small, (mib << 20) / 16)) {
        fprintf(stderr, "Failed to write the captures in '%s'.\n", dir.c_str());
        return 1;
    }
    const std::string info = ZAVRA_ZOM_INFO_PATH;
    std::vector<double> cat, exported;
    long catPeak = 0, exportPeak = 0;
    for (int i = 0; i < rounds; ++i) {
        const Run c = Spawn({"/bin/cat", in}, out);
        const Run e = Spawn({info, "--pcapng", "-", in}, out);
        if (c.seconds <= 0 || e.seconds <= 0) {
            fprintf(stderr, "A run failed.\n");
            return 1;
        }
        cat.push_back(static_cast<double>(mib) / c.seconds);
        exported.push_back(static_cast<double>(mib) / e.seconds);
        catPeak = std::max(catPeak, c.peakKiB);
        exportPeak = std::max(exportPeak, e.peakKiB);
    }
    const Run smallRun = Spawn({info, "--pcapng", "-", small}, out);
    struct stat pcapng = {};
    stat(out.c_str(), &pcapng);
    printf("capture %llu MiB, %d rounds (medians)\n", static_cast<unsigned long long>(mib), rounds);
    printf("  cat:    %8.1f MiB/s  peak RSS %6ld KiB\n", Median(cat), catPeak);
    printf("  export: %8.1f MiB/s  peak RSS %6ld KiB (%llu MiB: %ld KiB)\n", Median(exported),
           exportPeak, static_cast<unsigned long long>(mib / 16), smallRun.peakKiB);
    printf("  export/cat throughput ratio: %.2f; pcapng of the small capture: %lld bytes\n",
           Median(exported) / Median(cat), static_cast<long long>(pcapng.st_size));
    unlink(in.c_str());
    unlink(small.c_str());
    unlink(out.c_str());
    rmdir(dir.c_str());
    return 0;
}
