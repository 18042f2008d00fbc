// The ZOS script of -s: its records reach the modem whole and in order right after the channel
// opens; bytes between them in the file are not sent (the file reader's tests cover what is
// garbage). The run ends at its time limit, with status 0.
#include <chrono>

#include "app_test_tool.h"

namespace apptest {
namespace {

TEST(Script, RecordsArriveWholeAndInOrderAfterTheOpenAndTheTimeLimitEndsTheRun) {
    // Layout A records: id 0x200 KOR 0 body "ABCD"; id 0x201 KOR 1 body "HELLO" and 3 padding
    // bytes; id 0x202 KOR 0 with an empty body.
    const Bytes records[] = {Hex("7F 80 7F 80 11 22 33 44 04 00 00 02 41 42 43 44"),
                             Hex("7F 80 7F 80 00 00 00 01 05 00 01 E2 48 45 4C 4C 4F 00 00 00"),
                             Hex("7F 80 7F 80 05 00 00 00 03 00 02 02")};
    // Garbage: text, a broken sync, and a layout B record (not accepted in scripts).
    const Bytes garbage[] = {Hex("6E 6F 69 73 65 7F 80 7F"),
                             Hex("29 CF 30 00 00 00 00 00 03 00 05 00 FF"), Hex("00 01")};
    std::string script;
    for (int i = 0; i < 3; ++i) {
        script.append(garbage[i % 2].begin(), garbage[i % 2].end());
        script.append(records[i].begin(), records[i].end());
    }
    script.append(garbage[2].begin(), garbage[2].end());
    Bench bench;
    bench.StartModem();
    ASSERT_TRUE(zavra_test::WriteFile(bench.dir.File("start.zos"), script));
    zavra_test::Process tool;
    const auto start = std::chrono::steady_clock::now();
    StartTool(tool, {"-d" + bench.Port(), "-t", "-m1000", "-s" + bench.dir.File("start.zos"),
                     bench.Out()});
    ExpectExit(tool, 0);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took.count(), 1.0);
    EXPECT_LT(took.count(), 6.0);

    std::vector<zsim::HostRecord> after = RecordsAfterOpen(bench.modem);
    // The three records, then only the closing pair: nothing of the garbage came down.
    ASSERT_EQ(after.size(), 5u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(ToHex(after[i].bytes), ToHex(records[i]));
    EXPECT_EQ(after[3].id, 0x36u);
    EXPECT_EQ(after[4].id, 0x36u);
    EXPECT_EQ(bench.modem.Counters().rxSkipped, 0u);
}

} // namespace
} // namespace apptest
