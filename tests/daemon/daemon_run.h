// The tool in daemon mode as a child process beside a simulated modem on a pseudo-terminal, each
// run with its own scratch directory and daemon directory.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sys/mount.h>
#include <sys/stat.h>

#include "daemon_test_files.h"
#include "zavra_test_expect.h"
#include "zavra_test_net.h"
#include "zavra_test_process.h"
#include "zsim-modem.h"

namespace daemon_test {

const long long kMiB = 1 << 20;

// A tmpfs of its own on a directory of the test, unmounted at the end.
struct SmallFileSystem {
    std::string path;
    bool mounted = false;
    SmallFileSystem(const std::string& dir, const char* options, unsigned long flags = 0)
        : path(dir), mounted(mount("tmpfs", dir.c_str(), "tmpfs", flags, options) == 0) {}
    ~SmallFileSystem() {
        if (mounted)
            umount2(path.c_str(), MNT_DETACH);
    }
};

struct DaemonRun {
    zavra_test::TempDir scratch;
    std::string store = scratch.File("store"); // the daemon directory
    zsim::ModemOptions options;
    zsim::Modem modem;
    zavra_test::Process tool;
    const int port = zavra_test::FreeTcpPort();

    DaemonRun() {
        mkdir(store.c_str(), 0755);
        options.dir = scratch.Path();
        options.teeFile = scratch.File("sent.bin");
    }
    // `bytes` of stream (0: endless) at `rate` bytes per second (0: as fast as the pty takes).
    void StartModem(uint64_t bytes, uint64_t rate = 0) {
        options.gen.stopAfterBytes = bytes;
        options.gen.bytesPerSecond = rate;
        ASSERT_TRUE(modem.Start(options)) << modem.Error();
    }
    static void Start(zavra_test::Process& process, const std::vector<std::string>& args) {
        ASSERT_TRUE(process.Start(ZAVRA_LOG_SERIAL_PATH, args)) << process.Error();
    }
    // zavra_log_serial -d<port> -a<store>[,<sizes>] -t plus `args`.
    void StartTool(const std::string& sizes, std::vector<std::string> args = {}) {
        args.insert(args.begin(), {"-d" + modem.PortPath(),
                                   "-a" + store + (sizes.empty() ? "" : "," + sizes), "-t"});
        Start(tool, args);
    }
    std::string Serve() const { return "-p" + std::to_string(port); }
    int Connect() const {
        int client = zavra_test::ConnectTcp(port, 5000);
        EXPECT_GE(client, 0);
        return client;
    }
    void ExpectExit(int status) {
        zavra_test::ExpectExit(tool, status, 10000);
        modem.FlushFiles();
    }
    void Terminate() {
        tool.Signal(SIGTERM);
        ExpectExit(15);
    }
    std::string Sent() const { return zavra_test::ReadFile(scratch.File("sent.bin")); }
    std::string StoreFile(const std::string& name) const { return store + "/" + name; }
    bool WaitForJournal(const std::string& text, int timeoutMs) const {
        return zavra_test::WaitUntil([&] { return JournalCount(store, text) > 0; }, timeoutMs);
    }
    // Waits until the tool has read all the modem sent; returns the largest directory size seen.
    long long DrainWatchingBudget(int timeoutMs = 30000) {
        long long largest = 0;
        EXPECT_TRUE(zavra_test::WaitUntil(
            [&] {
                largest = std::max(largest, ZomBytes(store));
                const zsim::ModemCounters c = modem.Counters();
                return c.generatorDone && c.unread == 0;
            },
            timeoutMs, 5));
        return largest;
    }
};

} // namespace daemon_test
