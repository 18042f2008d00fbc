// Capture to a file: every byte the modem sends lands in the file, whichever way the run ends
// (a signal, a hang-up of the port), and the log channel is closed once after the drain.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include "app_test_tool.h"

namespace apptest {
namespace {

// SIGTERM gives 15; a second signal during the drain changes neither the status nor the close.
TEST(Capture, SignalsCloseTheChannelOnceAfterTheDrain) {
    for (bool second : {false, true}) {
        Bench bench;
        bench.StartModem();
        zavra_test::Process tool;
        StartTool(tool, {"-d" + bench.Port(), "-t", bench.Out()});
        ASSERT_TRUE(bench.modem.WaitUntil(zsim::RecordSeen(0x35, 2), 10000)) << tool.Stderr();
        tool.Signal(SIGTERM);
        if (second) {
            usleep(150000);
            tool.Signal(SIGINT);
        }
        ExpectExit(tool, 15);
        bench.modem.WaitUntil(zsim::HostQuiet(150), 3000);
        const std::vector<zsim::HostRecord> closes = bench.modem.RecordsWithId(0x36);
        const std::vector<zsim::HostRecord> opens = bench.modem.RecordsWithId(0x35);
        ASSERT_EQ(closes.size(), 4u);
        ASSERT_EQ(opens.size(), 2u);
        // The last data went down with the open; the closing pair waits at least 600 ms after it.
        EXPECT_GE(closes[2].arrivalMs - opens[1].arrivalMs, 550.0);
        EXPECT_NE(tool.Stderr().find("\nWaiting for sends to complete\n"), std::string::npos);
    }
}

TEST(Capture, HangUpGivesFiftyWithEveryByteOnDisk) {
    Bench bench;
    bench.options.gen.enabled = true;
    bench.options.gen.bytesPerSecond = 4u << 20;
    bench.StartModem();
    // The name is used exactly as given, without an extension added.
    const std::string out = bench.dir.File("capture.bin.log");
    zavra_test::Process tool;
    StartTool(tool, {"-d" + bench.Port(), "-t", out});
    ASSERT_TRUE(bench.modem.WaitUntil(zsim::SentAtLeast(1u << 20), 20000)) << tool.Stderr();
    bench.modem.Apply(zsim::Control::HangUp(0, false));
    ExpectExit(tool, 50);
    EXPECT_EQ(bench.modem.Counters().discarded, 0u) << "the tool left bytes unread at the hang-up";
    ExpectCaptured(out, bench, bench.modem.Counters().delivered);
}

// A file another run holds is refused before a byte of it changes: a second capture on the file of
// a flooded capture, on the same port or another, and an extraction into a database file that
// another program has locked. The capture's file ends equal to what was sent.
TEST(Capture, ASecondRunOnAFileInUseIsRefusedAndTheFileStaysWhole) {
    Bench bench, other;
    bench.options.gen.enabled = true;
    bench.options.gen.bytesPerSecond = 8u << 20;
    bench.options.gen.stopAfterBytes = 24u << 20;
    bench.StartModem();
    other.StartModem();
    zavra_test::Process tool;
    StartTool(tool, {"-d" + bench.Port(), "-t", bench.Out()});
    ASSERT_TRUE(bench.modem.WaitUntil(zsim::SentAtLeast(1u << 20), 20000)) << tool.Stderr();

    const std::string database = other.dir.File("target.zx");
    ASSERT_TRUE(zavra_test::WriteFile(database, "earlier database"));
    const int held = open(database.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    const std::string inUse = "cannot be opened: it is in use by another program.\n";
    const struct {
        std::vector<std::string> args;
        std::string message;
    } seconds[] = {
        {{"-d" + bench.Port(), "-m2000", bench.Out()},
         "Error: The output file '" + bench.Out() + "' " + inUse +
             "Error 11(12):Failed to open output ZOM.\n"},
        {{"-d" + other.Port(), "-m2000", "-p0", bench.Out()},
         "Error: The output file '" + bench.Out() + "' " + inUse +
             "Error 11(12):Failed to open output ZOM.\n"},
        {{"-d" + other.Port(), "-e" + database},
         "Error: The database file '" + database +
             "' is in use by another program.\nError 11(12):Failed to configure target database "
             "extraction '" +
             database + "'\n"},
    };
    for (const auto& second : seconds) {
        zavra_test::Process refused;
        StartTool(refused, second.args);
        ExpectExit(refused, 11);
        EXPECT_EQ(refused.Stderr(), second.message);
    }
    close(held);
    EXPECT_EQ(zavra_test::ReadFile(database), "earlier database");
    EXPECT_EQ(other.modem.Counters().received, 0u) << "nothing reached the other modem";

    ASSERT_TRUE(bench.modem.WaitUntil(zsim::GeneratorDone(), 60000)) << tool.Stderr();
    ASSERT_TRUE(bench.modem.WaitUntil(zsim::Drained(), 20000));
    tool.Signal(SIGTERM);
    ExpectExit(tool, 15);
    ExpectCaptured(bench.Out(), bench, bench.modem.Counters().sent);
}

} // namespace
} // namespace apptest
