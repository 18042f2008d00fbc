#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "scratch_dir.h"
#include "zv-file-util.h"
#include "zv-file.h"

namespace {

using ::testing::MatchesRegex;
using ::testing::UnorderedElementsAre;

TEST(ZvFileUtilPaths, SplitIntoDriveDirectoryNameAndExtension) {
    const char* cases[][2] = {
        // path, "drive|dir|name|ext"
        {"/a/b.c/file", "|/a/b.c/|file|"},
        {"x.tar.gz", "||x.tar|.gz"},
        {".profile", "|||.profile"},
        {"C:\\dir\\f.txt", "C:||\\dir\\f|.txt"}, // backslash is no separator
        {"c:/logs/run.zom", "c:|/logs/|run|.zom"},
        {"dir/", "|dir/||"},
        {"", "|||"},
    };
    for (auto& c : cases) {
        ZvAString drive("?"), dir("?"), name("?"), ext("?"), merged;
        ZvFileUtil::PathSplit(c[0], &drive, &dir, &name, &ext);
        EXPECT_EQ(drive + "|" + dir + "|" + name + "|" + ext, c[1]) << c[0];
        ZvFileUtil::PathMerge(merged, drive.c_str(), dir.c_str(), name.c_str(), ext.c_str());
        EXPECT_EQ(merged, c[0]);
    }
}

TEST(ZvFileUtilPaths, StrippingAndChangingLookOnlyAtTheFileName) {
    ZvAString s("/a.b/c");
    ZvFileUtil::StripExt(s);
    EXPECT_EQ(s, "/a.b/c");
    ZvFileUtil::ChangeFileExt(s, "/d/log.tar.zom", ".zx");
    EXPECT_EQ(s, "/d/log.tar.zx");
    ZvFileUtil::StripFullName(s, false);
    ZvFileUtil::AppendToPath(s, "y"); // adds the separator the stripped path lost
    EXPECT_EQ(s, "/d/y");
    ZvFileUtil::ChangeFullFileName(s, "run.zom", "crash.zip");
    EXPECT_EQ(s, "crash.zip");
}

class FileUtilDir : public ScratchDir {
protected:
    void SetUp() override {
        ScratchDir::SetUp();
        ASSERT_TRUE(ZvFileUtil::GetCwd(m_savedCwd));
        ASSERT_TRUE(ZvFileUtil::ChDir(m_dir.c_str()));
        ASSERT_TRUE(ZvFileUtil::GetCwd(m_dir)); // the resolved form, as getcwd reports it
    }
    void TearDown() override {
        EXPECT_TRUE(ZvFileUtil::ChDir(m_savedCwd.c_str()));
        ScratchDir::TearDown();
    }
    ZvAString m_savedCwd;
};

TEST_F(FileUtilDir, FileTypesAndDirectories) {
    Write("f", "abc");
    EXPECT_TRUE(ZvFileUtil::MakeDir(Path("d").c_str()));
    EXPECT_FALSE(ZvFileUtil::MakeDir(Path("d").c_str()));
    EXPECT_EQ(ZvFileUtil::GetFileType(Path("f").c_str()), ZvFileUtil::FileTypeRegular);
    EXPECT_EQ(ZvFileUtil::GetFileType(Path("d").c_str()), ZvFileUtil::FileTypeDirectory);
    EXPECT_EQ(ZvFileUtil::GetFileType("/dev/null"), ZvFileUtil::FileTypeOther);
    EXPECT_EQ(ZvFileUtil::GetFileType(Path("none").c_str()), ZvFileUtil::FileTypeMissing);
    EXPECT_EQ(ZvFileUtil::GetFileType(ZvAString(5000, 'n').c_str()), ZvFileUtil::FileTypeFailure);
    EXPECT_EQ(ZvFileUtil::GetFileSize("f"), 3);
    EXPECT_EQ(ZvFileUtil::GetFileSize("none"), -1);
}

TEST_F(FileUtilDir, RelativePathsBecomeAbsolute) {
    ASSERT_TRUE(ZvFileUtil::MakeDir("sub"));
    Write("sub/f.txt", "");
    const std::pair<const char*, ZvAString> files[] = {
        {"f.txt", m_dir + "/f.txt"},
        {" sub/../sub/f.txt ", m_dir + "/sub/f.txt"}, // existing: resolved by the system
        {"new/x.zom", m_dir + "/new/x.zom"},          // missing: appended as given
        {"/abs/x", "/abs/x"},
    };
    ZvAString out;
    for (auto& c : files) {
        ZvFileUtil::RelativeToAbsolutePath(c.first, out, false);
        EXPECT_EQ(out, c.second) << c.first;
    }
    const std::pair<const char*, ZvAString> dirs[] = {
        {"sub/", m_dir + "/sub/"}, {".", m_dir}, {"", m_dir}, {"/abs/d/", "/abs/d/"}};
    for (auto& c : dirs) {
        ZvFileUtil::RelativeToAbsolutePath(c.first, out, true);
        EXPECT_EQ(out, c.second) << c.first;
    }
}

// The only test that sets the writable directory, so its first call sees it unset.
TEST_F(FileUtilDir, TempFilesAreCreatedUniqueAndLeftInPlace) {
    ZvAString first, second;
    ASSERT_TRUE(ZvFileUtil::GetTempFileName("crash_", first));
    EXPECT_THAT(first, MatchesRegex(m_dir + "/crash_[A-Za-z0-9]{6}")); // the current directory
    EXPECT_EQ(ZvFileUtil::GetFileSize(first.c_str()), 0);

    ASSERT_TRUE(ZvFileUtil::MakeDir("tmp"));
    ASSERT_TRUE(ZvFileUtil::SetWritableDir("tmp"));
    ASSERT_TRUE(ZvFileUtil::GetTempFileName("crash_", first));
    ASSERT_TRUE(ZvFileUtil::GetTempFileName("crash_", second));
    EXPECT_NE(first, second);
    EXPECT_THAT(first, MatchesRegex(m_dir + "/tmp/crash_[A-Za-z0-9]{6}"));
    ASSERT_TRUE(ZvFileUtil::GetTempFileName("tmp", "p", ".zom", first));
    EXPECT_THAT(first, MatchesRegex("tmp/p[A-Za-z0-9]{6}\\.zom"));
    EXPECT_FALSE(ZvFileUtil::GetTempFileName("missing", "p", "", first));
    ZvFileUtil::SetWritableDir(m_savedCwd.c_str()); // leave no dangling directory behind
}

TEST_F(FileUtilDir, FindMatchesShellWildcardsIncludingDotNames) {
    for (const char* name : {"a.zom", "b.zom", ".hidden.zom", "c.txt"})
        Write(name, "");
    ASSERT_TRUE(ZvFileUtil::MakeDir("d.zom"));
    ZvFileFind find;
    ZvFindFileData data;
    std::set<std::pair<std::string, int>> found;
    for (bool more = find.FindFirst(".", "*.zom", data); more; more = find.FindNext(data))
        found.insert({data.name, data.type});
    EXPECT_THAT(found,
                UnorderedElementsAre(std::make_pair("a.zom", 1), std::make_pair("b.zom", 1),
                                     std::make_pair(".hidden.zom", 1), std::make_pair("d.zom", 2)));
    EXPECT_TRUE(find.FindFirst(".", "c.*", data)); // a new search starts over
    EXPECT_EQ(data.name, "c.txt");
}

TEST_F(FileUtilDir, DirectoryTrees) {
    EXPECT_TRUE(ZvFileUtil::MakePath(" tree\\a/b//c/file.txt ", true));
    EXPECT_TRUE(ZvFileUtil::IsDir("tree/a/b/c"));
    EXPECT_FALSE(ZvFile::Exists("tree/a/b/c/file.txt"));
    Write("tree/top.zom", "");
    Write("tree/a/b/deep.zom", "");
    Write("tree/a/skip.txt", "");
    Write("blocker", "");
    EXPECT_FALSE(ZvFileUtil::MakePath("blocker/sub", false));

    ZvAStringList list;
    EXPECT_TRUE(ZvFileUtil::GetDirFiles("tree", list, "*.zom", true));
    ASSERT_EQ(list.Count(), 2u);
    EXPECT_THAT((std::set<std::string>{list[0], list[1]}),
                UnorderedElementsAre("tree/top.zom", "tree/a/b/deep.zom"));

    EXPECT_FALSE(ZvFileUtil::DeleteDir("tree", false));
    EXPECT_TRUE(ZvFileUtil::DeleteDir("tree", true));
    EXPECT_EQ(ZvFileUtil::GetFileType("tree"), ZvFileUtil::FileTypeMissing);
}

} // namespace
