#include <gtest/gtest.h>

#include "scratch_dir.h"
#include "zv-string-ascii.h"
#include "zv-string-list-ascii.h"

namespace {

struct NameValueCase {
    const char* text;
    bool removeQuotes;
    bool found;
    const char* name;
    const char* value;
};

TEST(ZvAString, NameAndValueSplitAtLastEqualsTrimmedAndUnquoted) {
    const NameValueCase cases[] = {
        {"  key =  'v'  ", true, true, "key", "v"},
        {"a=b=c", false, true, "a=b", "c"},
        {"k=", true, true, "k", ""},
        {"novalue", true, false, "", ""},
        {"k = '\"x\"'", true, true, "k", "x"},
        {"k = '\"x\"'", false, true, "k", "'\"x\"'"},
    };
    for (const NameValueCase& c : cases) {
        ZvAString name("stale"), value("stale");
        EXPECT_EQ(ZvAString(c.text).GetNameAndValue(&name, &value, c.removeQuotes), c.found)
            << c.text;
        EXPECT_EQ(name, c.name) << c.text;
        EXPECT_EQ(value, c.value) << c.text;
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

TEST(ZvAString, PrefixAndSuffixMatching) {
    ZvAString s("AT+CRASH?"), rest("untouched");
    const char* after = nullptr;
    EXPECT_TRUE(s.StartsWith("AT+", &after));
    EXPECT_EQ(after, s.c_str() + 3); // points into the string itself
    EXPECT_TRUE(s.StartsWith("", &after));
    EXPECT_FALSE(s.StartsWith("at+", rest));
    EXPECT_FALSE(s.StartsWith("AT+CRASH?!", rest));
    EXPECT_EQ(rest, "untouched");
    EXPECT_TRUE(s.StartsWith("AT+CRASH?", rest));
    EXPECT_EQ(rest, "");

    ZvAString head("untouched");
    EXPECT_FALSE(ZvAString("abc").EndsWith("long suffix", &head));
    EXPECT_FALSE(ZvAString("abc").EndsWith("bC", &head));
    EXPECT_EQ(head, "untouched");
    EXPECT_TRUE(ZvAString("file.zom").EndsWith(".zom", &head));
    EXPECT_EQ(head, "file");
}

TEST(ZvAString, FormattingHasNoLengthLimit) {
    ZvAString big(100000, 'x'), s;
    EXPECT_EQ(s.Printf("<%s|%*d>", big.c_str(), 70000, 7), 100000 + 70000 + 3);
    EXPECT_EQ(s.size(), 170003u);
    EXPECT_EQ(s.substr(0, 2), "<x");
    EXPECT_EQ(s.substr(100000, 3), "x| ");
    EXPECT_EQ(s.substr(s.size() - 3), " 7>");
    s.Printf("%s", s.c_str()); // formatting its own text
    EXPECT_EQ(s.size(), 170003u);
    s = "n=";
    s.AddPrintf("%d,%s", 5, "t");
    EXPECT_EQ(s, "n=5,t");
}

TEST(ZvAString, ReplaceNeverRescansInsertedText) {
    ZvAString s("aa");
    s.Replace("a", "aa");
    EXPECT_EQ(s, "aaaa");
    s = "a\\b\\\\c";
    s.Replace("\\", "/");
    EXPECT_EQ(s, "a/b//c");
    s = "xyx";
    s.Replace("x", "");
    EXPECT_EQ(s, "y");
    s.Replace("", "z"); // an empty pattern changes nothing
    EXPECT_EQ(s, "y");
}

TEST(ZvAString, CaseInsensitiveSearch) {
    ZvAString s("Crash Info: crash");
    EXPECT_EQ(s.IndexI("CRASH"), 0u);
    EXPECT_EQ(s.IndexI("CRASH", 1), 12u);
    EXPECT_EQ(s.IndexI("dump"), ZvAString::npos);
    EXPECT_EQ(s.FindI("info"), s.c_str() + 6);
    EXPECT_EQ(s.FindI("crash", 13), nullptr);
    EXPECT_EQ(ZvAString("MiXeD").ToLower(), "mixed");
}

using StringFiles = ScratchDir;

TEST_F(StringFiles, BinaryRoundTripKeepsEveryByte) {
    ZvAString bytes("a\0b\r\n\xff", 6), loaded("old");
    ASSERT_TRUE(bytes.SaveToFile(Path("bin").c_str()));
    ASSERT_TRUE(loaded.LoadFromFile(Path("bin").c_str()));
    EXPECT_EQ(loaded, bytes);
    EXPECT_FALSE(loaded.LoadFromFile(Path("missing").c_str()));
    EXPECT_EQ(loaded, bytes); // unchanged on failure
    EXPECT_FALSE(bytes.SaveToFile(Path("no/such/dir").c_str()));
}

TEST(ZvAStringList, SetDelimitedKeepsEmptyPieces) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"a,,b", {"a", "", "b"}},  {"a,", {"a", ""}}, {",", {"", ""}}, {"", {}},
        {" a , b", {" a ", " b"}},
    };
    ZvAStringList list;
    for (auto& c : cases) {
        list.Add("previous");
        list.SetDelimited(c.first, ',');
        ASSERT_EQ(list.Count(), c.second.size()) << c.first;
        for (unsigned i = 0; i < list.Count(); ++i)
            EXPECT_EQ(list[i], c.second[i]) << c.first;
    }
    EXPECT_EQ(list[7], "ZvStringList index error.");
}

TEST(ZvAStringList, TrimThenRemoveEmptyLines) {
    ZvAStringList list;
    list.SetDelimited(" a ,,\t,b", ',');
    list.RemoveEmptyLines();
    EXPECT_EQ(list.Count(), 3u); // the blank line survives until trimmed
    list.TrimAll();
    list.RemoveEmptyLines();
    ASSERT_EQ(list.Count(), 2u);
    EXPECT_EQ(list[0], "a");
    EXPECT_EQ(list[1], "b");
}

using StringListFiles = ScratchDir;

TEST_F(StringListFiles, LineEndingsSplitAsDocumented) {
    const std::pair<ZvAString, std::vector<std::string>> cases[] = {
        {"x\r\ny\n\nz", {"x", "y", "", "z"}},
        {"a\rb\n", {"a", "b"}},
        {"a\n\rb", {"a", "", "b"}}, // LF CR starts an empty line
        {"a\r\n\r\n", {"a", ""}},
        {ZvAString("a\nb\0c\nd", 7), {"a", "b"}}, // nothing after a NUL
        {"", {}},
    };
    for (auto& c : cases) {
        ZvAStringList list;
        EXPECT_TRUE(list.LoadFromFile(Write("lines", c.first)));
        ASSERT_EQ(list.Count(), c.second.size());
        for (unsigned i = 0; i < list.Count(); ++i)
            EXPECT_EQ(list[i], c.second[i]);
    }
}

TEST_F(StringListFiles, SaveAppendAndLoadRoundTrip) {
    ZvAStringList list, loaded;
    list.SetDelimited("one,,three", ',');
    ASSERT_TRUE(list.SaveToFile(Path("l").c_str()));
    ASSERT_TRUE(list.AppendToFile(Path("l").c_str()));
    EXPECT_EQ(Read(Path("l")), "one\n\nthree\none\n\nthree\n");
    loaded.Add("dropped");
    ASSERT_TRUE(loaded.LoadFromFile(Path("l")));
    ASSERT_EQ(loaded.Count(), 6u);
    EXPECT_EQ(loaded[5], "three");
    EXPECT_TRUE(loaded.AppendFromFile(Path("l")));
    EXPECT_EQ(loaded.Count(), 12u);
}

TEST_F(StringListFiles, MissingFileLeavesOneExplanatoryLine) {
    ZvAStringList list;
    list.Add("kept?");
    EXPECT_FALSE(list.AppendFromFile(Path("missing")));
    ASSERT_EQ(list.Count(), 1u);
    EXPECT_EQ(list[0], "Could not open file");
    EXPECT_FALSE(list.SaveToFile(Path("no/dir").c_str()));
}

} // namespace
