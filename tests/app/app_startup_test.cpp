// What the modem receives when the tool starts and ends: the exact start-of-log exchange and the
// options that change it, the port check that sends nothing, and the time limit.
#include <chrono>

#include "app_test_tool.h"

namespace apptest {
namespace {

using zsim::HostRecord;

// Runs the tool against a silent modem until the channel is open, then stops it with SIGINT;
// returns the records the modem received.
std::vector<HostRecord> StartUpRecords(const std::vector<std::string>& options, unsigned openId) {
    Bench bench;
    bench.StartModem();
    std::vector<std::string> args = {"-d" + bench.Port(), "-t"};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(bench.Out());
    zavra_test::Process tool;
    StartTool(tool, args);
    EXPECT_TRUE(bench.modem.WaitForRecordId(openId, 10000, 2)) << tool.Stderr();
    tool.Signal(SIGINT);
    ExpectExit(tool, 2);
    // The closing pair may still be on its way through the pty when the tool has exited.
    bench.modem.WaitForHostQuiet(150, 3000);
    return bench.modem.Records();
}

uint64_t Word(const uint8_t* body, int i) {
    const uint8_t* p = body + 4 * i;
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint64_t>(p[3]) << 24;
}

struct ExchangeCase {
    std::vector<std::string> options;
    unsigned openId;
    unsigned timeId;
    // Every record of the run in order (start-up, then the closing pair), the host-time message
    // by its header only.
    const char* records;
};

TEST(StartUp, ModemReceivesTheExchangeInOrder) {
    const std::vector<ExchangeCase> cases = {
        {{},
         0x35,
         0x40,
         "7F807F80 00000000 0300 3600 | 7F807F80 00000000 0300 3680 |"
         "7F807F80 00000000 0300 3B00 | 7F807F80 00000000 0300 3B80 |"
         "7F807F80 00000000 0700 4080 |"
         "7F807F80 00000000 0600 3500 00000000 32000000 3C000000 |"
         "7F807F80 00000000 0600 3580 00000000 32000000 3C000000 |"
         "7F807F80 00000000 0300 3600 | 7F807F80 00000000 0300 3680"},
        {{"-b"},
         0x35,
         0x40,
         "7F807F80 00000000 0300 3600 | 7F807F80 00000000 0300 3680 |"
         "7F807F80 00000000 0700 4080 |"
         "7F807F80 00000000 0600 3500 00000000 32000000 3C000000 |"
         "7F807F80 00000000 0600 3580 00000000 32000000 3C000000 |"
         "7F807F80 00000000 0300 3600 | 7F807F80 00000000 0300 3680"},
        // Base 100: open 0x64, close 0x65, flush 0x6A, host time 0x6F.
        {{"-c100"},
         0x64,
         0x6F,
         "7F807F80 00000000 0300 6500 | 7F807F80 00000000 0300 6580 |"
         "7F807F80 00000000 0300 6A00 | 7F807F80 00000000 0300 6A80 |"
         "7F807F80 00000000 0700 6F80 |"
         "7F807F80 00000000 0600 6400 00000000 32000000 3C000000 |"
         "7F807F80 00000000 0600 6480 00000000 32000000 3C000000 |"
         "7F807F80 00000000 0300 6500 | 7F807F80 00000000 0300 6580"},
        {{"-r1,80,10", "-b"},
         0x35,
         0x40,
         "7F807F80 00000000 0300 3600 | 7F807F80 00000000 0300 3680 |"
         "7F807F80 00000000 0700 4080 |"
         "7F807F80 00000000 0600 3500 01000000 50000000 0A000000 |"
         "7F807F80 00000000 0600 3580 01000000 50000000 0A000000 |"
         "7F807F80 00000000 0300 3600 | 7F807F80 00000000 0300 3680"},
    };
    for (const ExchangeCase& c : cases) {
        auto before = std::chrono::system_clock::now();
        std::vector<HostRecord> records = StartUpRecords(c.options, c.openId);
        auto after = std::chrono::system_clock::now();
        std::string got;
        for (const HostRecord& r : records) {
            size_t keep = r.id == c.timeId ? 12 : r.bytes.size();
            got +=
                (got.empty() ? "" : "| ") + ToHex(Bytes(r.bytes.begin(), r.bytes.begin() + keep));
        }
        std::string want, part = std::string(c.records) + "|";
        for (size_t start = 0, bar; (bar = part.find('|', start)) != std::string::npos;
             start = bar + 1)
            want +=
                (want.empty() ? "" : "| ") + ToHex(Hex(part.substr(start, bar - start).c_str()));
        EXPECT_EQ(got, want) << testing::PrintToString(c.options);

        // The host time: microseconds since the epoch and since midnight, high word first.
        for (const HostRecord& r : records) {
            if (r.id != c.timeId)
                continue;
            ASSERT_EQ(r.bytes.size(), 28u);
            const uint8_t* body = r.bytes.data() + 12;
            uint64_t usEpoch = Word(body, 0) << 32 | Word(body, 1);
            uint64_t usMidnight = Word(body, 2) << 32 | Word(body, 3);
            auto us = [](std::chrono::system_clock::time_point t) {
                return static_cast<uint64_t>(
                    std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch())
                        .count());
            };
            EXPECT_GE(usEpoch + 1000000, us(before));
            EXPECT_LE(usEpoch, us(after) + 1000000);
            // Since midnight agrees with the epoch value to within a local time offset.
            const uint64_t day = 86400ull * 1000000;
            EXPECT_LT(usMidnight, day);
            uint64_t gap = (usMidnight + day - usEpoch % day) % day;
            EXPECT_LE(std::min(gap, day - gap), 15ull * 3600 * 1000000);
        }
    }
}

TEST(StartUp, PortCheckOpensClosesAndSendsNothing) {
    Bench bench;
    bench.StartModem();
    for (int run = 0; run < 2; ++run) { // the second run finds the port free again
        zavra_test::Process tool;
        StartTool(tool, {"-d" + bench.Port(), "-o", bench.Out()});
        ExpectExit(tool, 0);
        EXPECT_EQ(tool.Stderr(), "");
    }
    EXPECT_EQ(bench.modem.Counters().received, 0u);
    EXPECT_FALSE(zavra_test::FileExists(bench.Out()));
}

TEST(StartUp, TimeLimitEndsTheRunWithStatusZero) {
    Bench bench;
    bench.StartModem();
    zavra_test::Process tool;
    auto start = std::chrono::steady_clock::now();
    StartTool(tool, {"-d" + bench.Port(), "-t", "-m1000", bench.Out()});
    ExpectExit(tool, 0);
    bench.modem.WaitForHostQuiet(150, 3000);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::steady_clock::now() - start)
                  .count();
    EXPECT_GE(ms, 1000);
    EXPECT_LT(ms, 6000);
    // The channel was closed on the way out.
    EXPECT_EQ(bench.modem.RecordsWithId(0x36).size(), 4u);
    EXPECT_NE(tool.Stderr().find("Merged Stream: "), std::string::npos) << tool.Stderr();
}

} // namespace
} // namespace apptest
