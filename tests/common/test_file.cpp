#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "scratch_dir.h"
#include "zv-file.h"

namespace {

using FileTest = ScratchDir;

TEST_F(FileTest, ReadLineReturnsWholeLinesWithTheirEndings) {
    const ZvAString longLine(700, 'L');
    ZvFile file;
    ASSERT_TRUE(file.Open(Write("t", longLine + "\nwin\r\n\nlast").c_str(), "rb"));
    ZvAString line;
    const char* text = file.ReadLine(line);
    EXPECT_EQ(text, line.c_str());
    EXPECT_EQ(line, longLine + "\n"); // longer than the 300-byte buffer
    file.ReadLine(line);
    EXPECT_EQ(line, "win\r\n");
    char* copy = file.ReadLine();
    EXPECT_STREQ(copy, "\n");
    free(copy);
    EXPECT_NE(file.ReadLine(line), nullptr);
    EXPECT_EQ(line, "last");
    EXPECT_EQ(file.ReadLine(), nullptr);
    EXPECT_TRUE(file.IsEof());
}

TEST_F(FileTest, WriteSeekAndSizeRoundTrip) {
    ZvFile file;
    ASSERT_TRUE(file.Open(Path("w").c_str(), "w+b"));
    EXPECT_EQ(file.Printf("%s=%d;", "n", 42), 5);
    EXPECT_EQ(file.Write("\0\1", 2), 2u);
    long long size = 0;
    ASSERT_TRUE(file.Fseek(2, SEEK_SET));
    ASSERT_TRUE(file.GetSize(size));
    EXPECT_EQ(size, 7);
    EXPECT_EQ(file.Ftell(), 2); // the size query keeps the position
    char buffer[8] = {};
    EXPECT_EQ(file.Read(buffer, sizeof(buffer)), 5u);
    EXPECT_EQ(ZvAString(buffer, 5), ZvAString("42;\0\1", 5));
    // Positions beyond 32 bits.
    ASSERT_TRUE(file.Fseek(5LL << 30, SEEK_SET));
    EXPECT_EQ(file.Ftell(), 5LL << 30);
    EXPECT_FALSE(ZvFile::GetSize(Path("missing").c_str(), size));
}

TEST(ZvFileClosed, ReportsNothingReadableAndNoError) {
    ZvFile file;
    ZvAString line("x");
    EXPECT_EQ(file.ReadLine(line), nullptr);
    EXPECT_EQ(line, "");
    EXPECT_TRUE(file.IsEof() && !file.IsError());
    EXPECT_FALSE(file.Fseek(0, SEEK_SET));
    EXPECT_EQ(file.Printf("x"), -1);
}

TEST_F(FileTest, CopyAndAppendDifferOnTheSameName) {
    ZvAString a = Write("a", ZvAString(10000, 'a') + ZvAString("\0z", 2));
    EXPECT_TRUE(ZvFile::Copy(a.c_str(), a.c_str(), true));
    EXPECT_FALSE(ZvFile::Append(a.c_str(), a.c_str()));
    const ZvAString sameFile = m_dir + "/./a";
    EXPECT_TRUE(ZvFile::Copy(a.c_str(), sameFile.c_str(), false));
    EXPECT_FALSE(ZvFile::Append(sameFile.c_str(), a.c_str()));
    EXPECT_EQ(Read(a).size(), 10002u); // neither touched the file

    ZvAString b = Path("b");
    EXPECT_TRUE(ZvFile::Copy(a.c_str(), b.c_str(), true));
    EXPECT_EQ(Read(b), Read(a));
    EXPECT_FALSE(ZvFile::Copy(a.c_str(), b.c_str(), true));
    EXPECT_TRUE(ZvFile::Append(b.c_str(), Write("tail", "tail").c_str()));
    EXPECT_EQ(Read(b), Read(a) + "tail");
    EXPECT_TRUE(ZvFile::Copy(Path("tail").c_str(), b.c_str(), false)); // overwrites
    EXPECT_EQ(Read(b), "tail");
}

TEST_F(FileTest, RenameAcrossFileSystemsCopiesAndRemoves) {
    struct stat shm, here;
    if (stat("/dev/shm", &shm) != 0 || stat(m_dir.c_str(), &here) != 0 ||
        shm.st_dev == here.st_dev || access("/dev/shm", W_OK) != 0)
        GTEST_SKIP() << "no second writable file system";
    char pattern[] = "/dev/shm/zv_rename_XXXXXX";
    int fd = mkstemp(pattern);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_TRUE(ZvAString("moved").SaveToFile(pattern));
    EXPECT_TRUE(ZvFile::Rename(pattern, Path("here").c_str()));
    EXPECT_FALSE(ZvFile::Exists(pattern));
    EXPECT_EQ(Read(Path("here")), "moved");
    unlink(pattern);
}

TEST_F(FileTest, MakeWriteableAddsOnlyOwnerReadAndWrite) {
    ZvAString f = Write("f", "x");
    ASSERT_EQ(chmod(f.c_str(), 0044), 0);
    EXPECT_TRUE(ZvFile::MakeWriteable(f.c_str()));
    struct stat info;
    ASSERT_EQ(stat(f.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    EXPECT_FALSE(ZvFile::MakeWriteable(Path("missing").c_str()));
}

} // namespace
