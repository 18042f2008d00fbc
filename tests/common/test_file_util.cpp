#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "scratch_dir.h"
#include "zv-file-util.h"
#include "zv-file.h"

namespace {

using ::testing::MatchesRegex;
using ::testing::UnorderedElementsAre;

struct SplitCase {
    const char* path;
    const char* drive;
    const char* dir;
    const char* name;
    const char* ext;
};

TEST(ZvFileUtilPaths, SplitIntoDriveDirectoryNameAndExtension) {
    const SplitCase cases[] = {
        {"/a/b.c/file", "", "/a/b.c/", "file", ""},
        {"x.tar.gz", "", "", "x.tar", ".gz"},
        {".profile", "", "", "", ".profile"},
        {"C:\\dir\\f.txt", "C:", "", "\\dir\\f", ".txt"}, // backslash is no separator
        {"c:/logs/run.zom", "c:", "/logs/", "run", ".zom"},
        {"dir/", "", "dir/", "", ""},
        {"/", "", "/", "", ""},
    };
    for (const SplitCase& c : cases) {
        ZvAString drive("?"), dir("?"), name("?"), ext("?"), merged;
        ZvFileUtil::PathSplit(c.path, &drive, &dir, &name, &ext);
        EXPECT_EQ(drive, c.drive) << c.path;
        EXPECT_EQ(dir, c.dir) << c.path;
        EXPECT_EQ(name, c.name) << c.path;
        EXPECT_EQ(ext, c.ext) << c.path;
        ZvFileUtil::PathMerge(merged, drive.c_str(), dir.c_str(), name.c_str(), ext.c_str());
        EXPECT_EQ(merged, c.path);
    }
    ZvAString name("?");
    ZvFileUtil::PathSplit("", nullptr, nullptr, &name, nullptr);
    EXPECT_EQ(name, "");
}

TEST(ZvFileUtilPaths, NameAndExtensionPointers) {
    const char* path = "/a.b/c";
    EXPECT_EQ(ZvFileUtil::GetFullName(path), path + 5);
    EXPECT_EQ(ZvFileUtil::GetExt(path), nullptr);
    EXPECT_STREQ(ZvFileUtil::GetExt("/d/f.tar.gz"), ".gz");
    EXPECT_STREQ(ZvFileUtil::GetFullName("plain"), "plain");
    EXPECT_EQ(ZvFileUtil::GetFullName(""), nullptr);
    EXPECT_EQ(ZvFileUtil::GetExt(nullptr), nullptr);
    ZvAString dir;
    ZvFileUtil::GetFullDir("c:/x/y.z", dir);
    EXPECT_EQ(dir, "c:/x/");
}

// Applies an editing helper to `text` and returns the result.
template <class Edit>
ZvAString Edited(const char* text, Edit edit) {
    ZvAString s(text);
    edit(s);
    return s;
}

TEST(ZvFileUtilPaths, StrippingAndChanging) {
    using U = ZvFileUtil;
    EXPECT_EQ(Edited("/a.b/c", U::StripExt), "/a.b/c");
    EXPECT_EQ(Edited("/a/c.d.e", U::StripExt), "/a/c.d");
    EXPECT_EQ(Edited("/a/b/c.x", U::StripPath), "c.x");
    EXPECT_EQ(Edited("/a/b/c.x", [](ZvAString& s) { U::StripFullName(s, false); }), "/a/b");
    EXPECT_EQ(Edited("/a/b/c.x", [](ZvAString& s) { U::StripFullName(s, true); }), "/a/b/");
    EXPECT_EQ(Edited("c.x", [](ZvAString& s) { U::StripFullName(s, true); }), "");
    EXPECT_EQ(Edited("/d/log.zom", [](ZvAString& s) { U::ChangeFileExt(s, ".zx"); }), "/d/log.zx");
    EXPECT_EQ(Edited("", [](ZvAString& s) { U::AppendToPath(s, "x"); }), "x");
    EXPECT_EQ(Edited("/tmp/", [](ZvAString& s) { U::AppendToPath(s, "x"); }), "/tmp/x");
    EXPECT_EQ(Edited("/tmp", [](ZvAString& s) { U::AppendToPath(s, "x"); }), "/tmp/x");
    ZvAString s;
    U::ChangeFileExt(s, "/d.d/run", ".txt");
    EXPECT_EQ(s, "/d.d/run.txt");
    U::ChangeFullFileName(s, "/d/run.zom", "crash.zip");
    EXPECT_EQ(s, "/d/crash.zip");
    U::ChangeFullFileName(s, "run.zom", "crash.zip");
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
    EXPECT_TRUE(ZvFileUtil::IsDir("d"));
    EXPECT_FALSE(ZvFileUtil::IsDir("f"));
    EXPECT_TRUE(ZvFileUtil::DirExists("f"));
    EXPECT_FALSE(ZvFileUtil::DirExists(""));
    EXPECT_EQ(ZvFileUtil::GetFileSize("f"), 3);
    EXPECT_EQ(ZvFileUtil::GetFileSize("none"), -1);
    EXPECT_TRUE(ZvFileUtil::DelFile("f"));
    EXPECT_FALSE(ZvFileUtil::DelFile("f"));
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
        {"sub", m_dir + "/sub"},
        {"sub/", m_dir + "/sub/"},
        {".", m_dir},
        {"", m_dir},
        {"/abs/d/", "/abs/d/"},
        {"/", "/"},
    };
    for (auto& c : dirs) {
        ZvFileUtil::RelativeToAbsolutePath(c.first, out, true);
        EXPECT_EQ(out, c.second) << c.first;
    }
    ZvAString cwd;
    ZvFileUtil::GetCurrentDir(cwd);
    EXPECT_EQ(cwd, m_dir);
}

TEST_F(FileUtilDir, TempFilesWithoutAWritableDirAreInTheCurrentDir) {
    // The writable directory must never have been set: check it in a fresh process.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ZvAString name;
            bool made = ZvFileUtil::GetTempFileName("crash_", name);
            bool ok = made && name.size() == m_dir.size() + 13 &&
                      name.StartsWith((m_dir + "/crash_").c_str()) &&
                      ZvFileUtil::GetFileSize(name.c_str()) == 0;
            ZvFileUtil::ChDir("/");
            ZvFileUtil::DeleteDir(m_dir.c_str(), true); // this process's own scratch directory
            exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(FileUtilDir, TempFilesAreUniqueAndLeftInPlace) {
    ASSERT_TRUE(ZvFileUtil::MakeDir("tmp"));
    ASSERT_TRUE(ZvFileUtil::SetWritableDir("tmp"));
    ZvAString dir, first, second;
    ZvFileUtil::GetTempDir(dir);
    EXPECT_EQ(dir, m_dir + "/tmp/");
    ASSERT_TRUE(ZvFileUtil::GetTempFileName("zx_", first));
    ASSERT_TRUE(ZvFileUtil::GetTempFileName("zx_", second));
    EXPECT_NE(first, second);
    EXPECT_THAT(first, MatchesRegex(dir + "zx_[A-Za-z0-9]{6}"));
    int fd = ZvFileUtil::GetTempFileOs("os_", first);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write(fd, "abc", 3), 3);
    close(fd);
    EXPECT_EQ(Read(first), "abc");

    ASSERT_TRUE(ZvFileUtil::GetTempFileName("tmp", "p", ".zom", first));
    EXPECT_THAT(first, MatchesRegex("tmp/p[A-Za-z0-9]{6}\\.zom"));
    EXPECT_TRUE(ZvFile::Exists(first.c_str()));
    EXPECT_FALSE(ZvFileUtil::GetTempFileName("tmp", nullptr, ".zom", first));
    EXPECT_FALSE(ZvFileUtil::GetTempFileName("missing", "p", "", first));
    ZvFileUtil::SetWritableDir(m_dir.c_str()); // leave no dangling directory behind
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
    EXPECT_FALSE(find.FindNext(data));
    EXPECT_TRUE(find.FindFirst(".", "c.*", data)); // a new search starts over
    EXPECT_EQ(data.name, "c.txt");
    EXPECT_FALSE(find.FindFirst("missing", "*", data));
    EXPECT_FALSE(find.FindNext(data));
}

TEST_F(FileUtilDir, DirectoryTrees) {
    EXPECT_TRUE(ZvFileUtil::MakePath(" tree\\a/b//c/file.txt ", true));
    EXPECT_TRUE(ZvFileUtil::IsDir("tree/a/b/c"));
    EXPECT_FALSE(ZvFile::Exists("tree/a/b/c/file.txt"));
    EXPECT_TRUE(ZvFileUtil::MakePath((m_dir + "/tree/x").c_str(), false));
    Write("tree/top.zom", "");
    Write("tree/a/b/deep.zom", "");
    Write("tree/a/skip.txt", "");
    Write("blocker", "");
    EXPECT_FALSE(ZvFileUtil::MakePath("blocker/sub", false));

    ZvAStringList list;
    EXPECT_TRUE(ZvFileUtil::GetDirFiles("tree", list, "*.zom", true));
    std::vector<std::string> files;
    for (unsigned i = 0; i < list.Count(); ++i)
        files.push_back(list[i]);
    EXPECT_THAT(files, UnorderedElementsAre("tree/top.zom", "tree/a/b/deep.zom"));

    EXPECT_FALSE(ZvFileUtil::DeleteDir("tree", false));
    EXPECT_TRUE(ZvFileUtil::DeleteDir("tree", true));
    EXPECT_EQ(ZvFileUtil::GetFileType("tree"), ZvFileUtil::FileTypeMissing);
}

TEST(ZvFileUtilProcess, UserDirAndExePath) {
    ZvAString home;
    if (getenv("HOME") != nullptr) {
        EXPECT_TRUE(ZvFileUtil::GetUserDir(home));
        EXPECT_EQ(home, ZvAString(getenv("HOME")) + "/");
    }
    EXPECT_THAT(ZvFileUtil::GetExePath(), ::testing::EndsWith("/common_tests"));
}

} // namespace
