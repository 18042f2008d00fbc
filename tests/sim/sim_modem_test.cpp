#include "zsim-modem.h"

#include <gtest/gtest.h>

#include "sim_host.h"

#include <fstream>
#include <iterator>
#include <sys/ioctl.h>

using namespace zsim;

namespace {

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes Request(unsigned id) {
    Bytes body;
    PutU32(body, 0);
    return EncodeRecord(Layout::A, 1, id, 0, body);
}

Bytes OpenChannel(unsigned kor) {
    Bytes body;
    PutU32(body, 0);
    PutU32(body, 50);
    PutU32(body, 60);
    return EncodeRecord(Layout::A, kor, 0x35, 0, body);
}

// Reads records from the host end until `count` arrived.
std::vector<WireRecord> ReadRecords(const SimHost& host, size_t count) {
    WireParser parser;
    std::vector<WireRecord> records;
    while (records.size() < count) {
        Bytes bytes = host.Read(1);
        if (bytes.empty()) {
            break;
        }
        parser.Feed(bytes.data(), bytes.size(), records);
    }
    return records;
}

struct SimModemTest : ::testing::Test {
    SimTempDir dir;
    ModemOptions options;
    Modem modem;
    void SetUp() override {
        options.dir = dir.path;
        options.teeFile = dir.path + "/sent.bin";
    }
};

} // namespace

TEST_F(SimModemTest, StreamsOnlyWhileTheChannelIsOpenAndStopsAfterExactlyNBytes) {
    options.gen.stopAfterBytes = 100000;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    SimHost host(modem.PortPath());
    EXPECT_TRUE(host.Read(1, 200).empty()); // silent before the channel opens

    host.Send(EncodeRecord(Layout::A, 0, 0x36, 0, Bytes{}));
    host.Send(OpenChannel(0));
    ASSERT_TRUE(modem.WaitForChannelOpen(true, 2000));
    Bytes got = host.Read(200000, 500);
    ASSERT_TRUE(modem.WaitForGeneratorDone(2000));
    modem.Stop();

    EXPECT_EQ(got.size(), 100000u);
    EXPECT_EQ(ReadFile(options.teeFile), got);
    ModemCounters counters = modem.Counters();
    EXPECT_EQ(counters.streamBytes, 100000u);
    EXPECT_EQ(counters.delivered, 100000u);
    std::vector<HostRecord> records = modem.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].id, 0x35u);
    EXPECT_EQ(records[1].offset, 12u);
    EXPECT_EQ(modem.RawReceived().size(), 36u);
}

TEST_F(SimModemTest, ClosingTheChannelEndsTheFlowOnARecordBoundary) {
    options.gen.bytesPerSecond = 200000;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    SimHost host(modem.PortPath());
    host.Send(OpenChannel(1));
    ASSERT_TRUE(modem.WaitForSent(5000, 2000));
    host.Send(EncodeRecord(Layout::A, 1, 0x36, 0, Bytes{}));
    ASSERT_TRUE(modem.WaitForChannelOpen(false, 2000));
    Bytes got = host.Read(SIZE_MAX, 300);
    uint64_t sent = modem.Counters().sent;
    EXPECT_TRUE(host.Read(1, 200).empty());
    modem.Stop();

    EXPECT_EQ(modem.Counters().sent, sent);
    WireParser parser;
    std::vector<WireRecord> records;
    Bytes all = ReadFile(options.teeFile);
    parser.Feed(all.data(), all.size(), records);
    EXPECT_EQ(parser.Pending(), 0u); // no half record at the end
    EXPECT_EQ(records.size(), modem.Counters().records);
}

TEST_F(SimModemTest, DatabaseServerAnswersHashAndDataRequests) {
    Bytes file(5000);
    for (size_t i = 0; i < file.size(); ++i) {
        file[i] = static_cast<uint8_t>(i ^ (i >> 8));
    }
    options.db.zxFile = dir.path + "/target.zx";
    std::ofstream(options.db.zxFile, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()),
               static_cast<std::streamsize>(file.size()));
    options.db.chunkSize = 2000;
    options.db.layout = Layout::B;
    options.db.interleaveRecords = 1;
    options.db.fault = DbFault::SecondAttemptOnly;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    SimHost host(modem.PortPath());

    host.Send(Request(0x3C));
    ASSERT_TRUE(modem.WaitForRecordId(0x3C, 2000));
    EXPECT_TRUE(host.Read(1, 200).empty()); // the first attempt goes unanswered
    host.Send(Request(0x3C));
    std::vector<WireRecord> hash = ReadRecords(host, 2);
    ASSERT_EQ(hash.size(), 2u);
    EXPECT_NE(hash[0].id, 0x3Du); // an unrelated record first
    ASSERT_EQ(hash[1].id, 0x3Du);
    EXPECT_EQ(hash[1].layout, Layout::B);
    EXPECT_EQ(hash[1].kor, 1u);
    ASSERT_EQ(hash[1].BodySize(), 12u);
    EXPECT_EQ(GetU32(hash[1].Body()), 0u);
    EXPECT_NE(GetU32(hash[1].Body() + 4), 0u);
    EXPECT_EQ(GetU32(hash[1].Body() + 8), 5000u);

    host.Send(Request(0x3E));
    std::vector<WireRecord> data = ReadRecords(host, 6);
    ASSERT_EQ(data.size(), 6u);
    Bytes collected;
    for (size_t i = 1; i < data.size(); i += 2) {
        ASSERT_EQ(data[i].id, 0x3Fu);
        EXPECT_EQ(GetU32(data[i].Body() + 4), i == 5 ? 0u : 1u); // more-to-come flag
        collected.insert(collected.end(), data[i].Body() + 8, data[i].Body() + data[i].BodySize());
    }
    EXPECT_EQ(collected, file);
    EXPECT_EQ(modem.Counters().hashRequests, 2u);
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

// A host that opens the port the way the tool's serial code does (configure, exclusive, close and
// open again, 200 ms read time-out) and reads in 20000-byte blocks: it gets exactly the bytes
// that the tee file holds, up to the point where it stopped reading.
TEST_F(SimModemTest, ToolLikeHostCapturesExactlyAPrefixOfTheTee) {
    options.gen.garbageEvery = 50;
    options.gen.truncateEvery = 200;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    auto openLikeTheTool = [&] {
        int fd = open(modem.PortPath().c_str(), O_RDWR | O_NOCTTY);
        termios tio{};
        tcgetattr(fd, &tio);
        cfmakeraw(&tio);
        tio.c_cc[VMIN] = 0;
        tio.c_cc[VTIME] = 2;
        tcflush(fd, TCIFLUSH);
        tcsetattr(fd, TCSANOW, &tio);
        ioctl(fd, TIOCEXCL);
        return fd;
    };
    int first = openLikeTheTool();
    // A pty keeps the exclusive flag until its master closes: without clearing it before the
    // close, the re-open below fails for anyone but root.
    ioctl(first, TIOCNXCL);
    close(first);
    SimHost host(modem.PortPath()); // only for its Send and Read helpers
    close(host.fd);
    host.fd = openLikeTheTool();
    ASSERT_GE(host.fd, 0);
    host.Send(OpenChannel(0));
    Bytes captured;
    uint8_t block[20000];
    while (captured.size() < 3000000) {
        ssize_t got = read(host.fd, block, sizeof block);
        ASSERT_GT(got, 0);
        captured.insert(captured.end(), block, block + got);
    }
    host.Send(EncodeRecord(Layout::A, 0, 0x36, 0, Bytes{}));
    ASSERT_TRUE(modem.WaitForChannelOpen(false, 2000));
    close(host.fd); // stops reading: what is still queued is never read
    host.fd = -1;
    modem.Stop();

    ModemCounters counters = modem.Counters();
    Bytes tee = ReadFile(options.teeFile);
    ASSERT_EQ(tee.size(), counters.sent);
    EXPECT_EQ(counters.delivered, captured.size());
    EXPECT_EQ(Bytes(tee.begin(), tee.begin() + static_cast<long>(captured.size())), captured);
    EXPECT_GT(counters.garbageBytes, 0u);
    EXPECT_GT(counters.truncatedRecords, 0u);
}

TEST_F(SimModemTest, DatabaseFaultsShapeTheConfirms) {
    options.db.zxFile = dir.path + "/target.zx";
    std::ofstream(options.db.zxFile, std::ios::binary) << std::string(100, 'x');
    options.db.chunkSize = 64;
    options.db.faultBytes = 3;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    SimHost host(modem.PortPath());
    struct Case {
        DbFault fault;
        uint32_t hashStatus, announced, dataStatus;
        size_t dataBytes;
    };
    for (Case c :
         {Case{DbFault::HashStatus, 1, 100, 0, 100}, Case{DbFault::Oversize, 0, 2097153, 0, 100},
          Case{DbFault::ShortData, 0, 100, 0, 97}, Case{DbFault::TooMuchData, 0, 100, 0, 103},
          Case{DbFault::DataStatus, 0, 100, 1, 100}}) {
        SCOPED_TRACE(DbFaultName(c.fault));
        modem.SetDbFault(c.fault);
        host.Send(Request(0x3C));
        host.Send(Request(0x3E));
        std::vector<WireRecord> records = ReadRecords(host, 3);
        ASSERT_EQ(records.size(), 3u);
        EXPECT_EQ(GetU32(records[0].Body()), c.hashStatus);
        EXPECT_EQ(GetU32(records[0].Body() + 8), c.announced);
        EXPECT_EQ(GetU32(records[1].Body()), c.dataStatus);
        EXPECT_EQ(GetU32(records[2].Body() + 4), 0u); // the last one
        EXPECT_EQ(records[1].BodySize() + records[2].BodySize() - 16, c.dataBytes);
    }
    modem.SetDbFault(DbFault::SilenceData);
    host.Send(Request(0x3C));
    host.Send(Request(0x3E));
    EXPECT_EQ(ReadRecords(host, 2).size(), 1u);
}

TEST_F(SimModemTest, PlaysAFileOnceAndKeepsToTheRate) {
    Bytes file(60000);
    for (size_t i = 0; i < file.size(); ++i) {
        file[i] = static_cast<uint8_t>(i * 13);
    }
    options.gen.playFile = dir.path + "/play.bin";
    std::ofstream(options.gen.playFile, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()),
               static_cast<std::streamsize>(file.size()));
    options.gen.bytesPerSecond = 100000;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    SimHost host(modem.PortPath());
    host.Send(OpenChannel(0));
    auto start = std::chrono::steady_clock::now();
    Bytes got = host.Read(file.size(), 2000);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(modem.WaitForGeneratorDone(1000));
    modem.Stop();
    EXPECT_EQ(got, file);
    EXPECT_EQ(ReadFile(options.teeFile), file);
    EXPECT_GT(seconds, 0.45); // 60000 bytes at 100000 per second, less the first burst
}

TEST_F(SimModemTest, FailsAfterAPauseAndStaysAwayWhenTold) {
    options.fail.afterMs = 100;
    options.fail.comeBack = false;
    options.transcriptFile = dir.path + "/host.jsonl";
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    {
        SimHost host(modem.PortPath());
        host.Send(EncodeRecord(Layout::A, 1, 0x36, 0, Bytes{}));
        ASSERT_TRUE(modem.WaitForRecords(1, 2000));
    }
    ASSERT_TRUE(modem.WaitForPortUp(false, 2000));
    EXPECT_FALSE(modem.WaitForPortUp(true, 300));
    EXPECT_LT(open(modem.PortPath().c_str(), O_RDWR | O_NOCTTY), 0);
    modem.Stop();
    std::ifstream in(options.transcriptFile);
    std::string line;
    ASSERT_TRUE(std::getline(in, line));
    EXPECT_NE(line.find("\"conn\":0,\"offset\":0,\"id\":54,\"kor\":1,\"layout\":\"A\",\"time\":0,"
                        "\"size\":12,\"hex\":\"7f807f800000000003003680\"}"),
              std::string::npos)
        << line;
}
