// Database extraction end to end against the simulated modem, in every fault mode it offers.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "tgtdb_wire.h"
#include "zavra_test_files.h"
#include "zavra_test_process.h"
#include "zsim-modem.h"

using namespace tgtdb_test;

namespace {

const char* const kRetry = "Target database extraction failed, retrying.";
const char* const kComplete = "Target database extraction complete.";
const char* const kHashTimeOut = "Target database extraction timed out while waiting for hash data";
const char* const kStartTimeOut =
    "Target database extraction timed out while waiting for the start of file data";

// A legacy message as the tool sends it: a close (empty body) or a request (one zero word).
Bytes Message(uint32_t id, uint32_t kor, bool request) {
    Bytes out = Record(id, Bytes(request ? 4 : 0, 0));
    out[11] = uint8_t(id >> 8 | kor << 7);
    return out;
}

class TgtDbE2eTest : public ::testing::Test {
protected:
    void SetUp() override {
        options.dir = dir.Path();
        options.gen.enabled = false;
        options.db.zxFile = dir.File("modem.zx");
    }

    // Runs the tool to its end against a database of `size` bytes; returns its exit status.
    int Run(size_t size, std::vector<std::string> extra = {}) {
        database = Text(PatternData(size, unsigned(size)));
        EXPECT_TRUE(zavra_test::WriteFile(options.db.zxFile, database));
        EXPECT_TRUE(modem.Start(options)) << modem.Error();
        extra.insert(extra.begin(), {"-d" + modem.PortPath(), "-e" + output});
        EXPECT_TRUE(tool.Start(ZAVRA_LOG_SERIAL_PATH, extra)) << tool.Error();
        if (tool.Wait(20000))
            return tool.ExitCode();
        tool.Kill();
        ADD_FAILURE() << "the tool did not end: " << tool.Stderr();
        return -1;
    }

    bool Said(const std::string& text) const {
        return tool.Stderr().find(text) != std::string::npos;
    }

    // All the modem received: the closes at start-up, the two requests, the closes at exit.
    void ExpectExchange(uint32_t base) {
        modem.WaitUntil(zsim::HostQuiet(150), 3000); // what the tool wrote just before it exited
        std::vector<Bytes> got;
        for (const zsim::HostRecord& r : modem.Records())
            got.push_back(r.bytes);
        const Bytes close0 = Message(base + 1, 0, false), close1 = Message(base + 1, 1, false);
        EXPECT_EQ(got, (std::vector<Bytes>{close0, close1, Message(base + 7, 1, true),
                                           Message(base + 9, 1, true), close0, close1}));
    }

    zavra_test::TempDir dir;
    zavra_test::Process tool;
    zsim::ModemOptions options;
    zsim::Modem modem;
    std::string output = dir.File("target.zx"), database;
};

TEST_F(TgtDbE2eTest, DatabaseArrivesByteForByteAfterLiteralRequests) {
    options.db.chunkSize = 2045; // odd sizes: every data record carries padding
    ASSERT_TRUE(zavra_test::WriteFile(output, std::string(100000, 'x'))); // replaced
    EXPECT_EQ(Run(300 * 1024 + 17), 0) << zavra_test::Describe(tool);
    EXPECT_TRUE(zavra_test::ReadFile(output) == database);
    EXPECT_TRUE(Said(kComplete)) << tool.Stderr();
    EXPECT_FALSE(Said("Waiting for sends to complete")) << "extraction skips the exit drain";
    ExpectExchange(0x35);
}

TEST_F(TgtDbE2eTest, BaseIdOptionMovesEveryIdAndFullRecordsArrive) {
    options.baseId = 0x1F8;
    options.db.chunkSize = 20472; // the largest data record, and a size that divides exactly
    EXPECT_EQ(Run(20472 * 12, {"-c0x1F8"}), 0) << zavra_test::Describe(tool);
    EXPECT_TRUE(zavra_test::ReadFile(output) == database);
    ExpectExchange(0x1F8);
}

// The second attempt completes the file, with layout B confirms among log records and garbage.
TEST_F(TgtDbE2eTest, SecondAttemptCompletesTheFileFromLayoutBConfirmsAmongGarbage) {
    options.db.fault = zsim::DbFault::SecondAttemptOnly;
    options.db.layout = zsim::Layout::B;
    options.db.chunkSize = 3001;
    options.db.interleaveRecords = 3;
    options.db.interleaveGarbage = 41;
    EXPECT_EQ(Run(200 * 1024), 0) << zavra_test::Describe(tool);
    EXPECT_TRUE(Said(kRetry) && Said(kComplete)) << tool.Stderr();
    EXPECT_TRUE(zavra_test::ReadFile(output) == database);
    EXPECT_EQ(modem.Counters().hashRequests, 2u);
}

// Each fault: status 51 after one retry, the reason on standard error, no file left at all.
struct FaultCase {
    zsim::DbFault fault;
    const char* message;
};

// Names the case in test listings by its fault.
void PrintTo(const FaultCase& c, std::ostream* out) {
    *out << zsim::DbFaultName(c.fault);
}

class TgtDbFaultTest : public TgtDbE2eTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(TgtDbFaultTest, EndsWithStatus51AndNoFile) {
    options.db.fault = GetParam().fault;
    options.db.faultBytes = 100;
    options.db.chunkSize = 1000;
    ASSERT_TRUE(zavra_test::WriteFile(output, "an older database"));
    EXPECT_EQ(Run(10000), 51) << zavra_test::Describe(tool);
    EXPECT_TRUE(Said(kRetry) && Said(GetParam().message)) << tool.Stderr();
    EXPECT_FALSE(zavra_test::FileExists(output));
    EXPECT_EQ(modem.Counters().hashRequests, 2u);
    EXPECT_EQ(modem.Counters().dataRequests, GetParam().message == kHashTimeOut ? 0u : 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Server, TgtDbFaultTest,
    ::testing::Values(FaultCase{zsim::DbFault::Silence, kHashTimeOut},
                      FaultCase{zsim::DbFault::HashStatus, kHashTimeOut},
                      FaultCase{zsim::DbFault::HashZero, kHashTimeOut},
                      FaultCase{zsim::DbFault::Oversize, kHashTimeOut},
                      FaultCase{zsim::DbFault::SilenceData, kStartTimeOut},
                      FaultCase{zsim::DbFault::DataStatus, kStartTimeOut},
                      FaultCase{zsim::DbFault::ShortData,
                                "Target database incomplete, expected 10000, got 9900."},
                      FaultCase{zsim::DbFault::TooMuchData,
                                "Target database extraction failed, received more data than "
                                "expected (10000, got 10100)."}));

TEST_F(TgtDbE2eTest, OutputThatCannotBeRemovedStopsBeforeThePortIsUsed) {
    // A non-empty directory under the database name cannot be removed, not even by root.
    ASSERT_EQ(mkdir(output.c_str(), 0755), 0);
    ASSERT_TRUE(zavra_test::WriteFile(output + "/keep", "x"));
    int status = Run(1000);
    EXPECT_TRUE(status != 0 && status != 51) << zavra_test::Describe(tool);
    EXPECT_TRUE(Said("Failed to open '" + output + "' file for writing.\n") &&
                Said("Failed to configure target database extraction '" + output + "'"))
        << tool.Stderr();
    EXPECT_TRUE(zavra_test::FileExists(output + "/keep"));
    EXPECT_TRUE(modem.Records().empty());
}

} // namespace
