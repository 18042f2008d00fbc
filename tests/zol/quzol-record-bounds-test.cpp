// Record sizes at their bounds: capacities too large to round up, and what a refused header
// leaves behind.
#include <gtest/gtest.h>

#include <cstring>

#include "quzol-record.h"

namespace {

QoZolHeaderBytesTag Header(const unsigned char (&bytes)[12]) {
    QoZolHeaderBytesTag header;
    memcpy(&header, bytes, sizeof(header));
    return header;
}

TEST(QoZolRecordBounds, CapacityThatCannotBeRoundedUpGivesNoRecord) {
    // Rounding these up to a multiple of 4 would wrap to a zero-capacity record.
    EXPECT_EQ(QoZolRecordTag::Create(0xFFFFFFFDu, 0x807F807Fu), nullptr);
    EXPECT_EQ(QoZolRecordTag::Create(0xFFFFFFFFu, 0x807F807Fu), nullptr);
}

TEST(QoZolRecordBounds, HeaderOverTheBodyLimitIsRefusedButKeptAsRead) {
    QoZolRecordTag* r = QoZolRecordTag::Create(20480 + 64, 0x807F807Fu);
    ASSERT_NE(r, nullptr);
    // 5124 words with padding 3: a body of 20481 bytes, within the capacity but over the limit.
    const unsigned char over[12] = {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x04, 0x14, 0x21, 0x60};
    EXPECT_FALSE(r->SetHeader(Header(over)));
    EXPECT_EQ(memcmp(r->GetData(), over, 12), 0);
    EXPECT_EQ(r->GetPadding(), 3u);
    EXPECT_EQ(r->GetId(), 0x21u);

    // Too large for the capacity: the record is emptied instead.
    const unsigned char huge[12] = {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0xFF, 0xFF, 0x21, 0x60};
    EXPECT_FALSE(r->SetHeader(Header(huge)));
    EXPECT_EQ(r->GetBodySize(), 0u);
    EXPECT_EQ(r->GetTotalSize(), 12u);
    EXPECT_EQ(r->GetPadding(), 0u);
    const unsigned char emptied[12] = {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x03, 0x00, 0x21, 0x00};
    EXPECT_EQ(memcmp(r->GetData(), emptied, 12), 0);
    QoZolRecordTag::Destroy(&r);
}

} // namespace
