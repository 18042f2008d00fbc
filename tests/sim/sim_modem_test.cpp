// The whole simulated modem behind its port. Streaming, rates and database faults are exercised
// end to end by the tool's own tests; here what only the simulator's users rely on.
#include "zsim-modem.h"

#include <gtest/gtest.h>

#include "sim_host.h"
#include "zavra_test_files.h"

using namespace zsim;

namespace {

Bytes Request(unsigned id) {
    Bytes body;
    PutU32(body, 0);
    return EncodeRecord(Layout::A, 1, id, 0, body);
}

// Reads records from the host end until `count` arrived.
std::vector<WireRecord> ReadRecords(const SimHost& host, size_t count) {
    WireParser parser;
    std::vector<WireRecord> records;
    while (records.size() < count) {
        Bytes bytes = host.Read(1);
        if (bytes.empty())
            break;
        parser.Feed(bytes.data(), bytes.size(), records);
    }
    return records;
}

struct SimModemTest : ::testing::Test {
    zavra_test::TempDir dir;
    ModemOptions options;
    Modem modem;
    void SetUp() override { options.dir = dir.Path(); }
};

} // namespace

TEST_F(SimModemTest, DatabaseServerAnswersHashAndDataRequests) {
    Bytes file(5000);
    for (size_t i = 0; i < file.size(); ++i)
        file[i] = static_cast<uint8_t>(i ^ (i >> 8));
    options.db.zxFile = dir.File("target.zx");
    ASSERT_TRUE(zavra_test::WriteFile(options.db.zxFile, std::string(file.begin(), file.end())));
    options.db.chunkSize = 2000;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    SimHost host(modem.PortPath());

    host.Send(Request(0x3C));
    std::vector<WireRecord> hash = ReadRecords(host, 1);
    ASSERT_EQ(hash.size(), 1u);
    ASSERT_EQ(hash[0].id, 0x3Du);
    ASSERT_EQ(hash[0].BodySize(), 12u);
    EXPECT_EQ(GetU32(hash[0].Body() + 8), 5000u); // the file's size after the hash

    host.Send(Request(0x3E));
    std::vector<WireRecord> data = ReadRecords(host, 3);
    ASSERT_EQ(data.size(), 3u);
    Bytes collected;
    for (size_t i = 0; i < data.size(); ++i) {
        ASSERT_EQ(data[i].id, 0x3Fu);
        EXPECT_EQ(GetU32(data[i].Body() + 4), i == 2 ? 0u : 1u); // more-to-come flag
        collected.insert(collected.end(), data[i].Body() + 8, data[i].Body() + data[i].BodySize());
    }
    EXPECT_EQ(collected, file);
}

TEST_F(SimModemTest, FailsAfterNBytesDrainsAndComesBackAtTheSamePath) {
    options.gen.flowWithoutOpen = true;
    options.fail.afterBytes = 30000;
    options.fail.downMs = 100;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    {
        SimHost host(modem.PortPath());
        bool hungUp = false;
        Bytes got = host.Read(SIZE_MAX, 2000, &hungUp);
        EXPECT_TRUE(hungUp);
        EXPECT_EQ(got.size(), 30000u); // everything written before the hang-up was read
    }
    ASSERT_TRUE(modem.WaitForConnection(1, 3000));
    {
        SimHost again(modem.PortPath());
        ASSERT_GE(again.fd, 0);
        EXPECT_EQ(again.Read(10).size(), 10u); // the generator goes on at the new port
    }
    modem.Stop();
    ModemCounters counters = modem.Counters();
    EXPECT_EQ(counters.hangUps, 2u);
    EXPECT_EQ(counters.delivered + counters.discarded, counters.sent);
}
