#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <tuple>

#include "scratch_dir.h"
#include "zv-b64.h"

static ZvAString Encoded(const ZvAString& bytes) {
    ZvAString out("stale");
    ZvB64::Encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()), out);
    return out;
}

static ZvAString Decoded(const ZvAString& text, bool* ok = nullptr, ZvAString* error = nullptr) {
    ZvAString out("stale");
    unsigned length = 12345;
    bool result = ZvB64::Decode(text.data(), static_cast<int>(text.size()), out, length, error);
    EXPECT_EQ(length, out.size());
    if (ok != nullptr)
        *ok = result;
    return out;
}

// Plain encoding and decoding of every length is checked against coreutils below. Missing
// positions count as zero, '=' ends the whole decode, and a bad character keeps what came before.
TEST(ZvB64, PaddingWhiteSpaceAndBadCharacters) {
    const std::tuple<ZvAString, ZvAString, char> cases[] = {
        // text, decoded bytes, the bad character (0 for none)
        {"QQ", ZvAString("A\0\0", 3), 0},
        {"QQ=A", "A", 0},
        {" Zm9v\r\n\tYmFy \n", "foobar", 0},
        {"Q Q==", ZvAString("A\0", 2), 0},
        {"====", ZvAString("\0", 1), 0},
        {"*", "", '*'},
        {"Zm9vYm-y", "foo", '-'},
        {"Zm9v\xff", "foo", '\xff'}};
    for (auto& [text, bytes, bad] : cases) {
        bool ok = bad != 0;
        ZvAString error;
        EXPECT_EQ(Decoded(text, &ok, &error), bytes) << text;
        EXPECT_EQ(ok, bad == 0) << text;
        const ZvAString message =
            "Base 64 decode error. An input character is out of range 0x02X '";
        EXPECT_EQ(error, bad == 0 ? ZvAString() : message + bad + "'.");
    }
}

using ZvB64Coreutils = ScratchDir;

TEST_F(ZvB64Coreutils, RandomDataOfEveryLengthMatches) {
    std::mt19937 random(20131508);
    std::vector<ZvAString> data(301);
    for (size_t length = 0; length < data.size(); ++length) {
        for (size_t i = 0; i < length; ++i)
            data[length] += static_cast<char>(random() & 0xFF);
        Write(std::to_string(length).c_str(), data[length]);
    }
    FILE* pipe = popen("for n in $(seq 0 300); do base64 -w0 $n && echo; done", "r");
    ASSERT_NE(pipe, nullptr);
    size_t length = 0;
    for (char line[512]; fgets(line, sizeof(line), pipe) != nullptr; ++length) {
        ZvAString reference(line);
        reference.Trim();
        ASSERT_LT(length, data.size());
        EXPECT_EQ(Encoded(data[length]), reference) << length;
        EXPECT_EQ(Decoded(reference), data[length]) << length;
    }
    ASSERT_EQ(pclose(pipe), 0);
    EXPECT_EQ(length, data.size());
}
