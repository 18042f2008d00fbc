#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "crash_zip_reader.h"
#include "zavra_test_files.h"
#include "zv-crash-decode.h"
#include "zv-file-util.h"

using crash_test::WarningLog;
using zavra_test::FileExists;
using zavra_test::ReadFile;
using zavra_test::WriteFile;

namespace {

using Files = std::vector<std::pair<std::string, std::string>>; // name, content

// "{in}" and "{out}" in an expected text stand for the input file and the output directory.
std::string Expand(std::string text, const std::string& in, const std::string& out) {
    for (const auto& [token, value] : {std::make_pair("{in}", in), std::make_pair("{out}", out)})
        for (size_t at; (at = text.find(token)) != std::string::npos;)
            text.replace(at, strlen(token), value);
    return text;
}

class CrashDecode : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(m_dir.Path().empty());
        ASSERT_TRUE(ZvFileUtil::MakeDir(m_out.c_str()));
        ASSERT_TRUE(ZvFileUtil::MakeDir((m_out + "/sub").c_str()));
    }
    bool DecodeText(const std::string& text, const char* outputDir) {
        EXPECT_TRUE(WriteFile(m_input, text));
        return m_decode.Decode(m_input.c_str(), outputDir);
    }
    // The listed files, in order, with what they hold now.
    Files Listed() const {
        Files listed;
        for (unsigned i = 0; i < m_decode.outputFiles.Count(); ++i) {
            const std::string path = m_decode.outputFiles[i];
            EXPECT_EQ(path.rfind(m_out + "/", 0), 0u) << path;
            listed.emplace_back(path.substr(m_out.size() + 1), ReadFile(path));
        }
        return listed;
    }

    zavra_test::TempDir m_dir;
    const std::string m_input = m_dir.File("crash.txt");
    const std::string m_out = m_dir.File("out");
    ZvCrashDecode m_decode;
};

TEST_F(CrashDecode, SectionsBecomeFilesNamedByTheirDescriptions) {
    struct Case {
        const char* what;
        const char* text;
        Files files;
        std::vector<std::string> warnings;
    };
    const Case cases[] = {
        {"reply lines before the first boundary, CR LF ends, trimmed values, closing suffix",
         "AT%DEBUG=0,0\r\nOK\r\n"
         "--Zavra debug info 1\r\n"
         "Content-Description: hello.bin\r\n"
         "Content-Type: application/octet-stream\r\n"
         "Content-Transfer-Encoding: x-base64 \r\n"
         "\r\n"
         "SGVsbG8sIGNyYXNoIQ==\r\n"
         "--Zavra debug info 2\r\n"
         "Content-Description: \t notes.txt \f\r\n"
         "Content-Transfer-Encoding:text/plain\r\n"
         "A\r\n"
         "\r\n"
         "B\r\n"
         "--Zavra debug info--\r\n"
         "OK\r\n",
         {{"hello.bin", "Hello, crash!"}, {"notes.txt", "A\nB"}},
         {}},
        {"a last section without its closing boundary is dropped",
         "--Zavra debug info\nContent-Description: kept.txt\n"
         "Content-Transfer-Encoding: text/plain\nkept\n"
         "--Zavra debug info\nContent-Description: cut.txt\n"
         "Content-Transfer-Encoding: text/plain\ncut short\n",
         {{"kept.txt", "kept"}},
         {}},
        {"a boundary followed by only two lines ends the walk",
         "--Zavra debug info\nContent-Description: first.txt\n"
         "Content-Transfer-Encoding: text/plain\nfirst\n"
         "--Zavra debug info\nContent-Description: second.txt\n"
         "Content-Transfer-Encoding: text/plain",
         {{"first.txt", "first"}},
         {}},
        {"a repeated description overwrites its file and is listed twice",
         "--Zavra debug info\nContent-Description: dup.txt\n"
         "Content-Transfer-Encoding: text/plain\nfirst\n"
         "--Zavra debug info\nContent-Description: dup.txt\n"
         "Content-Transfer-Encoding: text/plain\nsecond\n"
         "--Zavra debug info--\n\n\n",
         {{"dup.txt", "second"}, {"dup.txt", "second"}},
         {}},
        {"base64 over many lines with blanks and empty lines decodes as one block",
         "--Zavra debug info\nContent-Description: split.bin\n"
         "Content-Transfer-Encoding: x-base64\n"
         "SGVs bG8s\n\n IGNy\tYXNo\n\n\nIQ==\n"
         "--Zavra debug info--\n",
         {{"split.bin", "Hello, crash!"}},
         {}},
        {"name and encoding carry over; a no-data section is skipped silently",
         "--Zavra debug info\nContent-Description: k0.txt\n"
         "Content-Transfer-Encoding: text/plain\nzero\n"
         "--Zavra debug info\nContent-Description: k1.txt\n"
         "Content-Comment: No valid log data available\nnot data\n"
         "--Zavra debug info\nContent-Description: k2.txt\ntwo\n"
         "--Zavra debug info\nContent-Transfer-Encoding: x-base64\n"
         "Content-Description: k3.bin\nAAEC//4=\n"
         "--Zavra debug info\nContent-Comment: build 42\nAAEC\n"
         "--Zavra debug info--\n",
         {{"k0.txt", "zero"},
          {"k2.txt", "two"},
          {"k3.bin", std::string("\x00\x01\x02", 3)}, // overwritten by the next section
          {"k3.bin", std::string("\x00\x01\x02", 3)}},
         {}},
        {"an unknown encoding is a warning naming the line, and the walk goes on",
         "--Zavra debug info\nContent-Description: page.html\n"
         "Content-Transfer-Encoding: text/html\n<html></html>\n"
         "--Zavra debug info\nContent-Description: after.txt\n"
         "Content-Transfer-Encoding: text/plain\nafter\n"
         "--Zavra debug info--\n",
         {{"after.txt", "after"}},
         {"Crash data encoding 'text/html' unrecognised on line 1 in '{in}'."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        WarningLog log;
        EXPECT_TRUE(DecodeText(c.text, m_out.c_str()));
        EXPECT_EQ(m_decode.errorText, "");
        EXPECT_EQ(Listed(), c.files);
        std::vector<std::string> warnings;
        for (const std::string& w : c.warnings)
            warnings.push_back(Expand(w, m_input, m_out));
        EXPECT_EQ(log.messages, warnings);
    }
}

TEST_F(CrashDecode, HardFailuresStopTheWalkAndKeepEarlierFiles) {
    const char* const good = "--Zavra debug info\nContent-Description: ok.txt\n"
                             "Content-Transfer-Encoding: text/plain\nok\n";
    const char* const later = "--Zavra debug info\nContent-Description: later.txt\n"
                              "Content-Transfer-Encoding: text/plain\nlater\n"
                              "--Zavra debug info--\n";
    const struct {
        std::string text;
        std::string error;
        Files kept;
    } cases[] = {
        {std::string("--Zavra debug info\nContent-Type: text\nbody\n") + later,
         "Crash data encoding not specified.",
         {}},
        {std::string("--Zavra debug info\nContent-Description: lost.bin\nbody\nmore\n") + later,
         "Crash data encoding not specified for 'lost.bin'.",
         {}},
        {std::string(good) +
             "--Zavra debug info\nContent-Description: bad.bin\n"
             "Content-Transfer-Encoding: x-base64\nSGVs*bG8=\n" +
             later,
         "Base 64 decoding failed on 'bad.bin' file data. Base 64 decode error. An input "
         "character is out of range 0x02X '*'.",
         {{"ok.txt", "ok"}}},
        {std::string(good) + "--Zavra debug info\nContent-Description: sub\nin a directory\n" +
             later,
         "Failed to open output crash file '{out}/sub' for writing.",
         {{"ok.txt", "ok"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        EXPECT_FALSE(DecodeText(c.text, m_out.c_str()));
        EXPECT_EQ(m_decode.errorText, Expand(c.error, m_input, m_out));
        EXPECT_EQ(Listed(), c.kept);
        EXPECT_FALSE(FileExists(m_out + "/later.txt"));
    }
}

TEST_F(CrashDecode, ArgumentsAndUnreadableInput) {
    const std::string missing = m_dir.File("missing.txt");
    const struct {
        const char* input;
        const char* outputDir;
        std::string error;
    } cases[] = {
        {nullptr, m_out.c_str(), "Input crash file name pointer is NULL."},
        {missing.c_str(), m_out.c_str(), "Input crash file '" + missing + "' does not exist."},
        {m_input.c_str(), missing.c_str(), "Output directory '" + missing + "' does not exist."},
        {m_out.c_str(), nullptr, "Failed to read from the input crash file '" + m_out + "'."},
    };
    ASSERT_TRUE(WriteFile(m_input, "--Zavra debug info\nContent-Description: a.txt\n"
                                   "Content-Transfer-Encoding: text/plain\na\n"
                                   "--Zavra debug info--\n"));
    for (const auto& c : cases) {
        // Each call starts afresh: the list of a successful decode does not survive a failure.
        ASSERT_TRUE(m_decode.Decode(m_input.c_str(), nullptr));
        ASSERT_EQ(m_decode.outputFiles.Count(), 1u);
        EXPECT_EQ(m_decode.outputFiles[0], m_dir.File("a.txt")); // beside the input
        EXPECT_FALSE(m_decode.Decode(c.input, c.outputDir));
        EXPECT_EQ(m_decode.errorText, c.error);
        EXPECT_EQ(m_decode.outputFiles.Count(), 0u);
    }
}

TEST_F(CrashDecode, NamesThatLeaveTheOutputDirectoryAreSkippedWithAWarning) {
    // Decoded beside the input, which sits in the output directory.
    const std::string input = m_out + "/crash.txt";
    const std::string absolute = m_dir.File("abs.txt");
    const std::vector<std::string> names = {
        "", ".", "..", "../escape.txt", absolute, "sub/inner.txt", "back\\slash.txt", "crash.txt",
    };
    std::string text = "--Zavra debug info\nContent-Transfer-Encoding: text/plain\nunnamed\n";
    for (size_t i = 1; i < names.size(); ++i)
        text += "--Zavra debug info\nContent-Description: " + names[i] + "\nhostile\n";
    text += "--Zavra debug info\nContent-Description: good.txt\ngood\n--Zavra debug info--\n";
    ASSERT_TRUE(WriteFile(input, text));

    WarningLog log;
    EXPECT_TRUE(m_decode.Decode(input.c_str(), nullptr)) << m_decode.errorText;
    EXPECT_EQ(Listed(), (Files{{"good.txt", "good"}}));
    ASSERT_EQ(log.messages.size(), names.size());
    for (size_t i = 0; i + 1 < names.size(); ++i)
        EXPECT_EQ(log.messages[i], "Crash section '" + names[i] + "' in '" + input +
                                       "' is not a plain file name in the output directory "
                                       "and was skipped.");
    EXPECT_EQ(log.messages.back(), "Crash section 'crash.txt' in '" + input +
                                       "' would replace a retrieved file and was skipped.");
    EXPECT_EQ(ReadFile(input), text);
    for (const std::string& stray :
         {m_dir.File("escape.txt"), absolute, m_out + "/sub/inner.txt", m_out + "/back\\slash.txt"})
        EXPECT_FALSE(FileExists(stray)) << stray;
}

} // namespace
