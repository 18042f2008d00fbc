// The extraction state machine, driven with confirms from an independent encoder, a controlled
// clock, and a Send that records what would go to the port.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "tgtdb_wire.h"
#include "zavra_log_tgt_db.h"
#include "zv-log.h"

using namespace tgtdb_test;

namespace {

class TestTgtDb : public ZlTgtDb {
public:
    void Send(unsigned int size, unsigned char* data) override {
        sent.push_back(Bytes(data, data + size));
    }
    unsigned Now() const override { return now; }

    std::vector<Bytes> sent;
    unsigned now = 5000;
};

// Collects the status lines so the retry notice can be checked.
class CaptureLog : public ZvLog {
public:
    void DoLog(Info* info) override {
        lines.push_back(info->message);
        delete info;
    }
    std::vector<std::string> lines;
};

bool FileExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const uint32_t kBase = 0x35;
const uint32_t kHashCnf = kBase + 8;
const uint32_t kDataCnf = kBase + 10;

class TgtDbTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tgtdb_unit_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        path = dir + "/target.zx";
        ZvLog::SetLogger(&log);
    }
    void TearDown() override {
        ZvLog::SetLogger(nullptr);
        db.Close();
        std::string cmd = "rm -rf '" + dir + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }

    void Feed(const Bytes& stream, size_t chunk) {
        for (size_t at = 0; at < stream.size(); at += chunk) {
            size_t n = std::min(chunk, stream.size() - at);
            Bytes piece(stream.begin() + at, stream.begin() + at + n);
            db.OnNewData(piece.data(), unsigned(piece.size()));
        }
    }
    void Feed(const Bytes& stream) { Feed(stream, stream.size()); }

    // Configures and sends the hash request.
    void Start(uint32_t base = kBase) {
        ASSERT_TRUE(db.Configure(path.c_str(), base));
        ASSERT_EQ(db.CheckProgress(), 0);
        ASSERT_EQ(db.GetState(), ZlTgtDb::StateHashRequested);
    }

    // Runs an exchange up to the data request for a database of the given size.
    void StartData(uint32_t size) {
        Start();
        Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 0xC0FFEE, size)));
        ASSERT_EQ(db.GetState(), ZlTgtDb::StateHashReceived);
        ASSERT_EQ(db.CheckProgress(), 0);
        ASSERT_EQ(db.GetState(), ZlTgtDb::StateDataRequested);
    }

    static Bytes DataRecord(const Bytes& data, size_t from, size_t size, bool more) {
        return LegacyRecord(kDataCnf, DataCnfBody(0, more ? 1 : 0, data.data() + from, size));
    }

    // Lets the clock run past a time-out and checks the failure is final or retried.
    int Expire(unsigned ms) {
        db.now += ms;
        return db.CheckProgress();
    }

    bool RetryLogged() const {
        for (auto& line : log.lines) {
            if (line == "Target database extraction failed, retrying.") {
                return true;
            }
        }
        return false;
    }

    TestTgtDb db;
    CaptureLog log;
    std::string dir;
    std::string path;
};

TEST_F(TgtDbTest, RequestsAreSixteenLiteralBytesAddressedToKor1) {
    Start();
    ASSERT_EQ(db.sent.size(), 1u);
    EXPECT_EQ(db.sent[0], (Bytes{0x7F, 0x80, 0x7F, 0x80, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x3C,
                                 0x80, 0x00, 0x00, 0x00, 0x00}));
    Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 1, 8)));
    ASSERT_EQ(db.CheckProgress(), 0);
    ASSERT_EQ(db.sent.size(), 2u);
    EXPECT_EQ(db.sent[1], (Bytes{0x7F, 0x80, 0x7F, 0x80, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x3E,
                                 0x80, 0x00, 0x00, 0x00, 0x00}));

    unsigned char small[15];
    EXPECT_EQ(db.EncodeFileHashReq(small, sizeof(small)), 0u);
    EXPECT_EQ(db.EncodeFileDataReq(small, sizeof(small)), 0u);
    unsigned char exact[16];
    EXPECT_EQ(db.EncodeFileDataReq(exact, sizeof(exact)), 16u);
}

TEST_F(TgtDbTest, BaseIdMovesEveryRequestAndConfirmId) {
    const uint32_t base = 0x1F8; // request ids cross into the high byte of the packed word
    Start(base);
    EXPECT_EQ(db.sent[0], (Bytes{0x7F, 0x80, 0x7F, 0x80, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0xFF,
                                 0x81, 0x00, 0x00, 0x00, 0x00}));
    // Confirms under the default ids no longer count.
    Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 1, 4)));
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateHashRequested);
    Feed(LegacyRecord(base + 8, HashCnfBody(0, 1, 4)));
    ASSERT_EQ(db.GetState(), ZlTgtDb::StateHashReceived);
    ASSERT_EQ(db.CheckProgress(), 0);
    EXPECT_EQ(db.sent[1], (Bytes{0x7F, 0x80, 0x7F, 0x80, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x01,
                                 0x82, 0x00, 0x00, 0x00, 0x00}));
    Bytes data = {1, 2, 3, 4};
    Feed(LegacyRecord(kDataCnf, DataCnfBody(0, 0, data.data(), 4)));
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateDataRequested);
    Feed(LegacyRecord(base + 10, DataCnfBody(0, 0, data.data(), 4)));
    EXPECT_EQ(db.CheckProgress(), 2);
    EXPECT_EQ(ReadFile(path), data);
}

// A whole exchange with data records of several sizes (padding 0..3), cut into chunks of
// several sizes so that sync words, headers and bodies straddle chunk boundaries.
struct SplitCase {
    size_t chunk;
    bool layoutB;
};

class TgtDbSplitTest : public TgtDbTest, public ::testing::WithParamInterface<SplitCase> {};

TEST_P(TgtDbSplitTest, DatabaseArrivesByteForByte) {
    const SplitCase param = GetParam();
    const Bytes data = PatternData(30011, 7);
    const size_t sizes[] = {1, 2, 3, 4, 4000, 1019, 8190, 20472, 5};
    auto wrap = [&](uint32_t id, const Bytes& body, uint64_t t) {
        return param.layoutB ? LayoutBRecord(t % 2 ? 0x30CF29 : 0x78DAE4, id, body, t)
                             : LegacyRecord(id, body, 1, uint32_t(t));
    };

    Start();
    Bytes stream = wrap(kHashCnf, HashCnfBody(0, 0xABCD, uint32_t(data.size())), 0x1200000001ull);
    Feed(stream, param.chunk);
    ASSERT_EQ(db.GetState(), ZlTgtDb::StateHashReceived);
    ASSERT_EQ(db.CheckProgress(), 0);

    stream.clear();
    size_t at = 0;
    uint64_t t = 2;
    for (size_t i = 0; at < data.size(); ++i) {
        size_t n = std::min(sizes[i % 9], data.size() - at);
        bool more = at + n < data.size();
        Append(stream, wrap(kDataCnf, DataCnfBody(0, more, data.data() + at, n), t++));
        at += n;
    }
    Feed(stream, param.chunk);
    EXPECT_EQ(db.GetError(), "");
    ASSERT_EQ(db.CheckProgress(), 2);
    EXPECT_EQ(ReadFile(path), data);
}

INSTANTIATE_TEST_SUITE_P(Chunks, TgtDbSplitTest,
                         ::testing::Values(SplitCase{1, false}, SplitCase{7, false},
                                           SplitCase{4096, false}, SplitCase{1 << 20, false},
                                           SplitCase{1, true}, SplitCase{13, true},
                                           SplitCase{20000, true}));

TEST_F(TgtDbTest, ConfirmsAreFoundAmongOtherRecordsAndGarbage) {
    const Bytes data = PatternData(5000, 3);
    Bytes noise = {0x7F, 0x80, 0x7F, 0x11, 0x29, 0xCF, 0x30, 0x01, 0x02, 0xFF, 0x00, 0x80};
    Bytes unrelated = LayoutBRecord(0xFB3E98, kDataCnf, DataCnfBody(0, 0, data.data(), 10), 9);
    Bytes otherId = LegacyRecord(kDataCnf + 1, DataCnfBody(0, 0, data.data(), 77));

    Start();
    Bytes stream = noise;
    Append(stream, LayoutBRecord(0x30CF29, 0x200, Bytes(33, 0xAB)));
    Append(stream, LayoutBRecord(0x78DAE4, kHashCnf, HashCnfBody(0, 5, 5000), 0x3300000000ull));
    Feed(stream, 5);
    ASSERT_EQ(db.CheckProgress(), 0);
    ASSERT_EQ(db.GetState(), ZlTgtDb::StateDataRequested);

    stream = unrelated; // a KOR 0 record is not on the sync list: garbage here
    Append(stream, otherId);
    Append(stream, noise);
    Append(stream, LayoutBRecord(0x30CF29, kDataCnf, DataCnfBody(0, 1, data.data(), 3000)));
    Append(stream, LegacyRecord(0x100, Bytes(2000, 0x7F)));
    Append(stream, Bytes(3, 0x80));
    Append(stream, LegacyRecord(kDataCnf, DataCnfBody(0, 0, data.data() + 3000, 2000)));
    Feed(stream, 64);
    ASSERT_EQ(db.CheckProgress(), 2);
    EXPECT_EQ(ReadFile(path), data);
}

TEST_F(TgtDbTest, UnacceptableHashConfirmsAreIgnoredUntilTheTimeOut) {
    Start();
    Bytes shortBody = HashCnfBody(0, 1, 10);
    shortBody.pop_back();
    Feed(LegacyRecord(kHashCnf, shortBody));
    Feed(LegacyRecord(kHashCnf, HashCnfBody(1, 1, 10)));
    Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 0, 10)));
    Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 1, 0x200001)));
    Feed(LegacyRecord(kDataCnf, DataCnfBody(0, 0, nullptr, 0))); // data before the data request
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateHashRequested);

    EXPECT_EQ(Expire(1000), 0);
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateHashRequested);
    EXPECT_EQ(Expire(1), 0); // first failure: restart
    EXPECT_TRUE(RetryLogged());
    EXPECT_EQ(db.GetRetryCount(), 1u);
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateStart);
    EXPECT_EQ(db.GetError(), "");
    EXPECT_EQ(db.CheckProgress(), 0);
    EXPECT_EQ(db.sent.size(), 2u);
    EXPECT_EQ(db.sent[1], db.sent[0]);

    EXPECT_EQ(Expire(1001), 1);
    EXPECT_EQ(db.GetError(), "Target database extraction timed out while waiting for hash data");
    EXPECT_EQ(db.CheckProgress(), 1); // stays failed
    EXPECT_EQ(db.sent.size(), 2u);
    EXPECT_FALSE(FileExists(path));
}

TEST_F(TgtDbTest, LargestAnnouncedSizeIsTakenAndFilled) {
    const Bytes data = PatternData(0x200000, 11);
    Start();
    Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 1, 0x200000)));
    ASSERT_EQ(db.GetState(), ZlTgtDb::StateHashReceived);
    ASSERT_EQ(db.CheckProgress(), 0);
    Bytes stream;
    for (size_t at = 0; at < data.size(); at += 20472) {
        size_t n = std::min<size_t>(20472, data.size() - at);
        Append(stream, DataRecord(data, at, n, at + n < data.size()));
    }
    Feed(stream, 20000);
    ASSERT_EQ(db.CheckProgress(), 2);
    EXPECT_EQ(ReadFile(path), data);
}

TEST_F(TgtDbTest, EmptyDatabaseIsWrittenAsAnEmptyFile) {
    StartData(0);
    Feed(LegacyRecord(kDataCnf, DataCnfBody(0, 0, nullptr, 0)));
    ASSERT_EQ(db.CheckProgress(), 2);
    EXPECT_TRUE(FileExists(path));
    EXPECT_TRUE(ReadFile(path).empty());
}

TEST_F(TgtDbTest, DataConfirmWithNonZeroStatusIsIgnored) {
    const Bytes data = PatternData(40);
    StartData(40);
    Feed(LegacyRecord(kDataCnf, DataCnfBody(3, 0, data.data(), 40)));
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateDataRequested);
    EXPECT_EQ(db.GetReceivedSize(), 0u);
    Feed(DataRecord(data, 0, 40, false));
    EXPECT_EQ(db.CheckProgress(), 2);
    EXPECT_EQ(ReadFile(path), data);
}

TEST_F(TgtDbTest, TooMuchDataFailsEvenOnTheLastRecordAndLeavesNoFile) {
    const Bytes data = PatternData(120);
    StartData(100);
    Feed(DataRecord(data, 0, 60, true));
    Feed(DataRecord(data, 60, 60, false));
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateFailed);
    EXPECT_EQ(
        db.GetError(),
        "Target database extraction failed, received more data than expected (100, got 120).");
    EXPECT_FALSE(FileExists(path));
    // The failure is taken by the next check: first a restart, then for good.
    EXPECT_EQ(db.CheckProgress(), 0);
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateStart);
    EXPECT_EQ(db.CheckProgress(), 0);
    Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 1, 100)));
    ASSERT_EQ(db.CheckProgress(), 0);
    Feed(DataRecord(data, 0, 101, false));
    EXPECT_EQ(db.CheckProgress(), 1);
    EXPECT_EQ(
        db.GetError(),
        "Target database extraction failed, received more data than expected (100, got 101).");
    EXPECT_FALSE(FileExists(path));
}

TEST_F(TgtDbTest, ShortDataFailsAsIncompleteAndLeavesNoFile) {
    const Bytes data = PatternData(100);
    StartData(100);
    Feed(DataRecord(data, 0, 50, true));
    Feed(DataRecord(data, 50, 10, false));
    // Records after the failure are ignored.
    Feed(DataRecord(data, 60, 40, false));
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateFailed);
    EXPECT_EQ(db.GetError(), "Target database incomplete, expected 100, got 60.");
    EXPECT_FALSE(FileExists(path));
}

TEST_F(TgtDbTest, DataTimeOutsCountFromTheRequestAndFromEachRecord) {
    const Bytes data = PatternData(100);
    StartData(100);
    EXPECT_EQ(Expire(500), 0);
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateDataRequested);
    Feed(DataRecord(data, 0, 30, true));
    EXPECT_EQ(Expire(1000), 0);
    Feed(DataRecord(data, 30, 30, true));
    EXPECT_EQ(Expire(1000), 0);
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateReceiving);
    EXPECT_EQ(Expire(1), 0); // restart
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateStart);
    EXPECT_TRUE(RetryLogged());

    // Second attempt stalls before the first data record.
    ASSERT_EQ(db.CheckProgress(), 0);
    Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 1, 100)));
    ASSERT_EQ(db.CheckProgress(), 0);
    EXPECT_EQ(Expire(501), 1);
    EXPECT_EQ(db.GetError(),
              "Target database extraction timed out while waiting for the start of file data");
    EXPECT_FALSE(FileExists(path));
}

TEST_F(TgtDbTest, StalledDataFailsForGoodOnTheSecondAttempt) {
    const Bytes data = PatternData(100);
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (attempt == 0) {
            StartData(100);
        } else {
            ASSERT_EQ(db.CheckProgress(), 0);
            Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 1, 100)));
            ASSERT_EQ(db.CheckProgress(), 0);
        }
        Feed(DataRecord(data, 0, 30, true));
        EXPECT_EQ(Expire(1001), attempt == 0 ? 0 : 1);
    }
    EXPECT_EQ(db.GetError(), "Target database extraction timed out while waiting for file data");
    EXPECT_EQ(db.sent.size(), 4u);
}

TEST_F(TgtDbTest, SecondAttemptCompletesAfterAFailedFirst) {
    const Bytes data = PatternData(3000, 5);
    StartData(3000);
    Feed(DataRecord(data, 0, 1000, true));
    // The attempt stalls in the middle of a record; the restart must forget that half record,
    // or it would swallow the next hash confirm as its body.
    Bytes stale = DataRecord(data, 1000, 1000, true);
    Feed(Bytes(stale.begin(), stale.begin() + 20));
    EXPECT_EQ(Expire(1001), 0);
    EXPECT_EQ(db.CheckProgress(), 0);
    Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 2, 3000)));
    ASSERT_EQ(db.CheckProgress(), 0);
    Feed(DataRecord(data, 0, 1500, true));
    Feed(DataRecord(data, 1500, 1500, false));
    EXPECT_EQ(db.CheckProgress(), 2);
    EXPECT_EQ(ReadFile(path), data);
    EXPECT_EQ(db.sent.size(), 4u);
}

TEST_F(TgtDbTest, NothingIsTakenBeforeTheFirstRequest) {
    ASSERT_TRUE(db.Configure(path.c_str(), kBase));
    Bytes stream = LegacyRecord(kHashCnf, HashCnfBody(0, 1, 4));
    Feed(stream);
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateStart);
    EXPECT_TRUE(db.sent.empty());
}

TEST_F(TgtDbTest, ConfigureRemovesAnOldFileAndRefusesOneThatCannotGo) {
    {
        std::ofstream old(path);
        old << "stale database";
    }
    Start();
    EXPECT_FALSE(FileExists(path));
    EXPECT_TRUE(db.IsActive());
    EXPECT_EQ(db.GetHashReqId(), 0x3Cu);
    EXPECT_EQ(db.GetHashCnfId(), 0x3Du);
    EXPECT_EQ(db.GetDataReqId(), 0x3Eu);
    EXPECT_EQ(db.GetDataCnfId(), 0x3Fu);

    // A non-empty directory under the name cannot be removed.
    TestTgtDb other;
    std::string blocked = dir + "/blocked.zx";
    ASSERT_EQ(mkdir(blocked.c_str(), 0755), 0);
    std::ofstream(blocked + "/inside") << "x";
    EXPECT_FALSE(other.Configure(blocked.c_str(), kBase));
    EXPECT_EQ(other.GetError(), "Failed to delete existing '" + blocked + "' file.");
    EXPECT_FALSE(other.IsActive());
}

TEST_F(TgtDbTest, UnwritableOutputFailsTheAttempt) {
    path = dir + "/missing/target.zx";
    StartData(4);
    Bytes data = {9, 8, 7, 6};
    Feed(DataRecord(data, 0, 4, false));
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateFailed);
    EXPECT_EQ(db.GetError(), "Failed to open '" + path + "' file for writing.");
}

TEST_F(TgtDbTest, FullDiskFailsTheWriteAndRemovesTheFile) {
    if (access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "no /dev/full";
    }
    const Bytes data = PatternData(5000);
    StartData(5000);
    // The name now leads to a device that takes no bytes; removing it removes only the link.
    ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);
    Feed(DataRecord(data, 0, 5000, false));
    EXPECT_EQ(db.GetState(), ZlTgtDb::StateFailed);
    EXPECT_EQ(db.GetError(), "Failed to write '5000' bytes to database file.");
    EXPECT_EQ(db.CheckProgress(), 0);
    EXPECT_FALSE(FileExists(path));
}

TEST_F(TgtDbTest, FailedStateIsFinalAfterTheRetry) {
    Start();
    EXPECT_EQ(Expire(1001), 0);
    EXPECT_EQ(db.CheckProgress(), 0);
    Feed(LegacyRecord(kHashCnf, HashCnfBody(0, 1, 8)));
    ASSERT_EQ(db.CheckProgress(), 0);
    Bytes data = PatternData(8);
    Feed(DataRecord(data, 0, 4, false));
    EXPECT_EQ(db.CheckProgress(), 1);
    EXPECT_EQ(db.GetError(), "Target database incomplete, expected 8, got 4.");
    // Late confirms change nothing.
    Feed(DataRecord(data, 0, 8, false));
    EXPECT_EQ(db.CheckProgress(), 1);
    EXPECT_FALSE(FileExists(path));
}

} // namespace
