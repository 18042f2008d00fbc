#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "scratch_dir.h"
#include "zv-b64.h"

static ZvAString Encoded(const ZvAString& bytes) {
    ZvAString out("stale");
    ZvB64::Encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()), out);
    return out;
}

// Padding, white space and bad characters are checked on crash information (CrashDecode).
static ZvAString Decoded(const ZvAString& text) {
    ZvAString out("stale");
    unsigned length = 12345;
    EXPECT_TRUE(ZvB64::Decode(text.data(), static_cast<int>(text.size()), out, length, nullptr));
    EXPECT_EQ(length, out.size());
    return out;
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
