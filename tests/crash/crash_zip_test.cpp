#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

#include "crash_zip_reader.h"
#include "zavra_test_files.h"
#include "zv-zip.h"

using crash_test::ReadZip;
using crash_test::ZipEntries;
using zavra_test::ReadFile;
using zavra_test::WriteFile;

namespace {

class Zip : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(m_dir.Path().empty()); }
    // A file of `size` pseudo-random bytes drawn from `alphabet` values (256: any byte).
    std::string MakeFile(const std::string& name, size_t size, unsigned alphabet) {
        std::mt19937 random(static_cast<unsigned>(size));
        std::string data(size, '\0');
        for (char& c : data)
            c = static_cast<char>(random() % alphabet);
        EXPECT_TRUE(WriteFile(m_dir.File(name), data));
        return data;
    }

    zavra_test::TempDir m_dir;
};

TEST_F(Zip, OpenFunctionPicksTheModeMinizipAsksFor) {
    const std::string existing = m_dir.File("existing");
    ASSERT_TRUE(WriteFile(existing, "abc"));
    const struct {
        int mode;
        const char* path;
        bool opens;
        const char* after; // content once "XY" has been written at the start (null: not tried)
    } cases[] = {
        {ZLIB_FILEFUNC_MODE_READ, "existing", true, nullptr},
        {ZLIB_FILEFUNC_MODE_READ | ZLIB_FILEFUNC_MODE_EXISTING, "existing", true, nullptr},
        {ZLIB_FILEFUNC_MODE_READ, "missing", false, nullptr},
        {ZLIB_FILEFUNC_MODE_READWRITEFILTER | ZLIB_FILEFUNC_MODE_EXISTING, "existing", true, "XYc"},
        {ZLIB_FILEFUNC_MODE_WRITE | ZLIB_FILEFUNC_MODE_CREATE, "existing", true, "XY"},
        {ZLIB_FILEFUNC_MODE_WRITE, "existing", false, nullptr},
        {0, "existing", false, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        ASSERT_TRUE(WriteFile(existing, "abc"));
        const std::string path = m_dir.File(c.path);
        FILE* file = ZvZipOpenFileFunc(nullptr, path.c_str(), c.mode);
        EXPECT_EQ(file != nullptr, c.opens);
        if (file == nullptr)
            continue;
        if (c.after != nullptr) {
            EXPECT_EQ(fwrite("XY", 1, 2, file), 2u);
        }
        fclose(file);
        EXPECT_EQ(ReadFile(existing), c.after != nullptr ? c.after : "abc");
    }
    EXPECT_EQ(ZvZipOpenFileFunc(nullptr, nullptr, ZLIB_FILEFUNC_MODE_READ), nullptr);
}

TEST_F(Zip, EntriesReadBackByteForByteWithAnotherReader) {
    const std::string empty = MakeFile("empty.bin", 0, 256);
    const std::string binary = MakeFile("binary.bin", 100000, 256); // many 4096-byte blocks
    const std::string text = MakeFile("log.txt", 40000, 4);         // compresses well
    const std::string zipPath = m_dir.File("made.zip");
    {
        ZvZip zip;
        ASSERT_TRUE(zip.Open(zipPath.c_str(), false));
        EXPECT_EQ(zip.GetPath(), zipPath);
        EXPECT_TRUE(zip.Add(m_dir.File("empty.bin").c_str(), "empty.bin"));
        EXPECT_TRUE(zip.Add(m_dir.File("binary.bin").c_str(), "dir/binary.bin"));
        EXPECT_TRUE(zip.Add(m_dir.File("log.txt").c_str(), nullptr)); // stored as its path
        EXPECT_FALSE(zip.Add(m_dir.File("missing").c_str(), "missing"));
        // The destructor writes the central directory.
    }
    ZipEntries entries;
    std::string error;
    ASSERT_TRUE(ReadZip(zipPath, entries, &error)) << error;
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries["empty.bin"].data, empty);
    EXPECT_EQ(entries["dir/binary.bin"].data, binary);
    EXPECT_EQ(entries[m_dir.File("log.txt")].data, text);
    for (const auto& [name, entry] : entries)
        EXPECT_EQ(entry.method, 8) << name; // deflated
    EXPECT_LT(zavra_test::FileSize(zipPath), 100000 + 40000 / 2);
}

TEST_F(Zip, AppendingKeepsTheEntriesOfAZipMadeByAnotherTool) {
    const std::string events = MakeFile("bb_events.txt", 3000, 26);
    const std::string regs = MakeFile("regs.bin", 5000, 256);
    const std::string zipPath = m_dir.File("target.zip");
    ASSERT_TRUE(crash_test::WriteZip(zipPath, {{"bb_events.txt", m_dir.File("bb_events.txt")},
                                               {"regs.bin", m_dir.File("regs.bin")}}));
    const std::string added = MakeFile("added.bin", 9000, 256);

    ZvZip zip;
    ASSERT_TRUE(zip.Open(zipPath.c_str(), true));
    EXPECT_TRUE(zip.Add(m_dir.File("added.bin").c_str(), "added.bin"));
    // Opening another zip closes this one.
    ASSERT_TRUE(zip.Open(m_dir.File("second.zip").c_str(), false));
    ZipEntries entries;
    std::string error;
    ASSERT_TRUE(ReadZip(zipPath, entries, &error)) << error;
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries["bb_events.txt"].data, events);
    EXPECT_EQ(entries["regs.bin"].data, regs);
    EXPECT_EQ(entries["added.bin"].data, added);
    EXPECT_TRUE(zip.Close());
    EXPECT_TRUE(ReadZip(m_dir.File("second.zip"), entries, &error)) << error;
    EXPECT_TRUE(entries.empty());
}

TEST_F(Zip, AZipThatCannotBeOpenedIsLeftAsItWas) {
    const std::string garbage = "PK\x03\x04 this is not a zip at all, just its first bytes";
    const struct {
        const char* name;
        const char* content; // null: no file
    } cases[] = {{"missing.zip", nullptr}, {"garbage.zip", garbage.c_str()}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = m_dir.File(c.name);
        if (c.content != nullptr) {
            ASSERT_TRUE(WriteFile(path, c.content));
        }
        ZvZip zip;
        EXPECT_FALSE(zip.Open(path.c_str(), true));
        EXPECT_FALSE(zip.IsOpen());
        EXPECT_FALSE(zip.Add(path.c_str(), "x"));
        EXPECT_TRUE(zip.Close());
        EXPECT_EQ(zavra_test::FileExists(path), c.content != nullptr);
        if (c.content != nullptr) {
            EXPECT_EQ(ReadFile(path), c.content);
        }
    }
}

} // namespace
