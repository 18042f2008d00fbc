#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "crash_zip_reader.h"
#include "zavra_test_files.h"
#include "zv-crash-decode-zip.h"
#include "zv-file-util.h"

using zavra_test::FileExists;
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

TEST_F(CrashTidy, JoinFailuresNameChunkTwoAndTheTarget) {
    const std::string c1 = P("logging_kor0_chunk1.zol"), c2 = P("logging_kor0_chunk2.zol");
    const std::string target = P("logging_kor_thread0.zol");
    const struct {
        bool move, busyTarget; // a non-empty directory is neither replaced nor removed
        std::string verb;
        Names after;
    } cases[] = {
        {false, true, "copy", {c1, c2}},
        {true, true, "rename", {c1, c2}},
        {true, false, "append", {target, c2}}, // chunk 2 is gone; chunk 1 is now the target
    };
    for (const auto& c : cases) {
        ZvFileUtil::DeleteDir(target.c_str(), true);
        ZvAStringList files = Files({"logging_kor0_chunk1.zol", "logging_kor0_chunk2.zol"});
        if (c.busyTarget) {
            ASSERT_TRUE(ZvFileUtil::MakeDir(target.c_str()));
            ASSERT_TRUE(WriteFile(target + "/x", ""));
        } else {
            remove(c2.c_str());
        }
        ZvAString error;
        EXPECT_FALSE(ZvCrashTidyZolChunks(0, files, c.move, &error));
        EXPECT_EQ(error, "Failed to " + c.verb + " file from '" + c2 + "' to '" + target + "'.");
        EXPECT_EQ(Short(files), Short(Files(c.after, false)));
        EXPECT_EQ(ReadFile(c.after[0]), "<logging_kor0_chunk1.zol>");
    }
}

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

    // A damaged zip from the target goes in whole, as one entry of a new crash zip, and one whose
    // entry names would reach out of the folder it is unpacked in gets them made safe; a crash
    // zip is only ever complete.
    const std::string corrupt = "not a zip";
    ASSERT_TRUE(WriteFile(zipPath, corrupt));
    EXPECT_TRUE(ZvCrashZip(Files({"m.log", "crash_dump_1.zip"}), nullptr, zipPath, false, &error));
    EXPECT_EQ(error, "The crash dump zip file '" + zipPath +
                         "' in the crash information is damaged; it is kept whole inside the "
                         "crash zip.");
    EXPECT_EQ(Zip(zipPath), (Entries{{"crash_dump_1.zip", corrupt}, {"m.log", "<m.log>"}}));
    ASSERT_TRUE(crash_test::WriteZip(zipPath, {{"../../evil.txt", "a"},
                                               {"/etc/passwd", "b"},
                                               {"bell\a\\x.txt", "c"},
                                               {std::string(300, 'n'), "d"},
                                               {"logs/kept.txt", "e"}}));
    error.clear();
    EXPECT_TRUE(ZvCrashZip(Files({"m.log", "crash_dump_1.zip"}), nullptr, zipPath, false, &error));
    EXPECT_EQ(error, "");
    EXPECT_EQ(Zip(zipPath), (Entries{{"__/__/evil.txt", "a"},
                                     {"etc/passwd", "b"},
                                     {"bell_/x.txt", "c"},
                                     {std::string(255, 'n'), "d"},
                                     {"logs/kept.txt", "e"},
                                     {"m.log", "<m.log>"}}));
    EXPECT_EQ(Left(m_dir.Path()),
              (Names{"crash_dump-1.zip", "crash_dump.zip", "crash_dump_1.zip", "m.log"}))
        << "nothing half-made beside them";

    EXPECT_FALSE(ZvCrashZip(Files({"m.log"}), nullptr, zipPath, true, &error));
    EXPECT_EQ(error, "Failed to find the crash dump zip file in the crash information.");
    EXPECT_EQ(ReadFile(P("m.log")), "<m.log>");
}

TEST_F(CrashTidy, DecodeZipFailuresKeepTheFilesUnderTheirFinalNames) {
    // A non-empty directory where the crash log should go: the rename fails.
    const std::string out = P("out"), log = Files({"clfBBBBBB"})[0];
    ASSERT_TRUE(ZvFileUtil::MakeDir(out.c_str()) &&
                ZvFileUtil::MakeDir((out + "/crashlog.txt").c_str()) &&
                WriteFile(out + "/crashlog.txt/x", ""));
    ZvAtCrash::Response response;
    response.crashLogFile = log.c_str();
    response.coreDumpFile = Files({"exrBBBBBB"})[0];
    response.crashInfoFile = Files({"crhBBBBBB"})[0];
    const std::string noZip = "--Zavra debug info\nContent-Description: only.txt\n"
                              "Content-Transfer-Encoding: text/plain\nno zip\n--Zavra debug info\n";
    ASSERT_TRUE(WriteFile(response.crashInfoFile, noZip));
    ZvAStringList files;
    ZvAString error;
    EXPECT_TRUE(ZvCrashDecodeZip(response, out.c_str(), files, &error, false));
    EXPECT_EQ(error, "Failed to find the crash dump zip file in the crash information.");
    EXPECT_EQ(Short(files), (Names{"clfBBBBBB", "extram.dmp", "crash.txt"}));
    EXPECT_EQ(files[0], log);
    EXPECT_EQ(ReadFile(log) + ReadFile(out + "/extram.dmp") + ReadFile(out + "/only.txt"),
              "<clfBBBBBB><exrBBBBBB>no zip");

    response = ZvAtCrash::Response();
    response.crashInfoFile = P("crhCCCCCC").c_str();
    ASSERT_TRUE(WriteFile(P("crhCCCCCC"), "--Zavra debug info\nContent-Type: x\nbody\nmore\n"));
    EXPECT_TRUE(ZvCrashDecodeZip(response, out.c_str(), files, &error, false));
    EXPECT_EQ(error, "Crash data encoding not specified.");
    EXPECT_EQ(files[0], out + "/crash.txt");
    EXPECT_FALSE(ZvCrashDecodeZip(ZvAtCrash::Response(), out.c_str(), files, nullptr, true));
}

} // namespace
