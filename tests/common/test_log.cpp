#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <printf.h>
#include <unistd.h>

#include <ctime>
#include <memory>

#include "zv-log.h"

namespace {

// Counts how often the conversion "%W" is formatted, so a test can see whether formatting ran.
int g_formatCount = 0;

int PrintCounted(FILE* stream, const printf_info*, const void* const*) {
    ++g_formatCount;
    return fprintf(stream, "<w>");
}

int CountedArgInfo(const printf_info*, size_t n, int* types, int*) {
    if (n > 0)
        types[0] = PA_INT;
    return 1;
}

// Kept out of line so the compiler's format check does not see the custom conversion.
const char* volatile kCounted = "%W";

// Redirects standard error into a pipe for the lifetime of the object.
class StderrCapture {
public:
    StderrCapture() {
        fflush(stderr);
        EXPECT_EQ(pipe(m_pipe), 0);
        m_saved = dup(STDERR_FILENO);
        dup2(m_pipe[1], STDERR_FILENO);
        close(m_pipe[1]);
    }
    ~StderrCapture() { Finish(); }
    // Restores standard error and returns everything written meanwhile.
    std::string Finish() {
        if (m_saved >= 0) {
            fflush(stderr);
            dup2(m_saved, STDERR_FILENO);
            close(m_saved);
            m_saved = -1;
            char chunk[512];
            ssize_t got;
            while ((got = read(m_pipe[0], chunk, sizeof(chunk))) > 0)
                m_text.append(chunk, static_cast<size_t>(got));
            close(m_pipe[0]);
        }
        return m_text;
    }

private:
    int m_pipe[2] = {-1, -1};
    int m_saved = -1;
    std::string m_text;
};

class Log : public ::testing::Test {
protected:
    static void SetUpTestSuite() { register_printf_specifier('W', PrintCounted, CountedArgInfo); }
    void SetUp() override { g_formatCount = 0; }
    void TearDown() override {
        ZvLog::SetLogger(nullptr);
        ZvLog::m_level = ZvLog::LevelStatus;
    }
};

TEST_F(Log, NothingIsFormattedOrWrittenWithoutALogger) {
    StderrCapture capture;
    ZvLog::Error(kCounted, 1);
    ZvLog::Assert("x");
    EXPECT_EQ(capture.Finish(), "");
    EXPECT_EQ(g_formatCount, 0);
}

TEST_F(Log, MessagesAboveTheThresholdCostNoFormatting) {
    ZvLogStderr logger;
    ZvLog::SetLogger(&logger);
    StderrCapture capture;
    ZvLog::Debug(kCounted, 1);
    ZvLog::TraceEx(this, "Fn", kCounted, 2);
    EXPECT_EQ(g_formatCount, 0);
    ZvLog::Status(kCounted, 3);
    const int formatted = g_formatCount;
    EXPECT_GT(formatted, 0);
    ZvLog::m_level = ZvLog::LevelTrace;
    ZvLog::Trace("t%d", 6);
    ZvLog::m_level = 0; // even Assert is dropped
    ZvLog::Assert(kCounted, 4);
    EXPECT_EQ(g_formatCount, formatted);
    EXPECT_EQ(capture.Finish(), "Status: <w>\nTrace: t6\n");
}

TEST_F(Log, MultiLineMessagesAreSplitTrimmedAndPrefixed) {
    ZvLogStderr plain;
    ZvLogStderr prefixed("P>");
    ZvLogStderrMs ticked;
    StderrCapture capture;
    for (ZvLog* logger : {static_cast<ZvLog*>(&plain), static_cast<ZvLog*>(&prefixed)}) {
        ZvLog::SetLogger(logger);
        ZvLog::Error("a\r\n\r\n  b  ");
    }
    ZvLog::SetLogger(&ticked);
    ZvLog::Warning("first\nsecond");
    EXPECT_THAT(capture.Finish(),
                ::testing::MatchesRegex("Error: a\nb\nP>Error: a\nP>b\n[0-9]+: Warning: first\n"
                                        "second\n"));
}

TEST_F(Log, BlankMessageStillPrintsTheTrimmedPrefix) {
    ZvLogStderr logger;
    ZvLog::SetLogger(&logger);
    StderrCapture capture;
    ZvLog::Status("   ");
    ZvLog::Status("%s", "\r\n");
    va_list none{};
    ZvLog::Process(static_cast<ZvLog::Level>(3 + 4), nullptr, nullptr, nullptr, none);
    EXPECT_EQ(capture.Finish(), "Status:\nStatus:\n");
}

// Keeps every record so a test can look at all its fields.
class RecordingLogger : public ZvLog {
public:
    void DoLog(Info* info) override { records.emplace_back(info); }
    std::vector<std::unique_ptr<Info>> records;
};

TEST_F(Log, RecordsCarryObjectFunctionAndTime) {
    RecordingLogger logger;
    ZvLog::SetLogger(&logger);
    int object = 0;
    time_t before = time(nullptr);
    ZvLog::WarningEx(&object, "Open", "Failed to open '%s'", "/dev/x");
    ZvLog::Error("plain");
    ASSERT_EQ(logger.records.size(), 2u);
    const ZvLog::Info& first = *logger.records[0];
    EXPECT_EQ(first.level, ZvLog::LevelWarning);
    EXPECT_EQ(first.object, &object);
    EXPECT_EQ(first.function, "Open");
    EXPECT_EQ(first.message, "Failed to open '/dev/x'");
    EXPECT_GE(first.time, before);
    EXPECT_LE(first.time, time(nullptr));
    EXPECT_EQ(logger.records[1]->object, nullptr);
    EXPECT_EQ(logger.records[1]->function, "");
}

} // namespace
