// Crash tidy and the crash zip: the joined per-core logs, the one zip that takes every file, the
// zip writer; zips are read back by zipfile.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "crash_zip_reader.h"
#include "zavra_test_files.h"
#include "zv-crash-decode-zip.h"
#include "zv-file-util.h"
#include "zv-zip.h"

using zavra_test::ReadFile;
using zavra_test::WriteFile;
using Names = std::vector<std::string>;
using Entries = std::map<std::string, std::string>;

namespace {

class CrashTidy : public ::testing::Test {
protected:
    // Paths in the scratch directory; with `make` each file is created holding "<name>".
    ZvAStringList Files(const Names& names, bool make = true) {
        ZvAStringList list;
        for (const std::string& name : names) {
            if (make && name.find("crash_dump_1") == std::string::npos) {
                EXPECT_TRUE(WriteFile(P(name), "<" + name + ">"));
            }
            list.Add(P(name).c_str());
        }
        return list;
    }
    std::string P(const std::string& name) const { return m_dir.File(name); }
    Names Short(const ZvAStringList& list) const {
        Names names;
        for (unsigned i = 0; i < list.Count(); ++i)
            names.push_back(list[i].substr(list[i].rfind('/') + 1));
        return names;
    }
    // The names of the files in a directory, sorted.
    Names Left(const std::string& dir) const {
        ZvAStringList onDisk;
        ZvFileUtil::GetDirFiles(dir.c_str(), onDisk, "*", false);
        Names left = Short(onDisk);
        std::sort(left.begin(), left.end());
        return left;
    }
    Entries Zip(const std::string& path) {
        Entries entries;
        EXPECT_TRUE(crash_test::ReadZip(path, entries)) << path;
        return entries;
    }
    zavra_test::TempDir m_dir;
};

TEST_F(CrashTidy, ZipTakesEveryFileUnderItsNameIntoTheOneCrashDumpZip) {
    ASSERT_TRUE(crash_test::WriteTargetZip(P("crash_dump_1.zip")));
    const ZvAStringList decoded =
        Files({"crash_dump.zip", "bb_events.txt", "logging_kor1_chunk1.zol", "crash_dump_1.zip",
               "logging_kor1_chunk2.zol", "crash_dump-1.zip", "m.log", "m.log", "gone.txt"});
    remove(P("gone.txt").c_str());
    ZvAStringList extras = Files({"run-crashlog.txt", "run-extram.dmp", "absent-extram.bin"});
    remove(P("absent-extram.bin").c_str()); // extras that do not exist are left out quietly
    ZvAString zipPath, error;
    EXPECT_TRUE(ZvCrashZip(decoded, &extras, zipPath, true, &error));
    EXPECT_EQ(zipPath, P("crash_dump_1.zip"));
    EXPECT_EQ(error, "Failed to add the '" + P("gone.txt") + "' file to the crash dump zip file.");
    auto expected = crash_test::TargetZipEntries();
    expected.insert(
        {{"bb_events_dup.txt", "<bb_events.txt>"},
         {"extram.dmp", "<run-extram.dmp>"},
         {"logging_kor_thread1.zol", "<logging_kor1_chunk1.zol><logging_kor1_chunk2.zol>"},
         {"m.log", "<m.log>"},
         {"run-crashlog.txt", "<run-crashlog.txt>"}});
    EXPECT_EQ(Zip(zipPath), expected);
    EXPECT_EQ(Left(m_dir.Path()),
              (Names{"crash_dump-1.zip", "crash_dump.zip", "crash_dump_1.zip"}));

    // A damaged zip from the target goes in whole, as one entry of a new crash zip. (A whole one
    // whose names reach out of its folder is made safe in the end-to-end crash tests.)
    const std::string corrupt = "not a zip";
    ASSERT_TRUE(WriteFile(zipPath, corrupt));
    EXPECT_TRUE(ZvCrashZip(Files({"m.log", "crash_dump_1.zip"}), nullptr, zipPath, false, &error));
    EXPECT_EQ(error, "The crash dump zip file '" + zipPath +
                         "' in the crash information is damaged; it is kept whole inside the "
                         "crash zip.");
    EXPECT_EQ(Zip(zipPath), (Entries{{"crash_dump_1.zip", corrupt}, {"m.log", "<m.log>"}}));
    EXPECT_FALSE(ZvCrashZip(Files({"m.log"}), nullptr, zipPath, true, &error));
    EXPECT_EQ(error, "Failed to find the crash dump zip file in the crash information.");
    EXPECT_EQ(ReadFile(P("m.log")), "<m.log>");
}

// The zip writer alone: new and appended entries, read back by zipfile.
TEST_F(CrashTidy, ZipEntriesCreatedAndAppendedReadBackByteForByte) {
    // A file of `size` pseudo-random bytes below `range`; its content.
    const auto make = [&](const std::string& name, size_t size, unsigned range) {
        std::mt19937 random(static_cast<unsigned>(size));
        std::string data(size, '\0');
        for (char& c : data)
            c = static_cast<char>(random() % range);
        EXPECT_TRUE(WriteFile(P(name), data));
        return data;
    };
    const std::string other = P("other.zip"), made = P("made.zip");
    ASSERT_TRUE(crash_test::WriteTargetZip(other)); // made by another tool
    const std::string empty = make("empty", 0, 256), binary = make("binary", 100000, 256);
    const std::string log = make("log", 400000, 4); // two bits a byte: about a quarter

    ZvZip zip;
    ASSERT_TRUE(zip.Open(made.c_str(), false));
    EXPECT_EQ(zip.GetPath(), made);
    EXPECT_TRUE(zip.Add(P("empty").c_str(), "empty.bin"));
    EXPECT_TRUE(zip.Add(P("binary").c_str(), "dir/binary.bin"));
    EXPECT_TRUE(zip.Add(P("log").c_str(), nullptr)); // under its path, made relative
    EXPECT_FALSE(zip.Add(P("missing").c_str(), "missing"));
    ASSERT_TRUE(zip.Open(other.c_str(), true)); // closes the first zip
    EXPECT_TRUE(zip.Add(P("binary").c_str(), "added.bin"));
    EXPECT_TRUE(zip.Close());

    EXPECT_EQ(
        Zip(made),
        (Entries{{"empty.bin", empty}, {"dir/binary.bin", binary}, {P("log").substr(1), log}}));
    EXPECT_LT(zavra_test::FileSize(made), 100000 + 400000 / 2);
    Entries expected = crash_test::TargetZipEntries();
    expected["added.bin"] = binary;
    EXPECT_EQ(Zip(other), expected);
}

} // namespace
