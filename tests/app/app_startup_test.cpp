// What the modem receives when the tool starts and ends: the exact start-of-log exchange and the
// options that change it, and the runs that send nothing.
#include <signal.h>

#include <algorithm>
#include <chrono>

#include "app_test_tool.h"

namespace apptest {
namespace {

using zsim::HostRecord;

uint64_t Us(std::chrono::system_clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
}

// Both halves of each pair of messages: to KOR 0, then KOR 1.
const std::string kClose = "7F807F80 00000000 0300 3600 | 7F807F80 00000000 0300 3680 |";
const std::string kFlush = "7F807F80 00000000 0300 3B00 | 7F807F80 00000000 0300 3B80 |";
const std::string kTime = "7F807F80 00000000 0700 4080 |"; // the header only
const std::string kOpen = "7F807F80 00000000 0600 3500 00000000 32000000 3C000000 |"
                          "7F807F80 00000000 0600 3580 00000000 32000000 3C000000 |";

TEST(StartUp, ModemReceivesTheExchangeInOrder) {
    const struct {
        std::vector<std::string> options;
        unsigned openId, timeId;
        std::string records; // every record of the run: start-up, then the closing pair
    } cases[] = {
        {{}, 0x35, 0x40, kClose + kFlush + kTime + kOpen + kClose},
        // Base 100: open 0x64, close 0x65, flush 0x6A, host time 0x6F.
        {{"-c100"},
         0x64,
         0x6F,
         "7F807F80 00000000 0300 6500 | 7F807F80 00000000 0300 6580 |"
         "7F807F80 00000000 0300 6A00 | 7F807F80 00000000 0300 6A80 | 7F807F80 00000000 0700 6F80 |"
         "7F807F80 00000000 0600 6400 00000000 32000000 3C000000 |"
         "7F807F80 00000000 0600 6480 00000000 32000000 3C000000 |"
         "7F807F80 00000000 0300 6500 | 7F807F80 00000000 0300 6580 |"},
        // -b leaves out the flush pair; -r fills the open's body.
        {{"-r1,80,10", "-b"},
         0x35,
         0x40,
         kClose + kTime + "7F807F80 00000000 0600 3500 01000000 50000000 0A000000 |" +
             "7F807F80 00000000 0600 3580 01000000 50000000 0A000000 |" + kClose},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.options));
        Bench bench;
        bench.StartModem();
        std::vector<std::string> args = {"-d" + bench.Port(), "-t"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        args.push_back(bench.Out());
        const auto before = std::chrono::system_clock::now();
        zavra_test::Process tool;
        StartTool(tool, args);
        EXPECT_TRUE(bench.modem.WaitUntil(zsim::RecordSeen(c.openId, 2), 10000)) << tool.Stderr();
        const auto after = std::chrono::system_clock::now();
        tool.Signal(SIGINT);
        ExpectExit(tool, 2);
        // The closing pair may still be on its way through the pty when the tool has exited.
        bench.modem.WaitUntil(zsim::HostQuiet(150), 3000);
        std::string got;
        for (const HostRecord& r : bench.modem.Records()) {
            got += ToHex(
                Bytes(r.bytes.begin(), r.bytes.begin() + (r.id == c.timeId ? 12 : r.bytes.size())));
            if (r.id != c.timeId)
                continue;
            // Microseconds since the epoch, then since midnight, which agrees with the epoch value
            // to within a local time offset.
            ASSERT_EQ(r.bytes.size(), 28u);
            uint64_t usEpoch = 0, usMidnight = 0;
            ASSERT_TRUE(zsim::DecodeHostTime(&r.bytes[12], 16, usEpoch, usMidnight));
            EXPECT_GE(usEpoch + 1000000, Us(before));
            EXPECT_LE(usEpoch, Us(after) + 1000000);
            const uint64_t day = 86400ull * 1000000;
            EXPECT_LT(usMidnight, day);
            const uint64_t gap = (usMidnight + day - usEpoch % day) % day;
            EXPECT_LE(std::min(gap, day - gap), 15ull * 3600 * 1000000);
        }
        EXPECT_EQ(got, ToHex(Hex(c.records.c_str()))); // Hex skips the blanks and bars
    }
}

// Nothing reaches the modem from a port check (-o: status 0, silent; the second run finds the port
// free again), nor from a run whose output file or script cannot be opened (status errno ENOENT).
TEST(StartUp, PortCheckAndUnopenableFilesSendNothing) {
    Bench bench;
    bench.StartModem();
    const std::string script = bench.dir.File("missing.zos");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"-o", bench.Out()}, ""},
        {{"-o", bench.Out()}, ""},
        {{bench.dir.File("missing/out.zom")}, "Error 2(12):Failed to open output ZOM.\n"},
        {{"-s" + script, bench.Out()}, "Error 2(12):Failed to open script file '" + script + "'\n"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = {"-d" + bench.Port(), "-t"};
        args.insert(args.end(), c.first.begin(), c.first.end());
        zavra_test::Process tool;
        StartTool(tool, args);
        ExpectExit(tool, c.second.empty() ? 0 : 2);
        const std::string err = tool.Stderr();
        EXPECT_TRUE(c.second.empty() ? err.empty() : err.find(c.second) != std::string::npos)
            << err;
    }
    EXPECT_EQ(bench.modem.Counters().received, 0u);
    EXPECT_FALSE(zavra_test::FileExists(bench.Out()));
}

} // namespace
} // namespace apptest
