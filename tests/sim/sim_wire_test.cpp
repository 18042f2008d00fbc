// The record encoder and parser against hand-written bytes.
#include "zsim-wire.h"

#include <gtest/gtest.h>

using namespace zsim;

const Bytes kOpenBody{0, 0, 0, 0, 50, 0, 0, 0, 60, 0, 0, 0}; // three words: 0, 50, 60

TEST(SimWire, EncodesEachLayoutByteForByte) {
    MessageIds ids = MessageIds::FromBase(0);
    EXPECT_EQ(EncodeRecord(Layout::A, 0, ids.open, 0, kOpenBody),
              (Bytes{0x7F, 0x80, 0x7F, 0x80, 0,    0, 0, 0, 0x06, 0, 0x35, 0x00, //
                     0,    0,    0,    0,    0x32, 0, 0, 0, 0x3C, 0, 0,    0}));

    // Odd body sizes are padded to whole words; the time takes the low 32 bits in layout A.
    Bytes a = EncodeRecord(Layout::A, 1, 0x123, 0x11223344, Bytes(13, 0xAA));
    ASSERT_EQ(a.size(), 28u);
    EXPECT_EQ(Bytes(a.begin() + 4, a.begin() + 12),
              (Bytes{0x44, 0x33, 0x22, 0x11, 7, 0, 0x23, 0x01 | 0x60 | 0x80}));
    EXPECT_EQ(Bytes(a.end() - 3, a.end()), Bytes(3, 0));

    Bytes b = EncodeRecord(Layout::B, 1, 0x2345, 0x12AABBCCDDull, Bytes(4, 1));
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 12),
              (Bytes{0x29, 0xCF, 0x30, 0x12, 0xDD, 0xCC, 0xBB, 0xAA, 4, 0, 0x45, 0x23}));
    EXPECT_EQ(EncodeRecord(Layout::B, 0, 1, 0, Bytes{}, true)[0], 0x5F);
    EXPECT_EQ(EncodeRecord(Layout::C, 3, 2, 0xABC, Bytes{}),
              (Bytes{0xD7, 0x3F, 0xC6, 0x28, 0, 0, 0, 0, 3, 0, 0xBC, 0xEA}));
}

TEST(SimWire, ParserCutsRecordsOutOfGarbageAcrossFeeds) {
    MessageIds ids = MessageIds::FromBase(0);
    Bytes stream{0x01, 0x7F, 0x80}; // garbage, including half a sync word
    Bytes close0 = EncodeRecord(Layout::A, 0, ids.close, 0, Bytes{});
    Bytes open1 = EncodeRecord(Layout::A, 1, ids.open, 0, kOpenBody);
    Bytes logB = EncodeRecord(Layout::B, 2, 0x1234, 0x0100000005ull, Bytes(5, 7));
    Bytes tooLong{0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x05, 0x14, 0, 0}; // 20480+8 body
    for (const Bytes* part : {&close0, &tooLong, &open1, &logB})
        stream.insert(stream.end(), part->begin(), part->end());
    WireParser parser;
    std::vector<WireRecord> records;
    for (uint8_t byte : stream)
        parser.Feed(&byte, 1, records);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].offset, 3u);
    EXPECT_EQ(records[0].bytes, close0);
    EXPECT_EQ(records[1].kor, 1u);
    EXPECT_EQ(records[1].BodySize(), 12u);
    EXPECT_EQ(records[2].kor, 2u);
    EXPECT_EQ(records[2].id, 0x1234u);
    EXPECT_EQ(records[2].time, 0x0100000005ull);
    EXPECT_EQ(parser.SkippedBytes(), 3u + 12u);
    EXPECT_EQ(parser.Pending(), 0u);
}
