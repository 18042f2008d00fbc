#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "zv-progress.h"

namespace {

// What was written to a stream, read back.
std::string Contents(FILE* file) {
    std::string text;
    rewind(file);
    for (int c; (c = fgetc(file)) != EOF;)
        text += static_cast<char>(c);
    return text;
}

} // namespace

// 48 MiB at 4 MiB/s: the terminal line rewrites itself at most every 250 ms, the journal gets a
// line every 10 s, a message in between gets a line of its own, and the end clears the terminal
// line.
TEST(ZvProgress, RewritesOneTerminalLineAndJournalsEveryTenSecondsThenClears) {
    FILE* terminal = tmpfile();
    ASSERT_NE(terminal, nullptr);
    std::vector<std::string> journal;
    unsigned long long now = 1000;
    const unsigned long long mib = 1024 * 1024;
    {
        ZvProgress progress(
            "Core dump", 48 * mib, terminal, [&](const char* line) { journal.push_back(line); },
            [&] { return now; });
        for (unsigned step = 1; step <= 120; ++step) { // every 100 ms for 12 s
            now += 100;
            progress.Update(step * 4 * mib / 10);
            if (step == 60) { // a message in between: the line is cleared for it, then redrawn
                progress.Clear();
                fputs("note\n", terminal);
            }
        }
    }
    const std::string text = Contents(terminal);
    fclose(terminal);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\r'), 120 / 3 + 2) << "one update in three";
    EXPECT_NE(text.find("\033[K\r\033[Knote\n\rCore dump: 25.2 of 48.0 MiB"), std::string::npos);
    EXPECT_NE(text.find("\rCore dump: 12.0 of 48.0 MiB (25%), 4.0 MiB/s, 0:09 left\033[K"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.substr(text.size() - 4), "\r\033[K");
    EXPECT_EQ(journal, std::vector<std::string>{"Core dump: 40.0 of 48.0 MiB (83%), 4.0 MiB/s, "
                                                "0:02 left"});
}

TEST(ZvProgress, DescribesWorkOfUnknownSizeAndFinishedWork) {
    EXPECT_EQ(ZvProgress::Describe("Core dump", 3 << 20, 0, 2000),
              ZvAString("Core dump: 3.0 MiB, 1.5 MiB/s"));
    EXPECT_EQ(ZvProgress::Describe("Database", 1 << 20, 1 << 20, 0),
              ZvAString("Database: 1.0 of 1.0 MiB (100%), 0.0 MiB/s"));
}

TEST(ZvProgress, ShowsOnlyOnATerminalAtTheDefaultVerbosityOrAbove) {
    EXPECT_EQ(ZvProgress::TerminalOrNull(2, true), stderr);
    EXPECT_EQ(ZvProgress::TerminalOrNull(5, true), stderr);
    EXPECT_EQ(ZvProgress::TerminalOrNull(1, true), nullptr) << "-v1";
    EXPECT_EQ(ZvProgress::TerminalOrNull(2, false), nullptr) << "a file or a pipe";
}
