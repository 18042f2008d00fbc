#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "crash_zip_reader.h"
#include "zavra_test_files.h"
#include "zv-crash-decode.h"
#include "zv-file-util.h"

using zavra_test::FileExists;
using zavra_test::ReadFile;
using zavra_test::WriteFile;
using Files = std::vector<std::pair<std::string, std::string>>; // name, content now

namespace {

const std::string B = "--Zavra debug info\n";
// A section header: description and encoding lines, each left out when empty.
std::string Head(const std::string& name, const std::string& encoding) {
    return B + (name.empty() ? "" : "Content-Description: " + name + "\n") +
           (encoding.empty() ? "" : "Content-Transfer-Encoding: " + encoding + "\n");
}

class CrashDecode : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(ZvFileUtil::MakeDir(m_out.c_str()));
        ASSERT_TRUE(ZvFileUtil::MakeDir((m_out + "/sub").c_str()));
    }
    bool Decode(const std::string& text, const std::string& input) {
        EXPECT_TRUE(WriteFile(input, text));
        return m_decode.Decode(input.c_str(), m_out.c_str());
    }
    Files Listed() const {
        Files listed;
        for (unsigned i = 0; i < m_decode.outputFiles.Count(); ++i)
            listed.emplace_back(m_decode.outputFiles[i], ReadFile(m_decode.outputFiles[i]));
        for (auto& [path, content] : listed)
            path = path.rfind(m_out + "/", 0) == 0 ? path.substr(m_out.size() + 1) : "?" + path;
        return listed;
    }

    zavra_test::TempDir m_dir;
    const std::string m_in = m_dir.File("crash.txt"), m_out = m_dir.File("out");
    ZvCrashDecode m_decode;
};

TEST_F(CrashDecode, SectionsBecomeFilesNamedByTheirDescriptions) {
    const struct {
        std::string text;
        Files files;
        std::string warning;
    } cases[] = {
        {"AT%DEBUG=0,0\r\nOK\r\n--Zavra debug info 1\r\nContent-Description: \t h.bin \f\r\n"
         "Content-Type: binary\r\nContent-Transfer-Encoding: x-base64 \r\n\r\n"
         "SGVs bG8s\r\n\r\n IGNy\tYXNo\r\nIQ==\r\n" + // base64 over lines, with blanks
             Head("p.txt", "text/plain") +
             "A\n\nB\n" + // joined by LF, empty lines dropped
             Head("a.bin", "") + "encoding reused\n" + Head("", "x-base64") + "AAEC//4=\n" + B +
             "Content-Comment: No valid log data available\nskipped\n" + B + "--\n\n",
         {{"h.bin", "Hello, crash!"},
          {"p.txt", "A\nB"},
          {"a.bin", std::string("\0\1\2\xff\xfe", 5)}, // replaced by the name reused next
          {"a.bin", std::string("\0\1\2\xff\xfe", 5)}},
         ""},
        {Head("page.html", "text/html") + "<html>\n" + Head("b.txt", "text/plain") + "b\n" +
             Head("cut.txt", "") + "no closing boundary\n",
         {{"b.txt", "b"}},
         "Crash data encoding 'text/html' unrecognised on line 1 in '{in}'."},
        {Head("c.txt", "text/plain") + "c\n" + Head("d.txt", "text/plain"), // two lines: end
         {{"c.txt", "c"}},
         ""},
    };
    for (const auto& c : cases) {
        crash_test::WarningLog log;
        EXPECT_TRUE(Decode(c.text, m_in)) << m_decode.errorText;
        EXPECT_EQ(Listed(), c.files);
        std::string warning = c.warning;
        if (!warning.empty())
            warning.replace(warning.find("{in}"), 4, m_in);
        EXPECT_EQ(log.messages, (warning.empty() ? std::vector<std::string>{}
                                                 : std::vector<std::string>{warning}));
    }
}

TEST_F(CrashDecode, HardFailuresEndTheDecodeAndKeepEarlierFiles) {
    const std::string ok = Head("ok.txt", "text/plain") + "ok\n";
    const std::string later = Head("later.txt", "text/plain") + "later\n" + B;
    const std::string missing = m_dir.File("missing");
    const struct {
        std::string text, error;
        Files kept;
    } texts[] = {
        {B + "Content-Type: text\nbody\n\n" + later, "Crash data encoding not specified.", {}},
        {Head("x.bin", "") + "body\n\n" + later,
         "Crash data encoding not specified for 'x.bin'.",
         {}},
        {ok + Head("bad.bin", "x-base64") + "SGVs*bG8=\n" + later,
         "Base 64 decoding failed on 'bad.bin' file data. Base 64 decode error. An input "
         "character is out of range 0x02X '*'.",
         {{"ok.txt", "ok"}}},
        {ok + Head("sub", "") + "a directory\n" + later,
         "Failed to open output crash file '" + m_out + "/sub' for writing.",
         {{"ok.txt", "ok"}}},
    };
    const struct {
        const char *input, *outputDir;
        std::string error;
    } paths[] = {
        {nullptr, m_out.c_str(), "Input crash file name pointer is NULL."},
        {missing.c_str(), m_out.c_str(), "Input crash file '" + missing + "' does not exist."},
        {m_in.c_str(), missing.c_str(), "Output directory '" + missing + "' does not exist."},
        {m_out.c_str(), m_out.c_str(), "Failed to read from the input crash file '" + m_out + "'."},
    };
    const auto expectFailure = [&](const std::string& text, const char* input,
                                   const char* outputDir, const std::string& error,
                                   const Files& kept) {
        ASSERT_TRUE(Decode(ok + B, m_in)); // a failure also drops the list of the decode before
        ASSERT_TRUE(WriteFile(m_in, text));
        EXPECT_FALSE(m_decode.Decode(input, outputDir));
        EXPECT_EQ(m_decode.errorText, error);
        EXPECT_EQ(Listed(), kept);
        EXPECT_FALSE(FileExists(m_out + "/later.txt"));
    };
    for (const auto& c : texts)
        expectFailure(c.text, m_in.c_str(), m_out.c_str(), c.error, c.kept);
    for (const auto& c : paths)
        expectFailure(ok + B, c.input, c.outputDir, c.error, {});
    ASSERT_TRUE(m_decode.Decode(m_in.c_str(), nullptr)); // beside the input
    EXPECT_EQ(m_decode.outputFiles[0], m_dir.File("ok.txt"));
}

} // namespace
