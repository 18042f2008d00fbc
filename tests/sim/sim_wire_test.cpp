#include "zsim-generator.h"
#include "zsim-wire.h"

#include <gtest/gtest.h>

using namespace zsim;

namespace {

Bytes Hex(std::initializer_list<int> values) {
    Bytes out;
    for (int v : values) {
        out.push_back(static_cast<uint8_t>(v));
    }
    return out;
}

Bytes OpenBody() {
    Bytes body;
    PutU32(body, 0);
    PutU32(body, 50);
    PutU32(body, 60);
    return body;
}

} // namespace

TEST(SimWire, EncodesTheHostsControlMessagesByteForByte) {
    MessageIds ids = MessageIds::FromBase(0);
    EXPECT_EQ(EncodeRecord(Layout::A, 0, ids.open, 0, OpenBody()),
              Hex({0x7F, 0x80, 0x7F, 0x80, 0,    0, 0, 0, 0x06, 0, 0x35, 0x00,
                   0,    0,    0,    0,    0x32, 0, 0, 0, 0x3C, 0, 0,    0}));
    EXPECT_EQ(EncodeRecord(Layout::A, 1, ids.close, 0, Bytes{}),
              Hex({0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x03, 0, 0x36, 0x80}));
    EXPECT_EQ(MessageIds::FromBase(100).hostTime, 111u);
    EXPECT_EQ(ids.dataCnf, 0x3Fu);
}

TEST(SimWire, EncodesPaddingTimeAndLayouts) {
    Bytes body(13, 0xAA);
    Bytes a = EncodeRecord(Layout::A, 1, 0x123, 0x11223344, body);
    ASSERT_EQ(a.size(), 28u);
    EXPECT_EQ(Bytes(a.begin() + 4, a.begin() + 12),
              Hex({0x44, 0x33, 0x22, 0x11, 7, 0, 0x23, 0x01 | 0x60 | 0x80}));
    EXPECT_EQ(Bytes(a.end() - 3, a.end()), Hex({0, 0, 0}));

    Bytes b = EncodeRecord(Layout::B, 1, 0x2345, 0x12AABBCCDDull, Bytes(4, 1));
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 12),
              Hex({0x29, 0xCF, 0x30, 0x12, 0xDD, 0xCC, 0xBB, 0xAA, 4, 0, 0x45, 0x23}));
    EXPECT_EQ(EncodeRecord(Layout::B, 2, 1, 0, Bytes{})[2], 0xC4);
    EXPECT_EQ(EncodeRecord(Layout::B, 0, 1, 0, Bytes{}, true)[0], 0x5F);

    Bytes c = EncodeRecord(Layout::C, 3, 2, 0xABC, Bytes{});
    EXPECT_EQ(Bytes(c.begin(), c.end()),
              Hex({0xD7, 0x3F, 0xC6, 0x28, 0, 0, 0, 0, 3, 0, 0xBC, 0xEA}));
}

TEST(SimWire, ParserCutsRecordsOutOfGarbageAcrossFeeds) {
    MessageIds ids = MessageIds::FromBase(0);
    Bytes stream = Hex({0x01, 0x7F, 0x80}); // garbage, including half a sync word
    Bytes close0 = EncodeRecord(Layout::A, 0, ids.close, 0, Bytes{});
    Bytes open1 = EncodeRecord(Layout::A, 1, ids.open, 0, OpenBody());
    Bytes logB = EncodeRecord(Layout::B, 2, 0x1234, 0x0100000005ull, Bytes(5, 7));
    Bytes tooLong = Hex({0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x05, 0x14, 0, 0}); // 20480+8 body
    for (const Bytes* part : {&close0, &tooLong, &open1, &logB}) {
        stream.insert(stream.end(), part->begin(), part->end());
    }
    WireParser parser;
    std::vector<WireRecord> records;
    for (uint8_t byte : stream) {
        parser.Feed(&byte, 1, records);
    }
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].offset, 3u);
    EXPECT_EQ(records[0].bytes, close0);
    EXPECT_EQ(records[1].id, ids.open);
    EXPECT_EQ(records[1].kor, 1u);
    EXPECT_EQ(records[1].BodySize(), 12u);
    EXPECT_EQ(records[2].layout, Layout::B);
    EXPECT_EQ(records[2].kor, 2u);
    EXPECT_EQ(records[2].id, 0x1234u);
    EXPECT_EQ(records[2].time, 0x0100000005ull);
    EXPECT_EQ(records[2].BodySize(), 5u);
    EXPECT_EQ(parser.SkippedBytes(), 3u + 12u);
    EXPECT_EQ(parser.Pending(), 0u);
}

TEST(SimWire, HostTimeBodyIsHighWordFirst) {
    Bytes body = Hex({0x01, 0, 0, 0, 0x02, 0, 0, 0, 0, 0, 0, 0, 0x03, 0, 0, 0});
    uint64_t epoch = 0, midnight = 0;
    ASSERT_TRUE(DecodeHostTime(body.data(), body.size(), epoch, midnight));
    EXPECT_EQ(epoch, 0x0000000100000002ull);
    EXPECT_EQ(midnight, 3u);
    EXPECT_FALSE(DecodeHostTime(body.data(), 15, epoch, midnight));
}

TEST(SimGenerator, SameSeedSameStreamAndGarbageNeverHidesARecord) {
    GeneratorOptions options;
    options.seed = 7;
    options.garbageEvery = 3;
    MessageIds ids = MessageIds::FromBase(0);
    Generator first(options, ids), second(options, ids);
    Bytes stream;
    size_t records = 0;
    bool sawB = false, sawKor2 = false;
    for (int i = 0; i < 500; ++i) {
        Chunk a, b;
        ASSERT_TRUE(first.Next(a));
        ASSERT_TRUE(second.Next(b));
        ASSERT_EQ(a.bytes, b.bytes);
        records += a.kind == Chunk::Record;
        sawB |= a.kind == Chunk::Record && a.layout == Layout::B;
        sawKor2 |= a.kind == Chunk::Record && a.kor == 2;
        stream.insert(stream.end(), a.bytes.begin(), a.bytes.end());
    }
    EXPECT_TRUE(sawB && sawKor2);
    WireParser parser;
    std::vector<WireRecord> parsed;
    parser.Feed(stream.data(), stream.size(), parsed);
    EXPECT_EQ(parsed.size(), records);
    EXPECT_GT(parser.SkippedBytes(), 0u);
    for (const auto& record : parsed) {
        EXPECT_TRUE(record.id < ids.open || record.id > ids.hostTime) << record.id;
    }
}
