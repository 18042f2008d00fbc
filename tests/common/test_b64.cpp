#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <tuple>

#include "scratch_dir.h"
#include "zv-b64.h"

namespace {

ZvAString Encoded(const ZvAString& bytes) {
    ZvAString out("stale");
    ZvB64::Encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()), out);
    return out;
}

// Decodes `text`; `ok` and `error` receive the outcome.
ZvAString Decoded(const ZvAString& text, bool* ok = nullptr, ZvAString* error = nullptr) {
    ZvAString out("stale");
    unsigned length = 12345;
    bool result = ZvB64::Decode(text.data(), static_cast<int>(text.size()), out, length, error);
    EXPECT_EQ(length, out.size());
    if (ok != nullptr)
        *ok = result;
    return out;
}

// Plain encoding and decoding of every length is checked against coreutils below.
TEST(ZvB64, PaddingAndWhiteSpaceRules) {
    // Missing positions count as zero; '=' ends the whole decode; padding tests sit at fixed
    // offsets from the group start.
    const std::pair<ZvAString, ZvAString> cases[] = {
        {"QQ", ZvAString("A\0\0", 3)},    {"QQ=A", "A"},
        {" Zm9v\r\n\tYmFy \n", "foobar"}, {"Q Q==", ZvAString("A\0", 2)},
        {"====", ZvAString("\0", 1)},
    };
    for (auto& c : cases) {
        bool ok = false;
        EXPECT_EQ(Decoded(c.first, &ok), c.second) << c.first;
        EXPECT_TRUE(ok) << c.first;
    }
}

TEST(ZvB64, BadCharacterKeepsTheBytesBeforeIt) {
    // text, the bytes decoded before the bad character, the bad character
    const std::tuple<ZvAString, ZvAString, char> cases[] = {
        {"*", "", '*'}, {"Zm9vYm-y", "foo", '-'}, {"Zm9v\xff", "foo", '\xff'}};
    for (auto& [text, before, bad] : cases) {
        bool ok = true;
        ZvAString error;
        EXPECT_EQ(Decoded(text, &ok, &error), before);
        EXPECT_FALSE(ok);
        EXPECT_EQ(error, ZvAString("Base 64 decode error. An input character is out of range "
                                   "0x02X '") +
                             bad + "'.");
    }
}

using ZvB64Coreutils = ScratchDir;

// Random data of every length 0..300 against the coreutils encoder, both directions.
TEST_F(ZvB64Coreutils, RandomDataOfEveryLengthMatches) {
    std::mt19937 random(20131508);
    std::vector<ZvAString> data;
    for (size_t length = 0; length <= 300; ++length) {
        ZvAString bytes;
        for (size_t i = 0; i < length; ++i)
            bytes += static_cast<char>(random() & 0xFF);
        ASSERT_TRUE(bytes.SaveToFile(std::to_string(length).c_str()));
        data.push_back(bytes);
    }
    FILE* pipe = popen("for n in $(seq 0 300); do base64 -w0 $n && echo; done", "r");
    ASSERT_NE(pipe, nullptr);
    std::vector<ZvAString> reference;
    char line[512];
    while (fgets(line, sizeof(line), pipe) != nullptr) {
        reference.emplace_back(line);
        reference.back().Trim();
    }
    ASSERT_EQ(pclose(pipe), 0);
    ASSERT_EQ(reference.size(), data.size());
    for (size_t length = 0; length < data.size(); ++length) {
        EXPECT_EQ(Encoded(data[length]), reference[length]) << length;
        EXPECT_EQ(Decoded(reference[length]), data[length]) << length;
    }
}

} // namespace
