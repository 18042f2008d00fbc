// The record object and the writer, checked against wire bytes written out by hand.
#include <gtest/gtest.h>

#include <cstring>

#include "quzol-record.h"
#include "quzol-write.h"
#include "zavra_test_files.h"
#include "zol-test-stream.h"

namespace {

Bytes HeaderOf(const RecordPtr& r) {
    return Bytes(r->GetData(), r->GetData() + 12);
}

// The setters a resync report relies on: a record made for a template's layout takes its id, KOR
// and time into that layout's header.
TEST(QoZolRecord, SettersWriteTheHeaderOfEachLayout) {
    RecordPtr a(QoZolRecordTag::Create(14, 0x807F807F));
    EXPECT_EQ(a->GetCapacity(), 16u); // room for the padding
    // Rounding these up to a multiple of 4 would wrap to a zero capacity.
    EXPECT_EQ(QoZolRecordTag::Create(0xFFFFFFFDu, 0x807F807Fu), nullptr);
    a->SetId(0x1FFF);
    a->SetKor(1);
    EXPECT_FALSE(a->SetBodySize(17));
    EXPECT_TRUE(a->SetBodySize(5));
    // 5 words; packed 0xFFFF: id 0x1FFF, padding 3, KOR 1.
    EXPECT_EQ(HeaderOf(a), (Bytes{0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 5, 0, 0xFF, 0xFF}));

    RecordPtr b(QoZolRecordTag::Create(8, 0xFB3E98));
    b->SetId(0x3FFF);
    ASSERT_TRUE(b->SetBodySize(7));
    b->SetTime(0x12AABBCCDDull);
    // The KOR switches the sync word and keeps the time's high byte; an invalid one changes
    // nothing.
    b->SetKor(1);
    b->SetKor(7);
    EXPECT_EQ(HeaderOf(b),
              (Bytes{0x29, 0xCF, 0x30, 0x12, 0xDD, 0xCC, 0xBB, 0xAA, 5, 0, 0xFF, 0x7F}));
}

bool SetHeader(const RecordPtr& r, const Bytes& bytes) {
    QoZolHeaderBytesTag header;
    memcpy(&header, bytes.data(), 12);
    return r->SetHeader(header);
}

// The readers' tests decode every known layout through SetHeader, and a 20480-byte body.
TEST(QoZolRecord, SetHeaderKeepsTheKorOnUnknownSyncsAndRejectsBadLengths) {
    RecordPtr r(QoZolRecordTag::Create(20480 + 64, 0x807F807F));
    // An unknown 24-bit value still decodes as per-KOR and keeps the previous KOR (3 here).
    ASSERT_TRUE(SetHeader(r, {0xD7, 0x3F, 0xC6, 0x28, 9, 9, 9, 9, 5, 0, 0xBC, 0xEA}));
    ASSERT_TRUE(SetHeader(r, {1, 2, 3, 0, 0, 0, 0, 0, 3, 0, 0, 0}));
    EXPECT_EQ(r->GetFormat(), 2u);
    EXPECT_EQ(r->GetKor(), 3u);
    EXPECT_EQ(r->GetSyncWord(), 0x030201u);
    // 5124 words with padding 3: body 20481, fits the capacity but exceeds the body limit.
    const Bytes over = {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x04, 0x14, 0x21, 0x60};
    EXPECT_FALSE(SetHeader(r, over));
    EXPECT_EQ(HeaderOf(r), over); // kept as read
    EXPECT_EQ(r->GetTotalSize(), 20496u);
    // Too large for the capacity: the record is emptied instead.
    EXPECT_FALSE(SetHeader(r, {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0xFF, 0xFF, 0x21, 0x60}));
    EXPECT_EQ(HeaderOf(r), (Bytes{0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 3, 0, 0x21, 0}));
    // 3 words with padding 2 would wrap the body size; 0 words is shorter than a header.
    EXPECT_FALSE(SetHeader(r, {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 3, 0, 0, 0x40}));
    EXPECT_FALSE(SetHeader(r, {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0, 0, 0, 0}));

    RecordPtr small(QoZolRecordTag::Create(8, 0x807F807F));
    EXPECT_TRUE(SetHeader(small, {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 5, 0, 0, 0}));
    EXPECT_FALSE(SetHeader(small, {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 6, 0, 0, 0}));
}

TEST(QoZolWriter, WritesAnOptimalCopyAndCountsOnlySuccessfulWrites) {
    RecordPtr r(QoZolRecordTag::Create(1000, 0xF2E05F));
    ASSERT_TRUE(r->SetBodySize(6));
    memcpy(r->GetBody(), "abcdef", 6);
    r->SetId(77);
    r->SetTime(0x55aabbccddull);
    RecordPtr copy(r->CreateOptimalCopy());
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->GetCapacity(), 8u); // exactly as large as needed
    zavra_test::TempDir dir;
    QoZolWrite writer;
    EXPECT_FALSE(writer.WriteRecord(copy.get())); // not open yet
    ASSERT_TRUE(writer.OpenWrite(dir.File("out.zol").c_str()));
    EXPECT_FALSE(writer.WriteRecord(nullptr));
    EXPECT_TRUE(writer.WriteRecord(copy.get()));
    EXPECT_TRUE(writer.WriteData(3, reinterpret_cast<const unsigned char*>("xyz")));
    EXPECT_EQ(writer.GetBytesWritten(), 23u);
    writer.Close();
    const std::string written = zavra_test::ReadFile(dir.File("out.zol"));
    EXPECT_EQ(written.substr(0, 18), std::string(r->GetData(), r->GetData() + 18));
    EXPECT_EQ(written.substr(20), "xyz");
}

} // namespace
