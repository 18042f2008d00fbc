// The record object and the legacy encoder, checked against wire bytes written out by hand.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "quzol-record.h"
#include "quzol-write.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes HeaderOf(const QoZolRecordTag* r) {
    return Bytes(r->GetData(), r->GetData() + 12);
}

struct RecordPtr {
    QoZolRecordTag* p;
    explicit RecordPtr(QoZolRecordTag* r) : p(r) {}
    ~RecordPtr() { QoZolRecordTag::Destroy(&p); }
    QoZolRecordTag* operator->() const { return p; }
};

TEST(QoZolEncode, EmptyBodyWithKor1IsTwelveBytes) {
    unsigned char buffer[12];
    unsigned total = 0;
    unsigned char* body = QoZolWrite::EncodeZol(buffer, 12, 0, 1, 0x36, 0, total);
    EXPECT_EQ(body, buffer + 12);
    EXPECT_EQ(total, 12u);
    const Bytes expected = {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x03, 0x00, 0x36, 0x80};
    EXPECT_EQ(Bytes(buffer, buffer + 12), expected);
}

TEST(QoZolEncode, ThirteenByteBodyGetsThreePaddingBytesAndTimeIsLittleEndian) {
    unsigned char buffer[64];
    unsigned total = 0;
    ASSERT_NE(QoZolWrite::EncodeZol(buffer, sizeof(buffer), 13, 0, 0x123, 0x11223344, total),
              nullptr);
    EXPECT_EQ(total, 28u);
    // Length 7 words; packed word 0x6123: id 0x123, padding 3 in bits 13..14.
    const Bytes expected = {0x7F, 0x80, 0x7F, 0x80, 0x44, 0x33, 0x22, 0x11, 0x07, 0x00, 0x23, 0x61};
    EXPECT_EQ(Bytes(buffer, buffer + 12), expected);
}

TEST(QoZolEncode, TooSmallOrNullBufferFailsButReportsTheTotal) {
    unsigned char buffer[27];
    unsigned total = 0;
    EXPECT_EQ(QoZolWrite::EncodeZol(buffer, sizeof(buffer), 13, 0, 1, 0, total), nullptr);
    EXPECT_EQ(total, 28u);
    total = 0;
    EXPECT_EQ(QoZolWrite::EncodeZol(nullptr, 100, 4, 0, 1, 0, total), nullptr);
    EXPECT_EQ(total, 16u);
}

TEST(QoZolEncode, LargeIdIsNotMaskedAndSpillsIntoPaddingAndKorBits) {
    unsigned char buffer[12];
    unsigned total = 0;
    ASSERT_NE(QoZolWrite::EncodeZol(buffer, 12, 0, 0, 0xA035, 0, total), nullptr);
    EXPECT_EQ(buffer[10], 0x35);
    EXPECT_EQ(buffer[11], 0xA0);
}

TEST(QoZolRecord, CreateGivesAnEmptyRecordAndKnowsLayoutsByTheirSync) {
    RecordPtr a(QoZolRecordTag::Create(10, 0x807F807F));
    EXPECT_EQ(a->GetCapacity(), 12u);
    EXPECT_EQ(a->GetTotalSize(), 12u);
    EXPECT_EQ(a->GetFormat(), 1u);
    EXPECT_EQ(HeaderOf(a.p), (Bytes{0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 3, 0, 0, 0}));
    RecordPtr b(QoZolRecordTag::Create(0, 0xC426B9));
    EXPECT_EQ(b->GetFormat(), 2u);
    RecordPtr unknown(QoZolRecordTag::Create(0, 0x12345678));
    EXPECT_EQ(unknown->GetFormat(), 0u);
}

TEST(QoZolRecord, SetBodySizeHonoursCapacityAndWritesPaddingPerLayout) {
    RecordPtr a(QoZolRecordTag::Create(16, 0x807F807F));
    a->SetId(0x1FFF);
    a->SetKor(1);
    EXPECT_FALSE(a->SetBodySize(17));
    EXPECT_EQ(a->GetTotalSize(), 12u);
    EXPECT_TRUE(a->SetBodySize(16));
    EXPECT_TRUE(a->SetBodySize(5));
    EXPECT_EQ(a->GetPadding(), 3u);
    EXPECT_EQ(a->GetTotalSize(), 20u);
    // Length 5 words; packed 0xFFFF: id 0x1FFF, padding 3, KOR 1.
    EXPECT_EQ(HeaderOf(a.p), (Bytes{0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 5, 0, 0xFF, 0xFF}));

    RecordPtr b(QoZolRecordTag::Create(8, 0x30CF29));
    b->SetId(0x3FFF);
    ASSERT_TRUE(b->SetBodySize(7));
    EXPECT_EQ(HeaderOf(b.p), (Bytes{0x29, 0xCF, 0x30, 0, 0, 0, 0, 0, 5, 0, 0xFF, 0x7F}));
}

TEST(QoZolRecord, SetKorOnLegacyKeepsOnlyTheLowestBit) {
    RecordPtr a(QoZolRecordTag::Create(0, 0x807F807F));
    a->SetKor(1);
    EXPECT_EQ(a->GetData()[11], 0x80);
    a->SetKor(2);
    EXPECT_EQ(a->GetData()[11], 0x00);
    EXPECT_EQ(a->GetKor(), 0u);
}

TEST(QoZolRecord, SetKorOnPerKorLayoutSwitchesSyncAndKeepsTimeHighByte) {
    RecordPtr b(QoZolRecordTag::Create(0, 0xFB3E98));
    b->SetTime(0x12AABBCCDDull);
    EXPECT_EQ(HeaderOf(b.p), (Bytes{0x98, 0x3E, 0xFB, 0x12, 0xDD, 0xCC, 0xBB, 0xAA, 3, 0, 0, 0}));
    b->SetKor(1);
    EXPECT_EQ(HeaderOf(b.p)[0], 0x29);
    EXPECT_EQ(HeaderOf(b.p)[3], 0x12);
    b->SetKor(2);
    EXPECT_EQ(HeaderOf(b.p), (Bytes{0xB9, 0x26, 0xC4, 0x12, 0xDD, 0xCC, 0xBB, 0xAA, 3, 0, 0, 0}));
    b->SetKor(7); // invalid: nothing changes
    EXPECT_EQ(b->GetKor(), 2u);
    EXPECT_EQ(HeaderOf(b.p)[0], 0xB9);

    // An accepted alternative KOR 1 word is kept when KOR 1 is asked for again.
    RecordPtr alt(QoZolRecordTag::Create(0, 0x78DAE4));
    alt->SetKor(1);
    EXPECT_EQ(HeaderOf(alt.p)[0], 0xE4);
}

QoZolHeaderBytesTag FromBytes(const Bytes& bytes) {
    QoZolHeaderBytesTag header;
    memcpy(&header, bytes.data(), 12);
    return header;
}

TEST(QoZolRecord, SetHeaderDecodesEachLayout) {
    RecordPtr r(QoZolRecordTag::Create(64, 0x807F807F));
    // Legacy: id 0x0123, padding 1, KOR 1, time 0x01020304, 7 words -> body 15.
    ASSERT_TRUE(r->SetHeader(FromBytes({0x7F, 0x80, 0x7F, 0x80, 4, 3, 2, 1, 7, 0, 0x23, 0xA1})));
    EXPECT_EQ(r->GetFormat(), 1u);
    EXPECT_EQ(r->GetId(), 0x123u);
    EXPECT_EQ(r->GetKor(), 1u);
    EXPECT_EQ(r->GetPadding(), 1u);
    EXPECT_EQ(r->GetBodySize(), 15u);
    EXPECT_EQ(r->GetTime(), 0x01020304u);

    // Per-KOR sync 29 CF 30 with byte 3 = 0x12: KOR 1, time bits 32..39 = 0x12.
    ASSERT_TRUE(r->SetHeader(FromBytes({0x29, 0xCF, 0x30, 0x12, 1, 0, 0, 0, 4, 0, 0x34, 0x12})));
    EXPECT_EQ(r->GetFormat(), 2u);
    EXPECT_EQ(r->GetSyncWord(), 0x30CF29u);
    EXPECT_EQ(r->GetKor(), 1u);
    EXPECT_EQ(r->GetTime(), 0x1200000001ull);
    EXPECT_EQ(r->GetId(), 0x1234u);
    EXPECT_EQ(r->GetPadding(), 0u);
    EXPECT_EQ(r->GetBodySize(), 4u);

    // Layout C: time 0xABC, id 2, KOR 3, never padding.
    ASSERT_TRUE(r->SetHeader(FromBytes({0xD7, 0x3F, 0xC6, 0x28, 9, 9, 9, 9, 5, 0, 0xBC, 0xEA})));
    EXPECT_EQ(r->GetFormat(), 3u);
    EXPECT_EQ(r->GetTime(), 0xABCu);
    EXPECT_EQ(r->GetId(), 2u);
    EXPECT_EQ(r->GetKor(), 3u);
    EXPECT_EQ(r->GetBodySize(), 8u);

    // An unknown 24-bit value still decodes as the per-KOR layout and keeps the old KOR.
    ASSERT_TRUE(r->SetHeader(FromBytes({1, 2, 3, 0, 0, 0, 0, 0, 3, 0, 0, 0})));
    EXPECT_EQ(r->GetFormat(), 2u);
    EXPECT_EQ(r->GetKor(), 3u);
}

TEST(QoZolRecord, SetHeaderRejectsOversizeAndTooShortLengths) {
    RecordPtr r(QoZolRecordTag::Create(20480 + 64, 0x807F807F));
    // 5124 words with padding 3: body 20481, fits the capacity but exceeds the body limit.
    EXPECT_FALSE(
        r->SetHeader(FromBytes({0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x04, 0x14, 0, 0x60})));
    EXPECT_EQ(r->GetBodySize(), 20481u);
    EXPECT_EQ(r->GetTotalSize(), 20496u);
    // 5123 words, no padding: body exactly 20480.
    EXPECT_TRUE(r->SetHeader(FromBytes({0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x03, 0x14, 0, 0})));
    EXPECT_EQ(r->GetBodySize(), 20480u);
    // Length 3 words with padding 2 would wrap the body size.
    EXPECT_FALSE(r->SetHeader(FromBytes({0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 3, 0, 0, 0x40})));
    EXPECT_FALSE(r->SetHeader(FromBytes({0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0, 0, 0, 0})));

    RecordPtr small(QoZolRecordTag::Create(8, 0x807F807F));
    EXPECT_TRUE(small->SetHeader(FromBytes({0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 5, 0, 0, 0})));
    EXPECT_FALSE(small->SetHeader(FromBytes({0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 6, 0, 0, 0})));
}

TEST(QoZolRecord, OptimalCopyIsExactlyAsLargeAsNeededAndEqual) {
    RecordPtr r(QoZolRecordTag::Create(1000, 0xF2E05F));
    ASSERT_TRUE(r->SetBodySize(6));
    memcpy(r->GetBody(), "abcdef", 6);
    r->SetId(77);
    r->SetTime(0x55aabbccddull);
    RecordPtr copy(r->CreateOptimalCopy());
    ASSERT_NE(copy.p, nullptr);
    EXPECT_EQ(copy->GetCapacity(), 8u);
    EXPECT_EQ(Bytes(copy->GetData(), copy->GetData() + 18), Bytes(r->GetData(), r->GetData() + 18));
    EXPECT_EQ(copy->GetId(), 77u);
    EXPECT_EQ(copy->GetTime(), 0x55aabbccddull);
    EXPECT_EQ(copy->GetKor(), 0u);
    QoZolRecordTag::Destroy(&copy.p);
    EXPECT_EQ(copy.p, nullptr);
}

TEST(QoZolWriter, WritesWholeRecordsAndCountsOnlySuccessfulWrites) {
    char dir[] = "/tmp/quzol-write-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/out.zol";
    RecordPtr r(QoZolRecordTag::Create(8, 0x807F807F));
    ASSERT_TRUE(r->SetBodySize(5));
    memcpy(r->GetBody(), "hello", 5);
    QoZolWrite writer;
    EXPECT_FALSE(writer.WriteRecord(r.p));
    ASSERT_TRUE(writer.OpenWrite(path.c_str()));
    EXPECT_FALSE(writer.WriteRecord(nullptr));
    EXPECT_TRUE(writer.WriteRecord(r.p));
    EXPECT_TRUE(writer.WriteData(3, reinterpret_cast<const unsigned char*>("xyz")));
    EXPECT_EQ(writer.GetBytesWritten(), 23u);
    writer.Close();
    FILE* file = fopen(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    unsigned char content[64];
    const size_t n = fread(content, 1, sizeof(content), file);
    fclose(file);
    ASSERT_EQ(n, 23u);
    EXPECT_EQ(Bytes(content, content + 17),
              (Bytes{0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 5, 0, 0, 0x60, 'h', 'e', 'l', 'l', 'o'}));
    EXPECT_EQ(Bytes(content + 20, content + 23), (Bytes{'x', 'y', 'z'}));
    remove(path.c_str());
    rmdir(dir);
}

} // namespace
