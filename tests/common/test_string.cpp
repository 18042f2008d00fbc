#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "scratch_dir.h"
#include "zv-string-ascii.h"
#include "zv-string-list-ascii.h"

TEST(ZvAString, NameAndValueSplitAtLastEqualsTrimmedAndUnquoted) {
    const std::tuple<const char*, bool, const char*> cases[] = {
        // text, remove quotes, "name|value" ("|" when there is no equals sign)
        {"  key =  'v'  ", true, "key|v"},
        {"a=b=c", false, "a=b|c"},
        {"k=", true, "k|"},
        {"novalue", true, "|"},
        {"k = '\"x\"'", true, "k|x"},
        {"k = '\"x\"'", false, "k|'\"x\"'"},
    };
    for (auto& [text, removeQuotes, expected] : cases) {
        ZvAString name("stale"), value("stale");
        bool found = ZvAString(text).GetNameAndValue(&name, &value, removeQuotes);
        EXPECT_EQ(found, strcmp(expected, "|") != 0) << text;
        EXPECT_EQ(name + "|" + value, expected) << text;
    }
}

TEST(ZvAString, RemoveQuotesOnlyStripsMatchedOuterPairs) {
    const char* cases[][3] = {
        // text, without trim, with trim
        {"'abc", "'abc", "'abc"}, {"abc\"", "abc\"", "abc\""}, {"  \"x\"  ", "  \"x\"  ", "x"},
        {"'\"x\"'", "x", "x"},    {"\"'x'\"", "'x'", "'x'"},   {"'", "", ""},
        {"\"", "", ""},           {"'a'b'", "a'b", "a'b"},     {" \t\f\v\r\n", " \t\f\v\r\n", ""},
    };
    for (auto& c : cases) {
        ZvAString plain(c[0]), trimmed(c[0]);
        plain.RemoveQuotes(false);
        trimmed.RemoveQuotes(true);
        EXPECT_EQ(plain, c[1]) << c[0];
        EXPECT_EQ(trimmed, c[2]) << c[0];
    }
}

// A replacement is never scanned again, and formatting has no length limit, even of its own text.
TEST(ZvAString, ReplacingAndFormatting) {
    ZvAString s("a/b//c");
    s.Replace("/", "//");
    EXPECT_EQ(s, "a//b////c");
    s.Replace("/", ""); // an empty replacement deletes
    EXPECT_EQ(s, "abc");

    ZvAString big(100000, 'x');
    EXPECT_EQ(s.Printf("<%s|%*d>", big.c_str(), 70000, 7), 100000 + 70000 + 3);
    EXPECT_EQ(s.substr(100000, 3) + s.substr(s.size() - 3), "x|  7>");
    s.Printf("%s", s.c_str());
    EXPECT_EQ(s.size(), 170003u);
    s = "n=";
    s.AddPrintf("%d,%s", 5, "t");
    EXPECT_EQ(s, "n=5,t");
}

// "[a][][b]" for the list a, "", b.
static std::string Bracketed(const ZvAStringList& list) {
    std::string text;
    for (unsigned i = 0; i < list.Count(); ++i)
        text += "[" + list[i] + "]";
    return text;
}

using StringListFiles = ScratchDir;

TEST_F(StringListFiles, LoadSplitsLinesAndAFailedLoadKeepsTheContent) {
    const std::pair<ZvAString, const char*> cases[] = {
        {"x\r\ny\n\nz", "[x][y][][z]"},
        {"a\rb\n", "[a][b]"},
        {"a\n\rb", "[a][][b]"},                 // LF CR starts an empty line
        {ZvAString("a\nb\0c\nd", 7), "[a][b]"}, // nothing after a NUL
        {"", ""},
    };
    ZvAStringList list;
    for (auto& c : cases) {
        EXPECT_TRUE(list.LoadFromFile(Write("lines", c.first)));
        EXPECT_EQ(Bracketed(list), c.second);
    }

    // A directory opens for reading and some file systems report the largest offset as its
    // size: the load must fail and keep the content, never abort.
    ZvAString text("keep");
    EXPECT_FALSE(text.LoadFromFile(m_dir.c_str()));
    list.SetDelimited("keep", ',');
    EXPECT_FALSE(list.AppendFromFile(m_dir));
    EXPECT_EQ(Bracketed(list), "[keep]");
}
