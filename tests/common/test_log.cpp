#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "zv-log.h"

namespace {

class Log : public ::testing::Test {
protected:
    void TearDown() override {
        ZvLog::SetLogger(nullptr);
        ZvLog::m_level = ZvLog::LevelStatus;
    }
};

TEST_F(Log, StandardErrorLinesAreSplitTrimmedAndPrefixed) {
    ZvLogStderr plain, prefixed("P>");
    ZvLogStderrMs ticked;
    ::testing::internal::CaptureStderr();
    for (ZvLog* logger : {static_cast<ZvLog*>(&plain), static_cast<ZvLog*>(&prefixed)}) {
        ZvLog::SetLogger(logger);
        ZvLog::Error("a\r\n\r\n  b  ");
    }
    ZvLog::Status("   "); // a blank message still prints the trimmed prefix
    ZvLog::Status("%s", "\r\n");
    va_list none{}; // an unknown level prints nothing
    ZvLog::Process(static_cast<ZvLog::Level>(7), nullptr, nullptr, nullptr, none);
    ZvLog::SetLogger(&ticked);
    ZvLog::Warning("first\nsecond");
    EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                ::testing::MatchesRegex("Error: a\nb\nP>Error: a\nP>b\nP>Status:\nP>Status:\n"
                                        "[0-9]+: Warning: first\nsecond\n"));
}

} // namespace
