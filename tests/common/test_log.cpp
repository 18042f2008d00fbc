#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "zv-log.h"

namespace {

// Formatting this would read through a wild pointer: a test passing it shows nothing was formatted.
const char* const kNeverFormatted = reinterpret_cast<const char*>(8);

// Keeps every record so a test can look at all its fields.
class RecordingLogger : public ZvLog {
public:
    void DoLog(Info* info) override { records.emplace_back(info); }
    std::vector<std::unique_ptr<Info>> records;
};

class Log : public ::testing::Test {
protected:
    void TearDown() override {
        ZvLog::SetLogger(nullptr);
        ZvLog::m_level = ZvLog::LevelStatus;
    }
};

TEST_F(Log, NothingIsFormattedAboveTheThresholdOrWithoutALogger) {
    ::testing::internal::CaptureStderr();
    ZvLog::Error("%s", kNeverFormatted);
    ZvLog::Assert("x");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");

    RecordingLogger logger;
    ZvLog::SetLogger(&logger);
    ZvLog::Debug("%s", kNeverFormatted);
    ZvLog::TraceEx(this, "Fn", "%s", kNeverFormatted);
    int object = 0;
    ZvLog::StatusEx(&object, "Open", "n=%d", 3);
    ZvLog::m_level = ZvLog::LevelTrace;
    ZvLog::Trace("t%d", 6);
    ZvLog::m_level = 0; // even Assert is dropped
    ZvLog::Assert("%s", kNeverFormatted);
    ASSERT_EQ(logger.records.size(), 2u);
    const ZvLog::Info& first = *logger.records[0];
    EXPECT_EQ(first.level, ZvLog::LevelStatus);
    EXPECT_EQ(first.object, &object);
    EXPECT_EQ(first.function, "Open");
    EXPECT_EQ(first.message, "n=3");
    EXPECT_EQ(logger.records[1]->message, "t6");
}

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
