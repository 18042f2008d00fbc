#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <printf.h>
#include <unistd.h>

#include <ctime>
#include <functional>
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

// Runs `body` with standard error redirected into a pipe and returns what it wrote.
std::string StderrOf(const std::function<void()>& body) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    fflush(stderr);
    int saved = dup(STDERR_FILENO);
    dup2(fds[1], STDERR_FILENO);
    close(fds[1]);
    body();
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text;
    char chunk[512];
    for (ssize_t got; (got = read(fds[0], chunk, sizeof(chunk))) > 0;)
        text.append(chunk, static_cast<size_t>(got));
    close(fds[0]);
    return text;
}

// Keeps every record so a test can look at all its fields.
class RecordingLogger : public ZvLog {
public:
    void DoLog(Info* info) override { records.emplace_back(info); }
    std::vector<std::unique_ptr<Info>> records;
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
    EXPECT_EQ(StderrOf([] {
                  ZvLog::Error(kCounted, 1);
                  ZvLog::Assert("x");
              }),
              "");
    EXPECT_EQ(g_formatCount, 0);
}

TEST_F(Log, MessagesAboveTheThresholdCostNoFormatting) {
    RecordingLogger logger;
    ZvLog::SetLogger(&logger);
    ZvLog::Debug(kCounted, 1);
    ZvLog::TraceEx(this, "Fn", kCounted, 2);
    EXPECT_EQ(g_formatCount, 0);
    int object = 0;
    ZvLog::StatusEx(&object, "Open", kCounted, 3);
    const int formatted = g_formatCount;
    EXPECT_GT(formatted, 0);
    ZvLog::m_level = ZvLog::LevelTrace;
    ZvLog::Trace("t%d", 6);
    ZvLog::m_level = 0; // even Assert is dropped
    ZvLog::Assert(kCounted, 4);
    EXPECT_EQ(g_formatCount, formatted);
    ASSERT_EQ(logger.records.size(), 2u);
    const ZvLog::Info& first = *logger.records[0];
    EXPECT_EQ(first.level, ZvLog::LevelStatus);
    EXPECT_EQ(first.object, &object);
    EXPECT_EQ(first.function, "Open");
    EXPECT_EQ(first.message, "<w>");
    EXPECT_LE(first.time, time(nullptr));
    EXPECT_EQ(logger.records[1]->message, "t6");
}

TEST_F(Log, MultiLineMessagesAreSplitTrimmedAndPrefixed) {
    ZvLogStderr plain, prefixed("P>");
    ZvLogStderrMs ticked;
    std::string text = StderrOf([&] {
        for (ZvLog* logger : {static_cast<ZvLog*>(&plain), static_cast<ZvLog*>(&prefixed)}) {
            ZvLog::SetLogger(logger);
            ZvLog::Error("a\r\n\r\n  b  ");
        }
        ZvLog::SetLogger(&ticked);
        ZvLog::Warning("first\nsecond");
    });
    EXPECT_THAT(text, ::testing::MatchesRegex(
                          "Error: a\nb\nP>Error: a\nP>b\n[0-9]+: Warning: first\nsecond\n"));
}

TEST_F(Log, BlankMessageStillPrintsTheTrimmedPrefix) {
    ZvLogStderr logger;
    ZvLog::SetLogger(&logger);
    EXPECT_EQ(StderrOf([] {
                  ZvLog::Status("   ");
                  ZvLog::Status("%s", "\r\n");
                  va_list none{}; // an unknown level prints nothing
                  ZvLog::Process(static_cast<ZvLog::Level>(7), nullptr, nullptr, nullptr, none);
              }),
              "Status:\nStatus:\n");
}

} // namespace
