// The ZOS script of -s: its records reach the modem whole and in order right after the channel
// opens; bytes between them in the file are not sent.
#include <signal.h>

#include "app_test_tool.h"

namespace apptest {
namespace {

// Layout A records: id 0x200 KOR 0 body "ABCD"; id 0x201 KOR 1 body "HELLO" and 3 padding bytes;
// id 0x202 KOR 0 with an empty body.
const char* const kRecord1 = "7F 80 7F 80 11 22 33 44 04 00 00 02 41 42 43 44";
const char* const kRecord2 = "7F 80 7F 80 00 00 00 01 05 00 01 E2 48 45 4C 4C 4F 00 00 00";
const char* const kRecord3 = "7F 80 7F 80 05 00 00 00 03 00 02 02";
// Garbage: text, a broken sync, and a layout B record (not accepted in scripts).
const char* const kGarbage1 = "6E 6F 69 73 65 7F 80 7F";
const char* const kGarbage2 = "29 CF 30 00 00 00 00 00 03 00 05 00 FF";

std::string Text(const char* hex) {
    Bytes bytes = Hex(hex);
    return std::string(bytes.begin(), bytes.end());
}

TEST(Script, RecordsArriveWholeAndInOrderAfterTheOpen) {
    Bench bench;
    bench.StartModem();
    const std::string script = bench.dir.File("start.zos");
    ASSERT_TRUE(zavra_test::WriteFile(script, Text(kGarbage1) + Text(kRecord1) + Text(kGarbage2) +
                                                  Text(kRecord2) + Text(kGarbage1) +
                                                  Text(kRecord3) + Text("00 01")));
    zavra_test::Process tool;
    StartTool(tool, {"-d" + bench.Port(), "-t", "-s" + script, bench.Out()});
    ASSERT_TRUE(bench.modem.WaitForRecordId(0x202, 10000)) << tool.Stderr();
    tool.Signal(SIGINT);
    ExpectExit(tool, 2);

    std::vector<zsim::HostRecord> after = RecordsAfterOpen(bench.modem);
    ASSERT_GE(after.size(), 3u);
    EXPECT_EQ(ToHex(after[0].bytes), ToHex(Hex(kRecord1)));
    EXPECT_EQ(ToHex(after[1].bytes), ToHex(Hex(kRecord2)));
    EXPECT_EQ(ToHex(after[2].bytes), ToHex(Hex(kRecord3)));
    // Then only the closing pair; nothing of the garbage came down.
    EXPECT_EQ(after.size(), 5u);
    EXPECT_EQ(bench.modem.Counters().rxSkipped, 0u);
}

TEST(Script, EmptyScriptSendsNothing) {
    Bench bench;
    bench.StartModem();
    const std::string script = bench.dir.File("empty.zos");
    ASSERT_TRUE(zavra_test::WriteFile(script, ""));
    zavra_test::Process tool;
    StartTool(tool, {"-d" + bench.Port(), "-t", "-s" + script, "-m700", bench.Out()});
    ExpectExit(tool, 0);
    std::vector<zsim::HostRecord> after = RecordsAfterOpen(bench.modem);
    ASSERT_EQ(after.size(), 2u);
    EXPECT_EQ(after[0].id, 0x36u);
}

TEST(Script, MissingScriptIsFatalBeforeThePortOpens) {
    Bench bench;
    bench.StartModem();
    const std::string script = bench.dir.File("missing.zos");
    zavra_test::Process tool;
    StartTool(tool, {"-d" + bench.Port(), "-t", "-s" + script, bench.Out()});
    ExpectExit(tool, 2);
    EXPECT_NE(tool.Stderr().find("Error 2(12):Failed to open script file '" + script + "'\n"),
              std::string::npos)
        << tool.Stderr();
    EXPECT_EQ(bench.modem.Counters().received, 0u);
}

} // namespace
} // namespace apptest
