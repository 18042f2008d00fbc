// bench_crash [MiB per run] [rounds]
//
// A modem on the master side of a pseudo-terminal serves a full core dump of a fixed
// pseudo-random image, either to `cat` (stdin on the pty slave in raw mode, stdout to a file) or
// to the crash check's retrieval (ZvAtCrash::GetCrash on the slave, the whole AT dialogue),
// alternately, several rounds. The same writer feeds both; a run's time is from the first image
// byte written to the last one taken by the reader, so only the reader differs. For the
// retrieval also the peak RSS growth of this process during the run (VmHWM after the run, reset
// through /proc/self/clear_refs before it, against VmRSS before it), and a byte-for-byte compare
// of the dump file with the image. Prints the medians and their ratio.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "zv-at-port-util.h"
#include "zv-file-util.h"

#include "bench_pattern.h"
#include "bench_spawn.h"

namespace {

using namespace bench;

bool WriteText(int fd, const std::string& text) {
    return WriteAll(fd, text.data(), text.size());
}

// Writes the image; returns the seconds from its first byte to its last one taken by the pty.
double WriteImage(int master, uint64_t size) {
    std::vector<unsigned char> block(kBlock);
    Pattern pattern;
    const Clock::time_point start = Clock::now();
    for (uint64_t left = size; left > 0;) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(left, kBlock));
        pattern.Fill(block.data(), n);
        if (!WriteAll(master, block.data(), n))
            return -1;
        left -= n;
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The next command from the host, up to and including its "\r"; empty when none came within
// 5 s. Until the host opens the slave, reads on the master fail at once: those are waited out.
std::string ReadCommand(int master) {
    std::string command;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
    char c;
    while (command.empty() || command.back() != '\r') {
        if (Clock::now() > deadline)
            return "";
        pollfd p{master, POLLIN, 0};
        if (poll(&p, 1, 100) > 0 && read(master, &c, 1) == 1)
            command += c;
        else if (p.revents & POLLHUP)
            usleep(1000);
    }
    return command;
}

// The modem's side of the crash dialogue, until the reset. Returns the image's transfer time.
double ServeCrash(int master, uint64_t size) {
    const std::string ok = "\r\nOK\r\n";
    const std::string text(400, 'c'); // crash information and crash log
    double seconds = -1;
    for (;;) {
        const std::string command = ReadCommand(master);
        if (command.empty())
            return seconds;
        if (command == "at%debug=?\r") {
            WriteText(master, "\r\n%DEBUG: (0,1,2,3)\r\n" + ok);
        } else if (command == "at%mode?\r") {
            WriteText(master, "\r\n%MODE: 1\r\n" + ok);
        } else if (command == "at%debug=2,1\r") {
            WriteText(master, "\r\nstart of external ram content, start address=0x80000000, "
                              "size in bytes=" +
                                  std::to_string(size) + ":\r\n");
            seconds = WriteImage(master, size);
            WriteText(master, ok);
        } else if (command == "at%debug=0,0\r" || command == "at%debug\r") {
            WriteText(master, text + ok);
        } else if (command == "at%zreset\r") {
            WriteText(master, ok);
            return seconds;
        } else {
            WriteText(master, ok);
        }
    }
}

long StatusKiB(const char* field) {
    FILE* f = fopen("/proc/self/status", "r");
    if (f == nullptr)
        return -1;
    char line[256];
    long value = -1;
    const size_t length = strlen(field);
    while (fgets(line, sizeof line, f) != nullptr) {
        if (strncmp(line, field, length) == 0)
            value = atol(line + length);
    }
    fclose(f);
    return value;
}

bool ResetPeakRss() {
    FILE* f = fopen("/proc/self/clear_refs", "w");
    if (f == nullptr)
        return false;
    const bool ok = fputs("5", f) >= 0;
    return fclose(f) == 0 && ok;
}

bool SameAsImage(const std::string& path, uint64_t size) {
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    std::vector<unsigned char> expected(kBlock), got(kBlock);
    Pattern pattern;
    bool same = true;
    for (uint64_t left = size; left > 0 && same;) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(left, kBlock));
        pattern.Fill(expected.data(), n);
        same = fread(got.data(), 1, n, f) == n && memcmp(got.data(), expected.data(), n) == 0;
        left -= n;
    }
    same = same && fgetc(f) == EOF;
    fclose(f);
    return same;
}

struct Pty {
    int master = -1;
    char name[128] = "";
    Pty() {
        int slave = -1;
        if (openpty(&master, &slave, name, nullptr, nullptr) != 0) {
            perror("openpty");
            exit(1);
        }
        close(slave);
    }
    ~Pty() { close(master); }
};

struct Run {
    double seconds = -1;
    long rssGrowthKiB = -1;
    bool identical = false;
    std::string why; // what the retrieval reported when its dump is not the image
};

// Keeps the retrieval's reports for a run that went wrong.
class ReportingCrash : public ZvAtCrash {
public:
    void OnStatus(const char* text) override { reports += std::string(text) + " "; }
    std::string reports;
};

Run RunCat(const std::string& dir, uint64_t size) {
    Pty pty;
    const std::string out = dir + "/cat.out";
    const std::string script = "stty raw -echo <\"$0\" && exec cat <\"$0\" >\"$1\"";
    const pid_t pid = bench::Spawn({"sh", "-c", script, pty.name, out});
    Run run;
    if (pid < 0)
        return run;
    // cat is reading once stty has set the terminal raw: wait for it before writing.
    for (int i = 0; i < 500; ++i) {
        termios tio{};
        if (tcgetattr(pty.master, &tio) == 0 && (tio.c_lflag & ECHO) == 0)
            break;
        usleep(10000);
    }
    usleep(100000);
    run.seconds = WriteImage(pty.master, size);
    // Drain before hanging up: the pty drops unread bytes when its master closes.
    for (int i = 0; i < 1000 && ZvFileUtil::GetFileSize(out.c_str()) < static_cast<long long>(size);
         ++i)
        usleep(10000);
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    run.identical = SameAsImage(out, size);
    unlink(out.c_str());
    return run;
}

Run RunRetrieval(uint64_t size) {
    Pty pty;
    Run run;
    double seconds = -1;
    std::thread modem([&] { seconds = ServeCrash(pty.master, size); });
    ReportingCrash crash;
    ZvAtCrash::Response response;
    const long before = StatusKiB("VmRSS:");
    const bool reset = ResetPeakRss();
    crash.GetCrash(pty.name, response);
    const long peak = StatusKiB("VmHWM:");
    modem.join();
    run.seconds = seconds;
    if (reset && before >= 0 && peak >= 0)
        run.rssGrowthKiB = peak - before;
    run.identical = !response.coreDumpRaw && SameAsImage(response.coreDumpFile, size);
    if (!run.identical)
        run.why = crash.reports + "error '" + crash.errorText + "', dump of " +
                  std::to_string(ZvFileUtil::GetFileSize(response.coreDumpFile.c_str())) + " bytes";
    for (const ZvAString* path :
         {&response.coreDumpFile, &response.crashInfoFile, &response.crashLogFile})
        ZvFileUtil::DelFile(path->c_str());
    return run;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    const uint64_t mib = argc > 1 ? strtoull(argv[1], nullptr, 10) : 64;
    const int rounds = argc > 2 ? atoi(argv[2]) : 5;
    const uint64_t size = mib << 20;
    char dirTemplate[] = "/tmp/bench_crash_XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string dir = dirTemplate;
    ZvFileUtil::SetWritableDir(dir.c_str());

    std::vector<double> catRates, crashRates, ratios, growth;
    bool allIdentical = true;
    int incomplete = 0;
    for (int round = 1; round <= rounds; ++round) {
        const Run cat = RunCat(dir, size);
        const Run crash = RunRetrieval(size);
        const double catRate = cat.seconds > 0 ? mib / cat.seconds : 0;
        const double crashRate = crash.seconds > 0 ? mib / crash.seconds : 0;
        // A round counts only when both readers got every byte. A writer held off the CPU for
        // longer than the AT port's 300 ms time-out ends the dump early on a busy machine.
        if (cat.identical && crash.identical) {
            catRates.push_back(catRate);
            crashRates.push_back(crashRate);
            ratios.push_back(catRate > 0 ? crashRate / catRate : 0);
            growth.push_back(static_cast<double>(crash.rssGrowthKiB));
        } else {
            ++incomplete;
        }
        allIdentical = allIdentical && cat.identical && crash.identical;
        printf("round %d  cat %7.1f MiB/s %s  retrieval %7.1f MiB/s %s  rss growth %5ld KiB\n",
               round, catRate, cat.identical ? "ok" : "DIFFERS", crashRate,
               crash.identical ? "ok" : "DIFFERS", crash.rssGrowthKiB);
        if (!crash.why.empty())
            printf("        retrieval: %s\n", crash.why.c_str());
        fflush(stdout);
    }
    rmdir(dir.c_str());

    const double catMedian = Median(catRates), crashMedian = Median(crashRates);
    printf("\n%llu MiB core dump x %d rounds each, %d incomplete and left out\n",
           static_cast<unsigned long long>(mib), rounds, incomplete);
    if (growth.empty())
        growth.push_back(0);
    printf("median throughput: retrieval %.1f MiB/s, cat %.1f MiB/s, ratio %.3f (aim >= 0.9)\n",
           crashMedian, catMedian, catMedian > 0 ? crashMedian / catMedian : 0);
    // Each round's two runs share the machine's load of that moment: their ratio is the steadier
    // figure on a busy machine.
    printf("median of the rounds' ratios: %.3f\n", Median(ratios));
    printf("peak rss growth of the retrieval: median %.0f KiB, max %.0f KiB (aim < 4096 KiB)\n",
           Median(growth), *std::max_element(growth.begin(), growth.end()));
    printf("bytes compared: %llu per run, %s\n", static_cast<unsigned long long>(size),
           allIdentical ? "all identical" : "DIFFERENCES");
    return allIdentical ? 0 : 1;
}
