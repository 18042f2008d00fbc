// The arm64 build of the tool run under user-mode emulation, against the simulated modem on a pty
// of this machine: the start-of-log exchange reaches the modem, the stream lands byte for byte and
// SIGTERM ends the run with 15. script/test names the cross-built tool and the emulator in
// ZAVRA_CROSS_TOOL and ZAVRA_CROSS_EMULATOR; without them the case is skipped.
#include <signal.h>

#include <cstdlib>

#include "app_test_tool.h"
#include "zavra_test_expect.h"

namespace apptest {
namespace {

TEST(CrossBuild, CapturesUnderEmulationAndEndsWithFifteenOnSigterm) {
    const char* tool = getenv("ZAVRA_CROSS_TOOL");
    const char* emulator = getenv("ZAVRA_CROSS_EMULATOR");
    if (tool == nullptr || emulator == nullptr)
        GTEST_SKIP() << "ZAVRA_CROSS_TOOL and ZAVRA_CROSS_EMULATOR are not set";
    const uint64_t size = 4u << 20;
    Bench bench;
    bench.StartFlood(size);

    zavra_test::Process run;
    ASSERT_TRUE(run.Start(emulator, {tool, "-d" + bench.Port(), "-t", bench.Out()})) << run.Error();
    // A binary that does not start under the emulator fails here at once, not after the minute.
    for (int waitedMs = 0; !bench.modem.WaitUntil(zsim::GeneratorDone(), 500); waitedMs += 500) {
        ASSERT_TRUE(run.Running()) << "the tool ended early; stderr:\n" << run.Stderr();
        ASSERT_LT(waitedMs, 60000) << run.Stderr();
    }
    ASSERT_TRUE(bench.modem.WaitUntil(zsim::Drained(), 20000)) << run.Stderr();
    run.Signal(SIGTERM);
    ExpectExit(run, 15, 30000);
    ExpectCaptured(bench.Out(), bench, bench.modem.Counters().sent);

    // Close, flush, host time (header only: its body is the time), open, then the closing pair.
    const std::string expected = "7F807F80 00000000 0300 3600 | 7F807F80 00000000 0300 3680 |"
                                 "7F807F80 00000000 0300 3B00 | 7F807F80 00000000 0300 3B80 |"
                                 "7F807F80 00000000 0700 4080 |"
                                 "7F807F80 00000000 0600 3500 00000000 32000000 3C000000 |"
                                 "7F807F80 00000000 0600 3580 00000000 32000000 3C000000 |"
                                 "7F807F80 00000000 0300 3600 | 7F807F80 00000000 0300 3680 |";
    bench.modem.WaitUntil(zsim::HostQuiet(150), 3000);
    std::string got;
    for (const zsim::HostRecord& r : bench.modem.Records())
        got +=
            ToHex(Bytes(r.bytes.begin(), r.bytes.begin() + (r.id == 0x40 ? 12 : r.bytes.size())));
    EXPECT_EQ(got, ToHex(Hex(expected.c_str())));
    // The static build has no libudev: detection finds nothing and says so.
    EXPECT_TRUE(
        zavra_test::Contains(run.Stderr(), "Warning: No device detection mechanism available."));
}

} // namespace
} // namespace apptest
