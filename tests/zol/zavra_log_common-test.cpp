// The four control messages, byte for byte as the target expects them.
#include <gtest/gtest.h>

#include <vector>

#include "zavra_log_common.h"

namespace {

using Bytes = std::vector<unsigned char>;

class Capture : public ZluSendMessages {
public:
    void SendMsg(unsigned kor, unsigned char* data, unsigned size) override {
        kors.push_back(kor);
        messages.emplace_back(data, data + size);
    }
    std::vector<unsigned> kors;
    std::vector<Bytes> messages;
};

TEST(ZluSendMessages, IdsDeriveFromTheBase) {
    Capture c;
    EXPECT_EQ(c.SetOpenChannelId(0), 0x35u);
    EXPECT_EQ(c.GetCloseChannelId(), 0x36u);
    EXPECT_EQ(c.GetFlushId(), 0x3Bu);
    EXPECT_EQ(c.GetHostTimeId(), 0x40u);
    EXPECT_EQ(c.SetOpenChannelId(100), 100u);
    EXPECT_EQ(c.GetCloseChannelId(), 101u);
    EXPECT_EQ(c.GetFlushId(), 106u);
    EXPECT_EQ(c.GetHostTimeId(), 111u);
}

TEST(ZluSendMessages, OpenCloseAndFlushGoToKor0ThenKor1) {
    Capture c;
    c.SetOpenChannelId(0);
    c.SendOpenChannel();
    c.SendCloseChannel();
    c.SendFlushBuffer();
    const std::vector<Bytes> expected = {
        {0x7F, 0x80, 0x7F, 0x80, 0,    0, 0, 0, 0x06, 0x00, 0x35, 0x00,
         0,    0,    0,    0,    0x32, 0, 0, 0, 0x3C, 0,    0,    0},
        {0x7F, 0x80, 0x7F, 0x80, 0,    0, 0, 0, 0x06, 0x00, 0x35, 0x80,
         0,    0,    0,    0,    0x32, 0, 0, 0, 0x3C, 0,    0,    0},
        {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x03, 0x00, 0x36, 0x00},
        {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x03, 0x00, 0x36, 0x80},
        {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x03, 0x00, 0x3B, 0x00},
        {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x03, 0x00, 0x3B, 0x80},
    };
    EXPECT_EQ(c.messages, expected);
    EXPECT_EQ(c.kors, (std::vector<unsigned>{0, 1, 0, 1, 0, 1}));
}

TEST(ZluSendMessages, DeferredLoggingSettingsFillTheOpenBody) {
    Capture c;
    c.SetOpenChannelId(0);
    c.SetDeferredLogging(1, 75, 0x01020304);
    c.SendOpenChannel();
    ASSERT_EQ(c.messages.size(), 2u);
    EXPECT_EQ(Bytes(c.messages[1].begin() + 12, c.messages[1].end()),
              (Bytes{1, 0, 0, 0, 75, 0, 0, 0, 0x04, 0x03, 0x02, 0x01}));
}

TEST(ZluSendMessages, HostTimeGoesToKor1HighWordFirst) {
    Capture c;
    c.SetOpenChannelId(0);
    c.SendHostTime(0x0005F1E2D3C4B5A6ull, 0x0000001122334455ull);
    ASSERT_EQ(c.messages.size(), 1u);
    EXPECT_EQ(c.kors[0], 1u);
    const Bytes expected = {0x7F, 0x80, 0x7F, 0x80, 0,    0,    0,    0,    0x07, 0x00,
                            0x40, 0x80, 0xE2, 0xF1, 0x05, 0x00, 0xA6, 0xB5, 0xC4, 0xD3,
                            0x11, 0x00, 0x00, 0x00, 0x55, 0x44, 0x33, 0x22};
    EXPECT_EQ(c.messages[0], expected);

    // From the clock: a plausible time after 2020 in the first word pair.
    c.SendHostTime();
    ASSERT_EQ(c.messages.size(), 2u);
    const Bytes& m = c.messages[1];
    const unsigned long long epoch =
        (static_cast<unsigned long long>(m[12] | m[13] << 8 | m[14] << 16 | (unsigned)m[15] << 24)
         << 32) |
        (m[16] | m[17] << 8 | m[18] << 16 | (unsigned)m[19] << 24);
    EXPECT_GT(epoch, 1577836800000000ull);
}

TEST(ZluSendMessages, OpenIdAboveThirteenBitsIsNotMasked) {
    Capture c;
    c.SetOpenChannelId(0x2035);
    c.SendCloseChannel();
    ASSERT_EQ(c.messages.size(), 2u);
    // 0x2036 >> 8 = 0x20 lands in the padding bits; KOR 1 adds bit 7.
    EXPECT_EQ(c.messages[0][10], 0x36);
    EXPECT_EQ(c.messages[0][11], 0x20);
    EXPECT_EQ(c.messages[1][11], 0xA0);
}

} // namespace
