// When the tool's own outputs fail: standard error whose reader has gone, and an output file
// that refuses writes. The capture goes on to its orderly end and the user is told what was lost.
#include <unistd.h>

#include <string>

#include "app_test_tool.h"

namespace apptest {
namespace {

// Starts the generator at a modest rate, so a few statistics lines are written during the run.
void StartStreamingModem(Bench& bench) {
    bench.options.gen.enabled = true;
    bench.options.gen.bytesPerSecond = 256u << 10;
    bench.StartModem();
}

TEST(OutputFaults, StandardErrorReaderGoneDoesNotEndTheRun) {
    Bench bench;
    StartStreamingModem(bench);
    // The tool's standard error goes to a pipe whose reader leaves after the first byte; the
    // tool's exit status comes back on the shell's own standard error.
    const char* script =
        "{ \"$0\" \"$@\" 2>&1 >/dev/null; echo \"status $?\" >&2; } | head -c 1 >/dev/null";
    zavra_test::Process shell;
    ASSERT_TRUE(shell.Start("/bin/sh", {"-c", script, ZAVRA_LOG_SERIAL_PATH, "-d" + bench.Port(),
                                        "-t", "-m2200", bench.Out()}))
        << shell.Error();
    ASSERT_TRUE(shell.Wait(20000));
    EXPECT_EQ(shell.Stderr(), "status 0\n");

    // The run reached its orderly end: the channel was closed on the way out, and the file holds
    // what the modem sent.
    bench.modem.WaitUntil(zsim::HostQuiet(150), 3000);
    EXPECT_EQ(bench.modem.RecordsWithId(0x36).size(), 4u);
    long long size = zavra_test::FileSize(bench.Out());
    ASSERT_GT(size, 0);
    ExpectCaptured(bench.Out(), bench, static_cast<uint64_t>(size));
}

TEST(OutputFaults, FailedFileWritesAreReportedWithTheBytesLost) {
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "no /dev/full to stand for a full disk";
    Bench bench;
    StartStreamingModem(bench);
    zavra_test::Process tool;
    StartTool(tool, {"-d" + bench.Port(), "-t", "-m1200", "/dev/full"});
    ExpectExit(tool, 0);

    const std::string err = tool.Stderr();
    EXPECT_NE(err.find("Error: Failed to write to the output file (28).\n"), std::string::npos)
        << err;
    // Every byte the tool read from the port is accounted for. The last statistics line comes
    // before the port closes, so it may trail the total by the final chunks.
    const std::string stats = "Merged Stream: ", lost = "Failed to write ";
    size_t tail = err.find(" bytes to the output file (");
    ASSERT_NE(tail, std::string::npos) << err;
    size_t head = err.rfind(lost, tail) + lost.size();
    const unsigned long long lostBytes = std::stoull(err.substr(head, tail - head));
    size_t last = err.rfind(stats) + stats.size();
    EXPECT_LE(std::stoull(err.substr(last, err.find('/', last) - last)), lostBytes) << err;
    bench.modem.WaitUntil(zsim::HostQuiet(150), 3000);
    EXPECT_EQ(lostBytes, bench.modem.Counters().delivered) << err;
    EXPECT_NE(lostBytes, 0u);
    // One report while running, however many writes failed.
    size_t first = err.find("Failed to write to the output file");
    EXPECT_EQ(err.find("Failed to write to the output file", first + 1), std::string::npos) << err;
}

} // namespace
} // namespace apptest
