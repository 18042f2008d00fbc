// The extraction state machine: confirms from an independent encoder, a controlled clock.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "tgtdb_wire.h"
#include "zavra_log_tgt_db.h"
#include "zavra_test_files.h"

using namespace tgtdb_test;

namespace {

const uint32_t kBase = 0x35;

class TestTgtDb : public ZlTgtDb {
public:
    void Send(unsigned int size, unsigned char* data) override {
        sent.emplace_back(data, data + size);
    }
    unsigned Now() const override { return now; }
    std::vector<Bytes> sent;
    unsigned now = 5000;
};

class TgtDbTest : public ::testing::Test {
public:
    void Feed(const Bytes& stream, size_t chunk = SIZE_MAX) {
        for (size_t at = 0; at < stream.size(); at += chunk) {
            Bytes piece(stream.begin() + at, stream.begin() + std::min(stream.size(), at + chunk));
            db.OnNewData(piece.data(), unsigned(piece.size()));
        }
    }
    static Bytes Hash(uint32_t status, uint32_t hash, uint32_t size, uint32_t sync24 = 0) {
        return Record(kBase + 8, Words({status, hash, size}), sync24, 0x4200000000ull);
    }
    static Bytes Data(const Bytes& d, size_t from, size_t n, bool more, uint32_t sync24 = 0) {
        return Record(kBase + 10, Words({0, more ? 1u : 0u}, d.data() + from, n), sync24);
    }
    int Tick(unsigned ms) {
        db.now += ms;
        return db.CheckProgress();
    }
    bool OutputExists() const { // a link to /dev/full counts too
        struct stat st;
        return lstat(path.c_str(), &st) == 0;
    }
    std::string Output() const { return zavra_test::ReadFile(path); }

    TestTgtDb db;
    zavra_test::TempDir dir;
    std::string path = dir.File("target.zx");
};

// Confirms in both layouts among unrelated records and garbage, with data records of every
// padding, cut into chunks so that sync words, headers and bodies straddle the cuts.
TEST_F(TgtDbTest, DatabaseArrivesByteForByteInAnyChunking) {
    const Bytes data = PatternData(30011, 7);
    const size_t sizes[] = {1, 2, 3, 4, 4000, 1019, 8190, 20472, 5};
    const Bytes garbage = {0x7F, 0x80, 0x7F, 0x11, 0x29, 0xCF, 0x30, 0x01, 0xFF, 0x00, 0x80};
    Bytes hashPart = garbage;
    for (auto& part : {Record(0x200, Bytes(33, 0xAB), 0x30CF29), Hash(0, 5, 30011, 0x78DAE4)})
        hashPart.insert(hashPart.end(), part.begin(), part.end());
    Bytes dataPart;
    for (size_t at = 0, i = 0; at < data.size(); ++i) {
        size_t n = std::min(sizes[i % 9], data.size() - at);
        for (auto& part : {Record(kBase + 10, Words({0, 0}, data.data(), 9), 0xFB3E98), garbage,
                           Record(kBase + 11, Words({0, 0}, data.data(), 77)),
                           Data(data, at, n, at + n < data.size(), i % 2 ? 0x30CF29 : 0)}) {
            dataPart.insert(dataPart.end(), part.begin(), part.end());
        }
        at += n;
    }
    for (size_t chunk : {size_t(1), size_t(7), size_t(4096), SIZE_MAX}) {
        SCOPED_TRACE(chunk);
        ASSERT_TRUE(db.Configure(path.c_str(), kBase));
        ASSERT_EQ(db.CheckProgress(), 0);
        Feed(hashPart, chunk);
        ASSERT_EQ(db.CheckProgress(), 0);
        ASSERT_EQ(db.GetState(), ZlTgtDb::StateDataRequested);
        Feed(dataPart, chunk);
        ASSERT_EQ(db.CheckProgress(), 2) << db.GetError();
        EXPECT_EQ(Output(), Text(data));
    }
}

// Data phase faults the modem cannot stage (its own run end to end): the first restarts the
// exchange, the second is final with the exact text; neither leaves a file. A file that cannot be
// created fails at once, before anything is sent.
TEST_F(TgtDbTest, DataFaultsFailTheAttemptAndLeaveNoFile) {
    const Bytes d = PatternData(100);
    const struct {
        bool fullDisk; // the output is a link to /dev/full; removing it removes only the link
        std::string error;
        std::function<int(TgtDbTest&)> act;
    } faults[] = {
        {false, "Target database extraction timed out while waiting for file data",
         [&](TgtDbTest& t) {
             t.Feed(Data(d, 0, 30, true));
             EXPECT_EQ(t.Tick(1000), 0);
             t.Feed(Data(d, 30, 30, true));
             EXPECT_EQ(t.Tick(1000), 0);
             return t.Tick(1);
         }},
        {true, "Failed to write '100' bytes to database file.",
         [&](TgtDbTest& t) {
             t.Feed(Data(d, 0, 100, false));
             return t.db.CheckProgress();
         }},
    };
    for (auto& fault : faults) {
        SCOPED_TRACE(fault.error);
        path = dir.File(fault.fullDisk ? "full.zx" : "x.zx");
        if (fault.fullDisk) {
            ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);
        }
        ASSERT_TRUE(db.Configure(path.c_str(), kBase)) << db.GetError();
        for (int attempt = 0; attempt < 2; ++attempt) {
            ASSERT_EQ(db.CheckProgress(), 0);
            Feed(Hash(0, 1, 100));
            ASSERT_EQ(db.CheckProgress(), 0);
            ASSERT_EQ(db.GetState(), ZlTgtDb::StateDataRequested);
            EXPECT_EQ(fault.act(*this), attempt);
            EXPECT_TRUE(fault.fullDisk || Output().empty()) << "held for the retry, and empty";
        }
        EXPECT_FALSE(OutputExists());
        EXPECT_EQ(db.GetError(), fault.error);
    }
    const std::string gone = dir.File("gone/x.zx");
    db.sent.clear();
    EXPECT_FALSE(db.Configure(gone.c_str(), kBase));
    EXPECT_EQ(db.GetError(), "Failed to open '" + gone + "' file for writing.");
    EXPECT_TRUE(db.sent.empty());
}

} // namespace
