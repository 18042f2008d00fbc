#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "crash_zip_reader.h"
#include "zavra_test_files.h"
#include "zv-crash-decode-zip.h"
#include "zv-file-util.h"
#include "zv-string-list-ascii.h"

using crash_test::ReadZip;
using crash_test::ZipEntries;
using zavra_test::FileExists;
using zavra_test::ReadFile;
using zavra_test::WriteFile;

namespace {

std::vector<std::string> Names(const ZvAStringList& list) {
    std::vector<std::string> names;
    for (unsigned i = 0; i < list.Count(); ++i)
        names.push_back(list[i]);
    return names;
}

ZvAStringList List(const std::vector<std::string>& names) {
    ZvAStringList list;
    for (const std::string& name : names)
        list.Add(name.c_str());
    return list;
}

class CrashTidy : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(m_dir.Path().empty()); }
    // Creates the file with its own name as content; returns its path.
    std::string Make(const std::string& name) {
        EXPECT_TRUE(WriteFile(m_dir.File(name), "<" + name + ">"));
        return m_dir.File(name);
    }
    std::string Path(const std::string& name) const { return m_dir.File(name); }
    // The target's crash dump zip written from its base64 text, as the decoder would.
    std::string MakeTargetZip(const std::string& name) {
        std::string base64 = crash_test::kTargetZipBase64, text;
        for (char c : base64)
            if (c != '\n')
                text += c;
        const std::string path = m_dir.File(name + ".b64");
        EXPECT_TRUE(WriteFile(path, text));
        EXPECT_EQ(system(("base64 -d " + path + " > " + m_dir.File(name)).c_str()), 0);
        return m_dir.File(name);
    }
    // A crash information text holding the target's zip and the given plain-text sections.
    static std::string CrashText(const std::string& zipName,
                                 const std::vector<std::string>& textSections) {
        std::string text = "AT%DEBUG=0,0\r\n--Zavra debug info\r\nContent-Description: " + zipName +
                           "\r\nContent-Transfer-Encoding: x-base64\r\n\r\n" +
                           crash_test::kTargetZipBase64;
        for (const std::string& name : textSections)
            text += "--Zavra debug info\r\nContent-Description: " + name +
                    "\r\nContent-Transfer-Encoding: text/plain\r\n\r\n<" + name + ">\r\n";
        return text + "--Zavra debug info--\r\n\r\nOK\r\n";
    }

    zavra_test::TempDir m_dir;
};

TEST_F(CrashTidy, LogChunksOfEachCoreAreJoined) {
    const struct {
        const char* what;
        bool move;
        std::vector<std::string> present;
        std::vector<std::string> tidied;
        std::vector<std::string> onDisk;
    } cases[] = {
        {"copy keeps the chunks",
         false,
         {"a.txt", "logging_kor0_chunk2.zol", "logging_kor0_chunk1.zol"},
         {"a.txt", "logging_kor_thread0.zol"},
         {"a.txt", "logging_kor0_chunk1.zol", "logging_kor0_chunk2.zol"}},
        {"move consumes them, for every core",
         true,
         {"logging_kor1_chunk1.zol", "logging_kor2_chunk1.zol", "logging_kor1_chunk2.zol",
          "logging_kor2_chunk2.zol"},
         {"logging_kor_thread1.zol", "logging_kor_thread2.zol"},
         {}},
        {"chunk 1 alone stays as it is",
         true,
         {"logging_kor0_chunk1.zol", "logging_kor1_chunk2.zol"},
         {"logging_kor0_chunk1.zol", "logging_kor1_chunk2.zol"},
         {"logging_kor0_chunk1.zol", "logging_kor1_chunk2.zol"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        zavra_test::TempDir dir;
        ZvAStringList decoded, tidied;
        for (const std::string& name : c.present) {
            ASSERT_TRUE(WriteFile(dir.File(name), "<" + name + ">"));
            decoded.Add(dir.File(name).c_str());
        }
        EXPECT_TRUE(ZvCrashTidy(decoded, nullptr, tidied, c.move, nullptr));
        std::vector<std::string> expected;
        for (const std::string& name : c.tidied)
            expected.push_back(dir.File(name));
        EXPECT_EQ(Names(tidied), expected);
        for (unsigned kor = 0; kor < 3; ++kor) {
            const std::string n = std::to_string(kor);
            const std::string thread = dir.File("logging_kor_thread" + n + ".zol");
            if (FileExists(thread)) {
                EXPECT_EQ(ReadFile(thread),
                          "<logging_kor" + n + "_chunk1.zol><logging_kor" + n + "_chunk2.zol>");
            }
        }
        for (const std::string& name : c.present) {
            const bool kept = std::find(c.onDisk.begin(), c.onDisk.end(), name) != c.onDisk.end();
            EXPECT_EQ(FileExists(dir.File(name)), kept) << name;
        }
    }
}

TEST_F(CrashTidy, JoinFailuresNameChunkTwoAndTheTarget) {
    const std::string chunk1 = Path("logging_kor0_chunk1.zol");
    const std::string chunk2 = Path("logging_kor0_chunk2.zol");
    const std::string target = Path("logging_kor_thread0.zol");
    const struct {
        bool move;
        bool targetIsBusyDirectory; // neither removable nor replaceable
        bool chunk2Missing;
        std::string error;
        std::vector<std::string> after;
    } cases[] = {
        {false,
         true,
         false,
         "Failed to copy file from '" + chunk2 + "' to '" + target + "'.",
         {chunk1, chunk2}},
        {true,
         true,
         false,
         "Failed to rename file from '" + chunk2 + "' to '" + target + "'.",
         {chunk1, chunk2}},
        // Chunk 1 already went to the target: the list follows it there.
        {true,
         false,
         true,
         "Failed to append file from '" + chunk2 + "' to '" + target + "'.",
         {target, chunk2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        ZvFileUtil::DeleteDir(target.c_str(), true);
        ZvFileUtil::DelFile(target.c_str());
        Make("logging_kor0_chunk1.zol");
        if (!c.chunk2Missing)
            Make("logging_kor0_chunk2.zol");
        else
            ZvFileUtil::DelFile(chunk2.c_str());
        if (c.targetIsBusyDirectory) {
            ASSERT_TRUE(ZvFileUtil::MakeDir(target.c_str()));
            ASSERT_TRUE(WriteFile(target + "/inside", "x"));
        }
        ZvAStringList files = List({chunk1, chunk2});
        ZvAString error;
        EXPECT_FALSE(ZvCrashTidyZolChunks(0, files, c.move, &error));
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(Names(files), c.after);
        EXPECT_TRUE(FileExists(c.after[0]));
    }
}

TEST_F(CrashTidy, OnlyOneCrashDumpZipIsKept) {
    const std::string extra = Make("run-extram.bin");
    ZvAStringList extras = List({extra, Path("gone-crashlog.txt")}); // only existing extras
    const struct {
        std::vector<std::string> decoded;
        std::vector<std::string> tidied;
    } cases[] = {
        {{"crash_dump.zip", "crash_dump_2.zip", "crash_dump-1.zip", "crash_dump.txt", "a.zip"},
         {"crash_dump_2.zip", "crash_dump.txt", "a.zip", "run-extram.bin"}},
        {{"crash_dump_3.zip", "x.log", "crash_dump-7.zip"},
         {"crash_dump_3.zip", "x.log", "run-extram.bin"}},
        {{"crash_dump-1.zip", "x.log"}, {"x.log", "run-extram.bin"}},
    };
    for (const auto& c : cases) {
        ZvAStringList decoded, tidied;
        for (const std::string& name : c.decoded)
            decoded.Add(Path(name).c_str());
        ZvCrashTidy(decoded, &extras, tidied, true, nullptr);
        std::vector<std::string> expected;
        for (const std::string& name : c.tidied)
            expected.push_back(Path(name));
        EXPECT_EQ(Names(tidied), expected);
    }
}

TEST_F(CrashTidy, ZipTakesEveryFileUnderItsName) {
    const std::string zip = MakeTargetZip("crash_dump_1.zip");
    ZvAStringList decoded = List({Make("bb_events.txt"), Make("logging_kor1_chunk1.zol"), zip,
                                  Make("logging_kor1_chunk2.zol"), Make("modem.log"),
                                  Make("modem.log"), Path("vanished.txt")});
    ZvAStringList extras = List({Make("run-crashlog.txt"), Make("run-extram.dmp")});
    ZvAString zipPath, error;
    EXPECT_TRUE(ZvCrashZip(decoded, &extras, zipPath, true, &error));
    EXPECT_EQ(zipPath, zip);
    // A file that is gone is reported and skipped; the rest goes in.
    EXPECT_EQ(error,
              "Failed to add the '" + Path("vanished.txt") + "' file to the crash dump zip file.");

    ZipEntries entries;
    std::string readError;
    ASSERT_TRUE(ReadZip(zip, entries, &readError)) << readError;
    std::string regs;
    for (int i = 0; i < 256; ++i)
        regs += static_cast<char>(i);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"bb_events.txt", crash_test::kTargetEvents},
        {"bb_events_dup.txt", "<bb_events.txt>"},
        {"extram.dmp", "<run-extram.dmp>"},
        {"logging_kor_thread1.zol", "<logging_kor1_chunk1.zol><logging_kor1_chunk2.zol>"},
        {"modem.log", "<modem.log>"},
        {"regs.bin", regs},
        {"run-crashlog.txt", "<run-crashlog.txt>"},
    };
    std::vector<std::pair<std::string, std::string>> got;
    for (const auto& [name, entry] : entries)
        got.emplace_back(name, entry.data);
    EXPECT_EQ(got, expected);
    for (const char* moved :
         {"bb_events.txt", "logging_kor1_chunk1.zol", "logging_kor1_chunk2.zol",
          "logging_kor_thread1.zol", "modem.log", "run-crashlog.txt", "run-extram.dmp"})
        EXPECT_FALSE(FileExists(Path(moved))) << moved;
}

TEST_F(CrashTidy, ZipFailuresLeaveTheFilesInPlace) {
    const std::string log = Make("modem.log");
    const struct {
        std::vector<std::string> decoded;
        std::string error;
    } cases[] = {
        {{log}, "Failed to find the crash dump zip file in the crash information."},
        {{log, Make("crash_dump_1.zip")},
         "Failed to open the crash dump zip file '" + Path("crash_dump_1.zip") +
             "'. Check for corrupt crash information."},
    };
    for (const auto& c : cases) {
        ZvAString zipPath, error;
        EXPECT_FALSE(ZvCrashZip(List(c.decoded), nullptr, zipPath, true, &error));
        EXPECT_EQ(error, c.error);
        for (const std::string& path : c.decoded)
            EXPECT_EQ(ReadFile(path), "<" + path.substr(m_dir.Path().size() + 1) + ">");
    }
}

TEST_F(CrashTidy, DecodeZipLeavesOneZipPerCrash) {
    const struct {
        const char* what;
        bool coreDump;
        bool raw;
        bool keepText;
        std::vector<std::string> files;
        const char* dumpEntry;
    } cases[] = {
        {"a core dump renames the zip",
         true,
         false,
         true,
         {"crash.txt", "core_dump_1.zip"},
         "extram.bin"},
        {"a raw dump too", true, true, false, {"core_dump_1.zip"}, "extram.dmp"},
        {"no core dump keeps the name",
         false,
         true,
         true,
         {"crash.txt", "crash_dump_1.zip"},
         nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        zavra_test::TempDir temp, out;
        ZvAtCrash::Response response;
        response.crashFound = true;
        response.crashLogFile = temp.File("clfAAAAAA").c_str();
        ASSERT_TRUE(WriteFile(response.crashLogFile, "crash log"));
        if (c.coreDump) {
            response.coreDumpFile = temp.File("exrAAAAAA").c_str();
            ASSERT_TRUE(WriteFile(response.coreDumpFile, std::string(70000, '\xa5')));
        }
        response.coreDumpRaw = c.raw;
        response.crashInfoFile = temp.File("crhAAAAAA").c_str();
        const std::string text =
            // A section named like the retrieved crash log must not replace it.
            CrashText("crash_dump_1.zip",
                      {"bb_events.txt", "logging_kor0_chunk1.zol", "crashlog.txt"});
        ASSERT_TRUE(WriteFile(response.crashInfoFile, text));

        ZvAStringList files;
        ZvAString error;
        EXPECT_TRUE(ZvCrashDecodeZip(response, out.Path().c_str(), files, &error, c.keepText));
        EXPECT_EQ(error, "");
        std::vector<std::string> expected;
        for (const std::string& name : c.files)
            expected.push_back(out.File(name));
        EXPECT_EQ(Names(files), expected);

        ZipEntries entries;
        std::string readError;
        ASSERT_TRUE(ReadZip(expected.back(), entries, &readError)) << readError;
        EXPECT_EQ(entries["crashlog.txt"].data, "crash log");
        EXPECT_EQ(entries["bb_events_dup.txt"].data, "<bb_events.txt>");
        EXPECT_EQ(entries["bb_events.txt"].data, crash_test::kTargetEvents);
        EXPECT_EQ(entries["logging_kor0_chunk1.zol"].data, "<logging_kor0_chunk1.zol>");
        EXPECT_EQ(entries.size(), c.dumpEntry != nullptr ? 6u : 5u);
        if (c.dumpEntry != nullptr) {
            EXPECT_EQ(entries[c.dumpEntry].data, std::string(70000, '\xa5'));
        }
        // Everything else went into the zip; the text stays, listed or not.
        std::vector<std::string> left;
        ZvAStringList onDisk;
        ZvFileUtil::GetDirFiles(out.Path().c_str(), onDisk, "*", false);
        for (const std::string& path : Names(onDisk))
            left.push_back(path.substr(out.Path().size() + 1));
        std::sort(left.begin(), left.end());
        std::vector<std::string> kept = {"crash.txt", c.files.back()};
        std::sort(kept.begin(), kept.end());
        EXPECT_EQ(left, kept);
        EXPECT_EQ(ReadFile(out.File("crash.txt")), text);
        EXPECT_FALSE(FileExists(temp.File("crhAAAAAA")));
    }
}

TEST_F(CrashTidy, DecodeZipFailuresKeepTheFilesUnderTheirFinalNames) {
    const std::string out = m_dir.File("out");
    ASSERT_TRUE(ZvFileUtil::MakeDir(out.c_str()));
    // A non-empty directory where the crash log should go can be neither removed nor replaced.
    ASSERT_TRUE(ZvFileUtil::MakeDir((out + "/crashlog.txt").c_str()));
    ASSERT_TRUE(WriteFile(out + "/crashlog.txt/keep", "x"));
    const std::string crashLog = Make("clfBBBBBB");
    ZvAtCrash::Response response;
    response.crashLogFile = crashLog.c_str();
    response.coreDumpFile = Make("exrBBBBBB").c_str();
    response.crashInfoFile = Make("crhBBBBBB").c_str();
    ASSERT_TRUE(WriteFile(response.crashInfoFile,
                          "--Zavra debug info\nContent-Description: only.txt\n"
                          "Content-Transfer-Encoding: text/plain\nno zip here\n"
                          "--Zavra debug info--\n"));

    ZvAStringList files;
    ZvAString error;
    EXPECT_TRUE(ZvCrashDecodeZip(response, out.c_str(), files, &error, false));
    EXPECT_EQ(error, "Failed to find the crash dump zip file in the crash information.");
    EXPECT_EQ(Names(files),
              (std::vector<std::string>{crashLog, out + "/extram.dmp", out + "/crash.txt"}));
    EXPECT_EQ(ReadFile(crashLog), "<clfBBBBBB>");
    EXPECT_EQ(ReadFile(out + "/extram.dmp"), "<exrBBBBBB>");
    EXPECT_EQ(ReadFile(out + "/only.txt"), "no zip here");

    // A text that does not decode leaves the same three files and the decoder's reason.
    response.crashLogFile.clear();
    response.coreDumpFile.clear();
    response.crashInfoFile = Make("crhCCCCCC").c_str();
    ASSERT_TRUE(WriteFile(response.crashInfoFile,
                          "--Zavra debug info\nContent-Description: x.bin\n\nbody\nmore\n"));
    EXPECT_TRUE(ZvCrashDecodeZip(response, out.c_str(), files, &error, false));
    EXPECT_EQ(error, "Crash data encoding not specified for 'x.bin'.");
    EXPECT_EQ(Names(files), std::vector<std::string>{out + "/crash.txt"});

    EXPECT_FALSE(ZvCrashDecodeZip(ZvAtCrash::Response(), out.c_str(), files, nullptr, true));
    EXPECT_TRUE(files.Empty());
}

} // namespace
