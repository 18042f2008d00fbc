// What the modem receives when the tool starts and ends: the exact start-of-log exchange and the
// options that change it, the port check that sends nothing, and the time limit.
#include <sys/time.h>

#include <chrono>
#include <ctime>

#include "app_test_tool.h"

namespace apptest {
namespace {

using zsim::HostRecord;

const char* const kCloseKor0 = "7F 80 7F 80 00 00 00 00 03 00 36 00";
const char* const kCloseKor1 = "7F 80 7F 80 00 00 00 00 03 00 36 80";
const char* const kFlushKor0 = "7F 80 7F 80 00 00 00 00 03 00 3B 00";
const char* const kFlushKor1 = "7F 80 7F 80 00 00 00 00 03 00 3B 80";
const char* const kHostTimeHeader = "7F 80 7F 80 00 00 00 00 07 00 40 80";
const char* const kOpenKor0 = "7F 80 7F 80 00 00 00 00 06 00 35 00 "
                              "00 00 00 00 32 00 00 00 3C 00 00 00";
const char* const kOpenKor1 = "7F 80 7F 80 00 00 00 00 06 00 35 80 "
                              "00 00 00 00 32 00 00 00 3C 00 00 00";

// Runs the tool against a silent modem until the channel is open, then stops it with SIGINT;
// returns the records the modem received.
std::vector<HostRecord> StartUpRecords(const std::vector<std::string>& options,
                                       unsigned openId = 0x35) {
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
    return bench.modem.Records();
}

Bytes Concat(std::initializer_list<const char*> parts) {
    Bytes all;
    for (const char* part : parts) {
        Bytes bytes = Hex(part);
        all.insert(all.end(), bytes.begin(), bytes.end());
    }
    return all;
}

// The start-up records without the host-time body (checked on its own), then the two closes at
// the end of the run.
Bytes WithoutTimeBody(const std::vector<HostRecord>& records) {
    Bytes all;
    for (const HostRecord& r : records) {
        size_t keep = r.id == 0x40 || r.id == 0x6F ? 12 : r.bytes.size();
        all.insert(all.end(), r.bytes.begin(), r.bytes.begin() + static_cast<long>(keep));
    }
    return all;
}

TEST(StartUp, ModemReceivesTheExchangeInOrder) {
    auto before = std::chrono::system_clock::now();
    std::vector<HostRecord> records = StartUpRecords({});
    auto after = std::chrono::system_clock::now();

    Bytes expected = Concat({kCloseKor0, kCloseKor1, kFlushKor0, kFlushKor1, kHostTimeHeader,
                             kOpenKor0, kOpenKor1, kCloseKor0, kCloseKor1});
    EXPECT_EQ(ToHex(WithoutTimeBody(records)), ToHex(expected));

    ASSERT_GE(records.size(), 5u);
    const HostRecord& time = records[4];
    ASSERT_EQ(time.bytes.size(), 28u);
    const uint8_t* b = time.bytes.data() + 12;
    auto word = [b](int i) {
        return static_cast<uint64_t>(b[4 * i] | b[4 * i + 1] << 8 | b[4 * i + 2] << 16 |
                                     static_cast<uint32_t>(b[4 * i + 3]) << 24);
    };
    // High word first, each word little-endian.
    uint64_t usEpoch = word(0) << 32 | word(1);
    uint64_t usMidnight = word(2) << 32 | word(3);
    auto us = [](std::chrono::system_clock::time_point t) {
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count());
    };
    EXPECT_GE(usEpoch + 1000000, us(before));
    EXPECT_LE(usEpoch, us(after) + 1000000);
    EXPECT_LT(usMidnight, 86400ull * 1000000);
    // Since midnight agrees with the epoch value to within a local time offset (< 15 hours).
    uint64_t utcMidnight = usEpoch % (86400ull * 1000000);
    uint64_t gap = usMidnight > utcMidnight ? usMidnight - utcMidnight : utcMidnight - usMidnight;
    gap = std::min<uint64_t>(gap, 86400ull * 1000000 - gap);
    EXPECT_LE(gap, 15ull * 3600 * 1000000);
}

TEST(StartUp, NoFlushSkipsOnlyTheFlushMessages) {
    std::vector<HostRecord> records = StartUpRecords({"-b"});
    Bytes expected = Concat(
        {kCloseKor0, kCloseKor1, kHostTimeHeader, kOpenKor0, kOpenKor1, kCloseKor0, kCloseKor1});
    EXPECT_EQ(ToHex(WithoutTimeBody(records)), ToHex(expected));
}

TEST(StartUp, BaseIdMovesEveryId) {
    // Base 100: open 0x64, close 0x65, flush 0x6A, host time 0x6F.
    std::vector<HostRecord> records = StartUpRecords({"-c100"}, 100);
    Bytes expected =
        Concat({"7F 80 7F 80 00 00 00 00 03 00 65 00", "7F 80 7F 80 00 00 00 00 03 00 65 80",
                "7F 80 7F 80 00 00 00 00 03 00 6A 00", "7F 80 7F 80 00 00 00 00 03 00 6A 80",
                "7F 80 7F 80 00 00 00 00 07 00 6F 80",
                "7F 80 7F 80 00 00 00 00 06 00 64 00 00 00 00 00 32 00 00 00 3C 00 00 00",
                "7F 80 7F 80 00 00 00 00 06 00 64 80 00 00 00 00 32 00 00 00 3C 00 00 00",
                "7F 80 7F 80 00 00 00 00 03 00 65 00", "7F 80 7F 80 00 00 00 00 03 00 65 80"});
    EXPECT_EQ(ToHex(WithoutTimeBody(records)), ToHex(expected));
}

TEST(StartUp, DeferredLoggingFillsTheOpenBody) {
    std::vector<HostRecord> records = StartUpRecords({"-r1,80,10"});
    std::vector<HostRecord> opens;
    for (const HostRecord& r : records)
        if (r.id == 0x35)
            opens.push_back(r);
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(ToHex(opens[0].bytes), ToHex(Hex("7F 80 7F 80 00 00 00 00 06 00 35 00 "
                                               "01 00 00 00 50 00 00 00 0A 00 00 00")));
    EXPECT_EQ(ToHex(opens[1].bytes), ToHex(Hex("7F 80 7F 80 00 00 00 00 06 00 35 80 "
                                               "01 00 00 00 50 00 00 00 0A 00 00 00")));
}

TEST(StartUp, ProgressLinesAtHighVerbosity) {
    Bench bench;
    bench.StartModem();
    zavra_test::Process tool;
    StartTool(tool, {"-d" + bench.Port(), "-t", "-v5", bench.Out()});
    ASSERT_TRUE(bench.modem.WaitForRecordId(0x35, 10000, 2));
    tool.Signal(SIGTERM);
    ExpectExit(tool, 15);
    std::string err = tool.Stderr();
    size_t last = 0;
    for (const char* line :
         {"Opening serial port.", "Sending OS_LOG_CHANNEL_CLOSE message to target.",
          "Sending OS_LOG_FLUSH_LOG_BUFFER message to target.",
          "Sending OS_LOG_HOST_TIME message to KOR1.",
          "Sending OS_LOG_CHANNEL_OPEN message to target.", "Waiting for sends to complete",
          "Sending OS_LOG_CHANNEL_CLOSE message to target.", "Exit with code 15"}) {
        size_t at = err.find(line, last);
        ASSERT_NE(at, std::string::npos) << line << " missing after offset " << last << "\n" << err;
        last = at + 1;
    }
}

TEST(StartUp, PortCheckOpensClosesAndSendsNothing) {
    Bench bench;
    bench.StartModem();
    zavra_test::Process tool;
    StartTool(tool, {"-d" + bench.Port(), "-o", bench.Out()});
    ExpectExit(tool, 0);
    EXPECT_EQ(tool.Stderr().find("Error"), std::string::npos) << tool.Stderr();
    // The port is free again and nothing came down it.
    zavra_test::Process again;
    StartTool(again, {"-d" + bench.Port(), "-o"});
    ExpectExit(again, 0);
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
