// The control messages the app sends. Open, close and flush are checked byte for byte end to end
// (tests/app StartUp); here the host time's value layout and what the ids are not masked to.
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

TEST(ZluSendMessages, HostTimeDeferredBodyAndUnmaskedIds) {
    Capture c;
    c.SetOpenChannelId(0); // keeps the default base 0x35
    c.SendHostTime(0x0005F1E2D3C4B5A6ull, 0x0000001122334455ull);
    // The host time goes to KOR 1 only, each value high word first.
    EXPECT_EQ(c.messages,
              (std::vector<Bytes>{{0x7F, 0x80, 0x7F, 0x80, 0,    0,    0,    0,    0x07, 0x00,
                                   0x40, 0x80, 0xE2, 0xF1, 0x05, 0x00, 0xA6, 0xB5, 0xC4, 0xD3,
                                   0x11, 0x00, 0x00, 0x00, 0x55, 0x44, 0x33, 0x22}}));
    EXPECT_EQ(c.kors, std::vector<unsigned>{1});

    c.SetDeferredLogging(1, 75, 0x01020304);
    c.SendOpenChannel();
    EXPECT_EQ(c.messages[1][10], 0x35);
    EXPECT_EQ(Bytes(c.messages[1].begin() + 12, c.messages[1].end()),
              (Bytes{1, 0, 0, 0, 75, 0, 0, 0, 0x04, 0x03, 0x02, 0x01}));

    // 0x2036 >> 8 = 0x20 lands in the padding bits; KOR 1 adds bit 7.
    EXPECT_EQ(c.SetOpenChannelId(0x2035), 0x2035u);
    c.SendCloseChannel();
    ASSERT_EQ(c.messages.size(), 5u);
    EXPECT_EQ(c.messages[3][10], 0x36);
    EXPECT_EQ(c.messages[3][11], 0x20);
    EXPECT_EQ(c.messages[4][11], 0xA0);
}

} // namespace
