// Database extraction end to end: the real tool against the simulated modem's database server on
// a pseudo-terminal, in every fault mode the server offers.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include "tgtdb_wire.h"
#include "zavra_test_files.h"
#include "zavra_test_process.h"
#include "zsim-modem.h"

using namespace tgtdb_test;

namespace {

const char* const kRetryLine = "Target database extraction failed, retrying.";
const char* const kHashTimeOut = "Target database extraction timed out while waiting for hash data";
const char* const kStartTimeOut =
    "Target database extraction timed out while waiting for the start of file data";
const int kRunTimeoutMs = 20000;

// The close message of the start-up and of the exit, to KOR 0 and then KOR 1.
Bytes CloseChannel(uint32_t id, uint32_t kor) {
    return {0x7F, 0x80, 0x7F, 0x80, 0,           0,
            0,    0,    0x03, 0x00, uint8_t(id), uint8_t((id >> 8) | (kor << 7))};
}

class TgtDbE2eTest : public ::testing::Test {
protected:
    void SetUp() override {
        output = dir.File("target.zx");
        options.dir = dir.Path();
        options.gen.enabled = false;
        options.db.zxFile = dir.File("modem.zx");
    }
    void TearDown() override { modem.Stop(); }

    // Writes the modem's database and starts the modem.
    void StartModem(size_t size, uint32_t seed = 1) {
        database = PatternData(size, seed);
        ASSERT_TRUE(zavra_test::WriteFile(options.db.zxFile,
                                          std::string(database.begin(), database.end())));
        ASSERT_TRUE(modem.Start(options)) << modem.Error();
    }

    // Runs the tool to its end and returns its exit status.
    int RunTool(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"-d" + modem.PortPath(), "-e" + output};
        args.insert(args.end(), extra.begin(), extra.end());
        if (!tool.Start(ZAVRA_LOG_SERIAL_PATH, args)) {
            ADD_FAILURE() << tool.Error();
            return -1;
        }
        if (!tool.Wait(kRunTimeoutMs)) {
            tool.Kill();
            ADD_FAILURE() << "the tool did not end: " << tool.Stderr();
            return -1;
        }
        return tool.ExitCode();
    }

    std::vector<unsigned> ReceivedIds() const {
        std::vector<unsigned> ids;
        for (auto& record : modem.Records()) {
            ids.push_back(record.id);
        }
        return ids;
    }

    bool Said(const std::string& text) const {
        return tool.Stderr().find(text) != std::string::npos;
    }

    void ExpectNoOutput() const {
        EXPECT_FALSE(zavra_test::FileExists(output)) << "a failed extraction left a file";
    }

    void ExpectDatabase() const {
        std::string got = zavra_test::ReadFile(output);
        ASSERT_EQ(got.size(), database.size());
        EXPECT_TRUE(got == std::string(database.begin(), database.end()))
            << "the database differs from the modem's";
    }

    zavra_test::TempDir dir;
    zavra_test::Process tool;
    zsim::ModemOptions options;
    zsim::Modem modem;
    std::string output;
    Bytes database;
};

TEST_F(TgtDbE2eTest, DatabaseArrivesByteForByteAfterLiteralRequests) {
    options.db.chunkSize = 2045; // odd sizes: every data record carries padding
    StartModem(300 * 1024 + 17);
    EXPECT_EQ(RunTool(), 0) << zavra_test::Describe(tool);
    ExpectDatabase();
    EXPECT_TRUE(Said("Target database extraction complete.")) << tool.Stderr();
    // Extraction skips the 600 ms wait for sends to drain at exit.
    EXPECT_FALSE(Said("Waiting for sends to complete")) << tool.Stderr();

    // Only the close message at start-up, the two requests, the close message at exit.
    auto records = modem.Records();
    ASSERT_EQ(records.size(), 6u);
    EXPECT_EQ(records[0].bytes, CloseChannel(0x36, 0));
    EXPECT_EQ(records[1].bytes, CloseChannel(0x36, 1));
    EXPECT_EQ(records[2].bytes, (Bytes{0x7F, 0x80, 0x7F, 0x80, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00,
                                       0x3C, 0x80, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(records[3].bytes, (Bytes{0x7F, 0x80, 0x7F, 0x80, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00,
                                       0x3E, 0x80, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(records[4].bytes, CloseChannel(0x36, 0));
    EXPECT_EQ(records[5].bytes, CloseChannel(0x36, 1));
}

TEST_F(TgtDbE2eTest, LargestDataRecordsAndAnEmptyTail) {
    options.db.chunkSize = 20472;
    StartModem(20472 * 12); // the last record is full: the sizes add up exactly
    EXPECT_EQ(RunTool(), 0) << zavra_test::Describe(tool);
    ExpectDatabase();
}

TEST_F(TgtDbE2eTest, BaseIdOptionMovesEveryId) {
    options.baseId = 0x1F8;
    options.db.chunkSize = 777;
    StartModem(64 * 1024, 2);
    EXPECT_EQ(RunTool({"-c0x1F8"}), 0) << zavra_test::Describe(tool);
    ExpectDatabase();
    auto records = modem.Records();
    ASSERT_EQ(records.size(), 6u);
    EXPECT_EQ(records[0].bytes, CloseChannel(0x1F9, 0));
    EXPECT_EQ(records[2].bytes, (Bytes{0x7F, 0x80, 0x7F, 0x80, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00,
                                       0xFF, 0x81, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(records[3].bytes, (Bytes{0x7F, 0x80, 0x7F, 0x80, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00,
                                       0x01, 0x82, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(records[5].bytes, CloseChannel(0x1F9, 1));
}

TEST_F(TgtDbE2eTest, LayoutBConfirmsAmongLogRecordsAndGarbage) {
    options.db.layout = zsim::Layout::B;
    options.db.chunkSize = 3001;
    options.db.interleaveRecords = 3;
    options.db.interleaveGarbage = 41;
    StartModem(200 * 1024, 3);
    EXPECT_EQ(RunTool(), 0) << zavra_test::Describe(tool);
    ExpectDatabase();
}

TEST_F(TgtDbE2eTest, ExistingFileIsReplaced) {
    ASSERT_TRUE(zavra_test::WriteFile(output, std::string(5000000, 'x')));
    StartModem(10000, 4);
    EXPECT_EQ(RunTool(), 0) << zavra_test::Describe(tool);
    ExpectDatabase();
}

TEST_F(TgtDbE2eTest, SilentModemFailsAfterOneRetryAndRemovesTheOldFile) {
    options.db.fault = zsim::DbFault::Silence;
    ASSERT_TRUE(zavra_test::WriteFile(output, "an older database"));
    StartModem(1000);
    EXPECT_EQ(RunTool(), 51) << zavra_test::Describe(tool);
    EXPECT_TRUE(Said(kRetryLine)) << tool.Stderr();
    EXPECT_TRUE(Said(kHashTimeOut)) << tool.Stderr();
    EXPECT_FALSE(Said("Target database extraction complete."));
    ExpectNoOutput();
    EXPECT_EQ(modem.Counters().hashRequests, 2u);
    EXPECT_EQ(modem.Counters().dataRequests, 0u);
}

// Confirms the tool must not take: each ends like silence, in the phase where it happens.
struct RefusedCase {
    zsim::DbFault fault;
    const char* message;
};

class TgtDbRefusedTest : public TgtDbE2eTest, public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(TgtDbRefusedTest, EndsWithStatus51AndNoFile) {
    options.db.fault = GetParam().fault;
    StartModem(5000);
    EXPECT_EQ(RunTool(), 51) << zavra_test::Describe(tool);
    EXPECT_TRUE(Said(kRetryLine)) << tool.Stderr();
    EXPECT_TRUE(Said(GetParam().message)) << tool.Stderr();
    ExpectNoOutput();
}

INSTANTIATE_TEST_SUITE_P(Faults, TgtDbRefusedTest,
                         ::testing::Values(RefusedCase{zsim::DbFault::HashStatus, kHashTimeOut},
                                           RefusedCase{zsim::DbFault::HashZero, kHashTimeOut},
                                           RefusedCase{zsim::DbFault::Oversize, kHashTimeOut},
                                           RefusedCase{zsim::DbFault::DataStatus, kStartTimeOut},
                                           RefusedCase{zsim::DbFault::SilenceData, kStartTimeOut}));

TEST_F(TgtDbE2eTest, ShortDataIsReportedAsIncomplete) {
    options.db.fault = zsim::DbFault::ShortData;
    options.db.faultBytes = 100;
    options.db.chunkSize = 1000;
    StartModem(10000);
    EXPECT_EQ(RunTool(), 51) << zavra_test::Describe(tool);
    EXPECT_TRUE(Said(kRetryLine)) << tool.Stderr();
    EXPECT_TRUE(Said("Target database incomplete, expected 10000, got 9900.")) << tool.Stderr();
    ExpectNoOutput();
    EXPECT_EQ(modem.Counters().dataRequests, 2u);
}

TEST_F(TgtDbE2eTest, TooMuchDataIsRefused) {
    options.db.fault = zsim::DbFault::TooMuchData;
    options.db.faultBytes = 8;
    options.db.chunkSize = 1000;
    StartModem(10000);
    EXPECT_EQ(RunTool(), 51) << zavra_test::Describe(tool);
    EXPECT_TRUE(
        Said("Target database extraction failed, received more data than expected (10000, "))
        << tool.Stderr();
    ExpectNoOutput();
}

TEST_F(TgtDbE2eTest, SecondAttemptCompletesTheFile) {
    options.db.fault = zsim::DbFault::SecondAttemptOnly;
    StartModem(100 * 1024, 5);
    EXPECT_EQ(RunTool(), 0) << zavra_test::Describe(tool);
    EXPECT_TRUE(Said(kRetryLine)) << tool.Stderr();
    EXPECT_TRUE(Said("Target database extraction complete.")) << tool.Stderr();
    ExpectDatabase();
    EXPECT_EQ(modem.Counters().hashRequests, 2u);
}

TEST_F(TgtDbE2eTest, OutputThatCannotBeRemovedStopsBeforeThePortIsUsed) {
    // A non-empty directory under the database name cannot be removed, not even by root.
    ASSERT_EQ(mkdir(output.c_str(), 0755), 0);
    ASSERT_TRUE(zavra_test::WriteFile(output + "/keep", "x"));
    StartModem(1000);
    int status = RunTool();
    EXPECT_NE(status, 0);
    EXPECT_NE(status, 51);
    EXPECT_TRUE(Said("Failed to configure target database extraction '" + output + "'"))
        << tool.Stderr();
    EXPECT_TRUE(zavra_test::FileExists(output + "/keep"));
    EXPECT_TRUE(ReceivedIds().empty());
}

} // namespace
