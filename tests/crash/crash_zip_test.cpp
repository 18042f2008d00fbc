#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

#include "crash_zip_reader.h"
#include "zavra_test_files.h"
#include "zv-zip.h"

using zavra_test::ReadFile;
using zavra_test::WriteFile;

namespace {

class Zip : public ::testing::Test {
protected:
    // A file of `size` pseudo-random bytes below `range`; its content.
    std::string Make(const std::string& name, size_t size, unsigned range) {
        std::mt19937 random(static_cast<unsigned>(size));
        std::string data(size, '\0');
        for (char& c : data)
            c = static_cast<char>(random() % range);
        EXPECT_TRUE(WriteFile(m_dir.File(name), data));
        return data;
    }
    zavra_test::TempDir m_dir;
    std::map<std::string, std::string> m_entries;
};

TEST_F(Zip, CreatedAndAppendedEntriesReadBackByteForByte) {
    const std::string other = m_dir.File("other.zip"), made = m_dir.File("made.zip");
    ASSERT_TRUE(crash_test::WriteTargetZip(other)); // made by another tool
    const std::string empty = Make("empty", 0, 256), binary = Make("binary", 100000, 256);
    const std::string log = Make("log", 400000, 4); // two bits a byte: about a quarter

    ZvZip zip;
    ASSERT_TRUE(zip.Open(made.c_str(), false));
    EXPECT_EQ(zip.GetPath(), made);
    EXPECT_TRUE(zip.Add(m_dir.File("empty").c_str(), "empty.bin"));
    EXPECT_TRUE(zip.Add(m_dir.File("binary").c_str(), "dir/binary.bin"));
    EXPECT_TRUE(zip.Add(m_dir.File("log").c_str(), nullptr)); // under its path, made relative
    EXPECT_FALSE(zip.Add(m_dir.File("missing").c_str(), "missing"));
    ASSERT_TRUE(zip.Open(other.c_str(), true)); // closes the first zip
    EXPECT_TRUE(zip.Add(m_dir.File("binary").c_str(), "added.bin"));
    EXPECT_TRUE(zip.Close());

    ASSERT_TRUE(crash_test::ReadZip(made, m_entries));
    EXPECT_EQ(m_entries, (std::map<std::string, std::string>{{"empty.bin", empty},
                                                             {"dir/binary.bin", binary},
                                                             {m_dir.File("log").substr(1), log}}));
    EXPECT_LT(zavra_test::FileSize(made), 100000 + 400000 / 2);
    ASSERT_TRUE(crash_test::ReadZip(other, m_entries));
    auto expected = crash_test::TargetZipEntries();
    expected["added.bin"] = binary;
    EXPECT_EQ(m_entries, expected);
}

TEST_F(Zip, AZipThatCannotBeOpenedIsLeftAsItWas) {
    const std::string garbage = "PK\x03\x04 not a zip, only its first bytes",
                      path = m_dir.File("g");
    ASSERT_TRUE(WriteFile(path, garbage));
    for (const std::string& name : {path, m_dir.File("missing")}) {
        ZvZip zip;
        EXPECT_FALSE(zip.Open(name.c_str(), true));
        EXPECT_FALSE(zip.Add(path.c_str(), "x"));
    }
    EXPECT_EQ(ReadFile(path), garbage);
    EXPECT_FALSE(zavra_test::FileExists(m_dir.File("missing")));
    EXPECT_EQ(ZvZipOpenFileFunc(nullptr, nullptr, ZLIB_FILEFUNC_MODE_READ), nullptr);
    EXPECT_EQ(ZvZipOpenFileFunc(nullptr, path.c_str(), ZLIB_FILEFUNC_MODE_WRITE), nullptr);
}

} // namespace
