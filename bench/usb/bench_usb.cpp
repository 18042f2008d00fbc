// Capture over real USB ACM, inside the rig's guest: script/usbrig run build/bench/usb/bench_usb
//
// A writer on the gadget's log function (/dev/ttyGS of acm.2) sends a fixed pseudo-random stream
// at a steady rate; on the host's side either `cat` or the tool reads the cdc-acm port. The kernel
// drops what a reader does not take in time, so each reader is measured at rising steady rates
// (1, 2, 4, 8, 12, 16 ... MB/s) until cat loses bytes, never by a flood: the figure is the
// highest rate at which a reader lost nothing in every trial.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_pattern.h"
#include "bench_spawn.h"

namespace {

using Clock = std::chrono::steady_clock;
const char* const kPort = "/dev/serial/by-id/usb-Zavra_Zavra_ZM200_Modem_SN0001-if04";
const size_t kBlock = 4096;

void Raw(int fd, int vmin) {
    termios tio{};
    tcgetattr(fd, &tio);
    cfmakeraw(&tio);
    tio.c_cc[VMIN] = static_cast<cc_t>(vmin);
    tio.c_cc[VTIME] = 0;
    tcsetattr(fd, TCSANOW, &tio);
}

long long FileSize(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// Bytes of `path` that match the stream from its start; the rest was lost or altered.
uint64_t IntactPrefix(const std::string& path, uint64_t total) {
    FILE* file = fopen(path.c_str(), "rb");
    if (!file)
        return 0;
    bench::Pattern pattern;
    std::vector<unsigned char> want(kBlock), got(kBlock);
    uint64_t same = 0;
    while (same < total) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(kBlock, total - same));
        pattern.Fill(want.data(), n);
        const size_t read = fread(got.data(), 1, n, file);
        const size_t match = static_cast<size_t>(
            std::mismatch(want.begin(), want.begin() + read, got.begin()).first - want.begin());
        same += match;
        if (match < n)
            break;
    }
    fclose(file);
    return same;
}

// One trial: `seconds` of the stream at `rate` bytes a second; returns the bytes missing (at
// least 1 when the capture is not the stream).
uint64_t Trial(const std::string& gadgetTty, bool tool, uint64_t rate, double seconds) {
    const std::string out = "/tmp/bench_usb.bin";
    unlink(out.c_str());
    int modem = open(gadgetTty.c_str(), O_RDWR | O_NOCTTY);
    if (modem < 0) {
        perror(gadgetTty.c_str());
        exit(1);
    }
    Raw(modem, 1);
    // The host's side of the modem: what the tool sends is read and dropped.
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> up{0};
    const int modemIn = open(gadgetTty.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK);
    std::thread drain([&] {
        char buffer[512];
        while (!stop) {
            ssize_t n = read(modemIn, buffer, sizeof buffer);
            if (n > 0)
                up += static_cast<uint64_t>(n);
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    pid_t pid;
    if (tool) {
        pid = bench::Spawn({ZAVRA_LOG_SERIAL_PATH, std::string("-d") + kPort, "-t", "-v1", out}, -1,
                           -1);
        // The stream starts once the tool has opened the channel (its 124 start-up bytes).
        auto deadline = Clock::now() + std::chrono::seconds(10);
        while (up < 124 && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else {
        int port = open(kPort, O_RDONLY | O_NOCTTY);
        Raw(port, 1);
        int file = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid = bench::Spawn({"cat"}, port, file);
        close(port);
        close(file);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    const uint64_t total = static_cast<uint64_t>(rate * seconds) / kBlock * kBlock;
    bench::Pattern pattern;
    std::vector<unsigned char> block(kBlock);
    const auto start = Clock::now();
    for (uint64_t done = 0; done < total; done += kBlock) {
        std::this_thread::sleep_until(start + std::chrono::microseconds(done * 1000000 / rate));
        pattern.Fill(block.data(), kBlock);
        if (!bench::WriteAll(modem, block.data(), kBlock))
            break;
    }
    tcdrain(modem);
    // The reader has what it will get once the file stops growing.
    long long last = -1;
    while (FileSize(out) != last) {
        last = FileSize(out);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
    }
    kill(pid, tool ? SIGINT : SIGTERM);
    waitpid(pid, nullptr, 0);
    stop = true;
    drain.join();
    close(modemIn);
    close(modem);
    const uint64_t intact = IntactPrefix(out, total);
    const uint64_t size = static_cast<uint64_t>(std::max(FileSize(out), 0LL));
    unlink(out.c_str());
    return intact == total ? 0 : std::max<uint64_t>(total - std::min(size, total), 1);
}

} // namespace

int main(int argc, char** argv) {
    const char* gadget = getenv("ZAVRA_USB_GADGET");
    if (!gadget) {
        fprintf(stderr, "Run inside the real-USB guest: script/usbrig run %s\n", argv[0]);
        return 1;
    }
    const int trials = argc > 1 ? atoi(argv[1]) : 3;
    const double seconds = argc > 2 ? atof(argv[2]) : 3;
    std::string number;
    std::ifstream(std::string(gadget) + "/functions/acm.2/port_num") >> number;
    const std::string gadgetTty = "/dev/ttyGS" + number;

    const unsigned rates[] = {1, 2, 4, 8, 12, 16, 24, 32, 48, 64};
    unsigned lossless[2] = {0, 0}; // cat, tool: MB/s
    bool losing[2] = {false, false};
    printf("steady rate, bytes lost in %d trials of %.0f s each (median): cat | tool\n", trials,
           seconds);
    for (unsigned mb : rates) {
        std::vector<uint64_t> lost[2];
        for (int t = 0; t < trials; ++t)
            for (int reader = 0; reader < 2; ++reader)
                if (!losing[reader])
                    lost[reader].push_back(Trial(gadgetTty, reader == 1, mb * 1000000ull, seconds));
        printf("%3u MB/s:", mb);
        for (int reader = 0; reader < 2; ++reader) {
            if (lost[reader].empty()) {
                printf("  %12s", "-");
                continue;
            }
            std::sort(lost[reader].begin(), lost[reader].end());
            printf("  %12llu",
                   static_cast<unsigned long long>(lost[reader][lost[reader].size() / 2]));
            if (lost[reader].back() == 0)
                lossless[reader] = mb;
            else
                losing[reader] = true;
        }
        printf("\n");
        fflush(stdout);
        if (losing[0] && losing[1])
            break;
    }
    printf("highest lossless steady rate: tool %u MB/s, cat %u MB/s, ratio %.2f (aim >= 1)\n",
           lossless[1], lossless[0], lossless[0] ? double(lossless[1]) / lossless[0] : 0.0);
    return 0;
}
