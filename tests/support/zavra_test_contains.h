// An assertion on program output: EXPECT_TRUE(Contains(err, "Error 2(19):...")) fails with both
// the text looked for and the output (its first 4 KiB) in the message.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace zavra_test {

inline ::testing::AssertionResult Contains(const std::string& all, const std::string& text) {
    if (all.find(text) != std::string::npos)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "missing: " << text << "\nin:\n" << all.substr(0, 4096);
}

} // namespace zavra_test
