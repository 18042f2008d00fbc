#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <tuple>

#include "scratch_dir.h"
#include "zv-file-find.h"
#include "zv-file.h"

using Files = ScratchDir;

// Every chdir of the program is counted (the test links with --wrap=chdir): the current directory
// belongs to every thread, so resolving a path must never move it.
namespace {
int g_chdirCalls = 0;
}
extern "C" int __real_chdir(const char* path);
extern "C" int __wrap_chdir(const char* path) {
    ++g_chdirCalls;
    return __real_chdir(path);
}

TEST_F(Files, PathsSplitAndBecomeAbsolute) {
    const char* cases[][2] = {
        // path, "drive|dir|name|ext"; backslash is no separator
        {"/a/b.c/file", "|/a/b.c/|file|"},
        {"x.tar.gz", "||x.tar|.gz"},
        {"C:\\dir\\f.txt", "C:||\\dir\\f|.txt"},
        {"c:/logs/run.zom", "c:|/logs/|run|.zom"},
        {"", "|||"},
    };
    for (auto& c : cases) {
        ZvAString drive("?"), dir("?"), name("?"), ext("?");
        ZvFileUtil::PathSplit(c[0], &drive, &dir, &name, &ext);
        EXPECT_EQ(drive + "|" + dir + "|" + name + "|" + ext, c[1]) << c[0];
    }
    ZvAString s("/a.b/c");
    ZvFileUtil::StripExt(s);
    EXPECT_EQ(s, "/a.b/c");
    s = "/d/log.tar.zom";
    ZvFileUtil::StripFullName(s, false);
    ZvFileUtil::AppendToPath(s, "y"); // adds the separator the stripped path lost
    EXPECT_EQ(s, "/d/y");

    ASSERT_TRUE(ZvFileUtil::MakeDir("sub"));
    Write("sub/f.txt", "");
    const std::tuple<const char*, bool, ZvAString> relative[] = {
        // path, is a directory, absolute path
        {" sub/../sub/f.txt ", false, m_dir + "/sub/f.txt"}, // existing: resolved by the system
        {"new/x.zom", false, m_dir + "/new/x.zom"},          // missing: appended as given
        {"sub/", true, m_dir + "/sub/"},
        {"", true, m_dir},
        {"/abs/d/", true, "/abs/d/"},
    };
    const int chdirCalls = g_chdirCalls;
    for (auto& [path, isDir, absolute] : relative) {
        ZvFileUtil::RelativeToAbsolutePath(path, s, isDir);
        EXPECT_EQ(s, absolute) << path;
    }
    EXPECT_EQ(g_chdirCalls, chdirCalls) << "the current directory was changed";
}

TEST_F(Files, WriteSeekAndSize) {
    ZvFile file;
    ASSERT_TRUE(file.Open("w", "w+b"));
    EXPECT_EQ(file.Write("n=42;\0\1", 7), 7u);
    long long size = 0;
    ASSERT_TRUE(file.Fseek(2, SEEK_SET));
    ASSERT_TRUE(file.GetSize(size));
    EXPECT_EQ(size, 7);
    EXPECT_EQ(file.Ftell(), 2); // the size query keeps the position
    char buffer[8] = {};
    EXPECT_EQ(file.Read(buffer, sizeof(buffer)), 5u);
    EXPECT_EQ(ZvAString(buffer, 5), ZvAString("42;\0\1", 5));
    ASSERT_TRUE(file.Fseek(5LL << 30, SEEK_SET)); // positions beyond 32 bits
    EXPECT_EQ(file.Ftell(), 5LL << 30);
}

TEST_F(Files, RenameAcrossFileSystemsCopiesAndRemoves) {
    // Across file systems a rename copies and removes; skipped without a second one.
    struct stat shm, here;
    if (stat("/dev/shm", &shm) != 0 || stat(".", &here) != 0 || shm.st_dev == here.st_dev ||
        access("/dev/shm", W_OK) != 0)
        GTEST_SKIP() << "no second writable file system";
    char pattern[] = "/dev/shm/zv_rename_XXXXXX";
    close(mkstemp(pattern));
    ASSERT_TRUE(ZvAString("moved").SaveToFile(pattern));
    EXPECT_TRUE(ZvFile::Rename(pattern, "here"));
    EXPECT_FALSE(ZvFile::Exists(pattern));
    EXPECT_EQ(Read("here"), "moved");
    unlink(pattern);
}

TEST_F(Files, TypesTreesAndFindMatchingShellWildcardsIncludingDotNames) {
    Write("f", "abc");
    EXPECT_EQ(ZvFileUtil::GetFileType("/dev/null"), ZvFileUtil::FileTypeOther);
    EXPECT_EQ(ZvFileUtil::GetFileType(ZvAString(5000, 'n').c_str()), ZvFileUtil::FileTypeFailure);
    EXPECT_EQ(ZvFileUtil::GetFileSize("none"), -1);
    for (const char* dir : {"tree", "tree/a", "tree/a/b"})
        ASSERT_TRUE(ZvFileUtil::MakeDir(dir));
    for (const char* name : {"tree/a.zom", "tree/.hidden.zom", "tree/c.txt", "tree/a/b/deep.zom"})
        Write(name, "");
    ASSERT_TRUE(ZvFileUtil::MakeDir("tree/d.zom"));
    EXPECT_FALSE(ZvFileUtil::MakeDir("tree/d.zom"));
    EXPECT_EQ(ZvFileUtil::GetFileType("tree/d.zom"), ZvFileUtil::FileTypeDirectory);

    ZvFileFind find;
    ZvFindFileData data;
    std::set<std::pair<std::string, int>> found;
    for (bool more = find.FindFirst("tree", "*.zom", data); more; more = find.FindNext(data))
        found.insert({data.name, data.type});
    EXPECT_EQ(found, (std::set<std::pair<std::string, int>>{
                         {"a.zom", 1}, {".hidden.zom", 1}, {"d.zom", 2}}));
    EXPECT_TRUE(find.FindFirst("tree", "c.*", data)); // a new search starts over
    EXPECT_EQ(data.name, "c.txt");

    ZvAStringList list;
    EXPECT_TRUE(ZvFileUtil::GetDirFiles("tree", list, "*.zom", true));
    ASSERT_EQ(list.Count(), 3u); // files only, from every level
    EXPECT_EQ((std::set<std::string>{list[0], list[1], list[2]}),
              (std::set<std::string>{"tree/a.zom", "tree/.hidden.zom", "tree/a/b/deep.zom"}));
    EXPECT_FALSE(ZvFileUtil::DeleteDir("tree", false));
    EXPECT_TRUE(ZvFileUtil::DeleteDir("tree", true));
    EXPECT_EQ(ZvFileUtil::GetFileType("tree"), ZvFileUtil::FileTypeMissing);
}
