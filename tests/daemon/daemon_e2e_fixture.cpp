#include "daemon_e2e_fixture.h"

#include <csignal>
#include <sys/stat.h>
#include <thread>

namespace daemon_test {

DaemonRun::DaemonRun() {
    mkdir(store.c_str(), 0755);
    options.dir = scratch.Path();
    options.teeFile = Sent();
}

void DaemonRun::StartModem(uint64_t bytes, uint64_t rate) {
    options.gen.stopAfterBytes = bytes;
    options.gen.bytesPerSecond = rate;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
}

void DaemonRun::StartTool(const std::string& sizes, const std::vector<std::string>& extra) {
    std::vector<std::string> args = {"-d" + modem.PortPath(),
                                     "-a" + store + (sizes.empty() ? "" : "," + sizes), "-t"};
    args.insert(args.end(), extra.begin(), extra.end());
    ASSERT_TRUE(tool.Start(ZAVRA_LOG_SERIAL_PATH, args)) << tool.Error();
}

void DaemonRun::Terminate() {
    tool.Signal(SIGTERM);
    if (!tool.Wait(10000)) {
        tool.Kill();
        FAIL() << "the tool did not end in time; stderr:\n" << tool.Stderr();
    }
    EXPECT_EQ(tool.ExitCode(), 15) << zavra_test::Describe(tool);
    modem.FlushFiles();
}

bool DaemonRun::WaitForJournal(const std::string& text, int timeoutMs) const {
    for (int waited = 0; JournalCount(store, text) == 0; waited += 20) {
        if (waited >= timeoutMs)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::string ReadPart(const std::string& path, size_t offset, size_t size) {
    std::string all = zavra_test::ReadFile(path);
    return offset >= all.size() ? std::string() : all.substr(offset, size);
}

} // namespace daemon_test
