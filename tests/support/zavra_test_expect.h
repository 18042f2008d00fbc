// Assertions on a child program: its output holds a text, it ends with a status in time.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "zavra_test_process.h"

namespace zavra_test {

// EXPECT_TRUE(Contains(err, "Error 2(19):...")) fails with both the text looked for and the
// output (its first 4 KiB) in the message.
inline ::testing::AssertionResult Contains(const std::string& all, const std::string& text) {
    if (all.find(text) != std::string::npos)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "missing: " << text << "\nin:\n" << all.substr(0, 4096);
}

// The child ends within `timeoutMs` with `status`; one that does not is killed.
inline void ExpectExit(Process& child, int status, int timeoutMs = 20000) {
    if (!child.Wait(timeoutMs)) {
        child.Kill();
        FAIL() << "the program did not end in time; stderr:\n" << child.Stderr();
    }
    EXPECT_EQ(child.ExitCode(), status) << Describe(child);
}

} // namespace zavra_test
