// The store in-process: segment names and sizes, the budget, keep-first order, existing files and
// the journal.
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon_store_fixture.h"

using namespace daemon_test;

namespace {

const std::regex kSegmentName("daemon_\\d\\d-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d_(\\d\\d\\d)\\.zom");

std::vector<std::string> Names(RecordingDaemon& daemon) {
    ZvAStringList list;
    daemon.GetFileList(list);
    std::vector<std::string> names;
    for (unsigned i = 0; i < list.Count(); ++i)
        names.push_back(list[i].substr(list[i].rfind('/') + 1));
    return names;
}

std::string SegmentOf(const std::string& name) {
    std::smatch match;
    return std::regex_match(name, match, kSegmentName) ? match[1].str() : "?";
}

} // namespace

TEST(DaemonStore, SegmentsEndAtExactlyTheLimitAndKeepEveryByte) {
    ScratchDir dir;
    RecordingDaemon daemon;
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 1000));
    const std::string stream = MakeStream(6000 + 250);
    Feed(daemon, stream, 600);
    daemon.Shutdown();

    std::vector<std::string> files = ZomFiles(dir.Path());
    ASSERT_EQ(files.size(), 7u);
    for (size_t i = 0; i < files.size(); ++i) {
        char expected[24];
        snprintf(expected, sizeof(expected), "%03zu", i);
        EXPECT_EQ(SegmentOf(files[i]), expected) << files[i];
        EXPECT_EQ(files[i].substr(0, 25), files[0].substr(0, 25)) << "one log name for all";
        long long size = static_cast<long long>(ReadFile(dir.File(files[i])).size());
        EXPECT_EQ(size, i + 1 < files.size() ? 1000 : 250) << files[i];
    }
    EXPECT_EQ(ZomConcat(dir.Path()), stream);
    EXPECT_EQ(daemon.segments, 7);
}

TEST(DaemonStore, AChunkIsSplitOnceEvenWhenTheRestExceedsTheLimit) {
    ScratchDir dir;
    RecordingDaemon daemon;
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 1000));
    const std::string stream = MakeStream(2500 + 600);
    Feed(daemon, stream.substr(0, 2500), 2500);
    Feed(daemon, stream.substr(2500), 600);
    daemon.Shutdown();

    std::vector<std::string> files = ZomFiles(dir.Path());
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(ReadFile(dir.File(files[0])).size(), 1000u);
    EXPECT_EQ(ReadFile(dir.File(files[1])).size(), 1500u);
    EXPECT_EQ(ReadFile(dir.File(files[2])).size(), 600u);
    EXPECT_EQ(ZomConcat(dir.Path()), stream);
    auto journal = JournalLines(dir.Path());
    EXPECT_EQ(CountLines(journal, "File limit exceeded but no open file, num bytes 2500"), 1);
    EXPECT_EQ(CountLines(journal, files[1] + "' of 1500 bytes."), 1);
}

TEST(DaemonStore, WithoutLimitsOneFileTakesTheLogAndALaterLogNeverTruncatesIt) {
    ScratchDir dir;
    RecordingDaemon daemon;
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 0));
    const std::string stream = MakeStream(50000);
    Feed(daemon, stream.substr(0, 30000), 3000);
    daemon.CloseCurrentFile(30000);
    // The next log may start within the same second and so get the same name.
    Feed(daemon, stream.substr(30000), 3000);
    daemon.Shutdown();

    std::vector<std::string> files = ZomFiles(dir.Path());
    ASSERT_GE(files.size(), 1u);
    ASSERT_LE(files.size(), 2u);
    EXPECT_TRUE(std::regex_match(files[0], std::regex("daemon_[0-9_-]{17}\\.zom"))) << files[0];
    EXPECT_EQ(ZomConcat(dir.Path()), stream);
    EXPECT_EQ(daemon.segments, 0);
}

TEST(DaemonStore, TheBudgetKeepsTheTailOfTheStreamAfterEveryChunk) {
    ScratchDir dir;
    RecordingDaemon daemon;
    ASSERT_TRUE(Start(daemon, dir.Path(), 5000, 1000));
    const std::string stream = MakeStream(40 * 333);
    for (size_t at = 0; at < stream.size(); at += 333) {
        Feed(daemon, stream.substr(at, 333), 333);
        ASSERT_LE(ZomBytes(dir.Path()), 5000) << "after " << at + 333 << " bytes";
        EXPECT_EQ(static_cast<long long>(daemon.GetCurrentLogsSize()), ZomBytes(dir.Path()));
    }
    const std::string kept = ZomConcat(dir.Path());
    EXPECT_GT(kept.size(), 4000u);
    EXPECT_EQ(kept, stream.substr(stream.size() - kept.size()));
    auto journal = JournalLines(dir.Path());
    EXPECT_GT(CountLines(journal, "Deleting old file '"), 5);
    EXPECT_EQ(CountLines(journal, "error"), 0);
}

TEST(DaemonStore, ABudgetNoLargerThanOneSegmentStillKeepsToItWithoutHanging) {
    ScratchDir dir;
    RecordingDaemon daemon;
    ASSERT_TRUE(Start(daemon, dir.Path(), 3000, 3000));
    const std::string stream = MakeStream(20 * 700);
    for (size_t at = 0; at < stream.size(); at += 700) {
        Feed(daemon, stream.substr(at, 700), 700);
        ASSERT_LE(ZomBytes(dir.Path()), 3000) << "after " << at + 700 << " bytes";
    }
    const std::string kept = ZomConcat(dir.Path());
    EXPECT_EQ(kept, stream.substr(stream.size() - kept.size()));
}

TEST(DaemonStore, KeepFirstSegmentMovesSegmentZeroBehindTheLatestClosedOne) {
    ScratchDir dir;
    RecordingDaemon daemon;
    daemon.SetKeepFirstSegment(true);
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 1000));
    Feed(daemon, MakeStream(4500), 500);
    std::vector<std::string> order;
    for (const std::string& name : Names(daemon))
        order.push_back(SegmentOf(name));
    EXPECT_EQ(order, (std::vector<std::string>{"001", "002", "003", "000", "004"}));
}

TEST(DaemonStore, KeepFirstSegmentSurvivesWhileMiddleSegmentsAreDeleted) {
    ScratchDir dir;
    RecordingDaemon daemon;
    daemon.SetKeepFirstSegment(true);
    ASSERT_TRUE(Start(daemon, dir.Path(), 4000, 1000));
    const std::string stream = MakeStream(12000);
    Feed(daemon, stream, 500);
    std::vector<std::string> files = ZomFiles(dir.Path());
    ASSERT_FALSE(files.empty());
    EXPECT_EQ(SegmentOf(files[0]), "000");
    EXPECT_EQ(ReadFile(dir.File(files[0])), stream.substr(0, 1000));
    EXPECT_LE(ZomBytes(dir.Path()), 4000);
    // The most recent segments are the tail of the stream.
    std::string recent;
    for (size_t i = 1; i < files.size(); ++i)
        recent += ReadFile(dir.File(files[i]));
    EXPECT_EQ(recent, stream.substr(stream.size() - recent.size()));
    EXPECT_EQ(CountLines(JournalLines(dir.Path()), "First segment move failed"), 0);
}

TEST(DaemonStore, ExistingFilesCountAndGoFirstAndOtherFilesAreNeverTouched) {
    ScratchDir dir;
    WriteFile(dir.File("daemon_21-01-01_00-00-00_000.zom"), std::string(3000, 'b'));
    WriteFile(dir.File("daemon_20-06-01_00-00-00.zom"), std::string(3000, 'a'));
    WriteFile(dir.File("daemon_22-01-01_00-00-00_000.zom"), std::string(1000, 'c'));
    WriteFile(dir.File("notes.txt"), "keep me");
    WriteFile(dir.File("daemon.log"), "the previous run's journal\n");
    ASSERT_EQ(mkdir(dir.File("folder.zom").c_str(), 0755), 0);

    RecordingDaemon daemon;
    ASSERT_TRUE(Start(daemon, dir.Path(), 5000, 1000));
    // 7000 bytes found: the oldest name goes first, then the budget holds.
    EXPECT_FALSE(ReadFile(dir.File("daemon_21-01-01_00-00-00_000.zom")).empty());
    EXPECT_TRUE(ReadFile(dir.File("daemon_20-06-01_00-00-00.zom")).empty());
    Feed(daemon, MakeStream(1500), 500);
    EXPECT_TRUE(ReadFile(dir.File("daemon_21-01-01_00-00-00_000.zom")).empty());
    EXPECT_EQ(ReadFile(dir.File("daemon_22-01-01_00-00-00_000.zom")).size(), 1000u);
    EXPECT_EQ(ReadFile(dir.File("notes.txt")), "keep me");
    struct stat info;
    EXPECT_EQ(stat(dir.File("folder.zom").c_str(), &info), 0);

    auto journal = JournalLines(dir.Path());
    EXPECT_EQ(CountLines(journal, "previous run"), 0) << "the journal starts afresh";
    EXPECT_EQ(CountLines(journal, "Initialise: Adding existing file '"), 3);
    EXPECT_EQ(CountLines(journal, "Current Logs Size: 7000"), 1);
    std::vector<std::string> sorted;
    for (const std::string& line : journal)
        if (line.find("Sorted '") != std::string::npos)
            sorted.push_back(line.substr(line.rfind('/') + 1));
    EXPECT_EQ(sorted,
              (std::vector<std::string>{"daemon_20-06-01_00-00-00.zom' of 3000 bytes.",
                                        "daemon_21-01-01_00-00-00_000.zom' of 3000 bytes.",
                                        "daemon_22-01-01_00-00-00_000.zom' of 1000 bytes."}));
}

TEST(DaemonStore, AManagedFileRemovedByHandIsDroppedWithoutError) {
    ScratchDir dir;
    WriteFile(dir.File("daemon_20-01-01_00-00-00_000.zom"), std::string(2000, 'x'));
    RecordingDaemon daemon;
    ASSERT_TRUE(Start(daemon, dir.Path(), 8000, 1000));
    unlink(dir.File("daemon_20-01-01_00-00-00_000.zom").c_str());
    Feed(daemon, MakeStream(7000), 500);
    auto journal = JournalLines(dir.Path());
    EXPECT_EQ(
        CountLines(journal, "Deleting old file '" + dir.File("daemon_20-01-01_00-00-00_000.zom")),
        1);
    EXPECT_EQ(CountLines(journal, "error"), 0);
    EXPECT_EQ(ZomBytes(dir.Path()), 7000);
}

TEST(DaemonStore, JournalLinesAreTimeStampedAndTellTheStartUpAndShutDown) {
    ScratchDir dir;
    const int port = FreeTcpPort();
    {
        RecordingDaemon daemon;
        daemon.SetSocketPort(port);
        ASSERT_TRUE(Start(daemon, dir.Path(), 9000000, 1000000));
        Feed(daemon, MakeStream(100), 100);
    }
    auto journal = JournalLines(dir.Path());
    const std::regex stamped("\\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d: .+");
    std::vector<std::string> messages;
    for (const std::string& line : journal) {
        EXPECT_TRUE(std::regex_match(line, stamped)) << line;
        messages.push_back(line.substr(21));
    }
    ASSERT_GE(messages.size(), 10u);
    const std::vector<std::string> startUp = {
        "Initialising started.",    messages[1],
        "Directory: " + dir.Path(), "Total Size: 9000000",
        "File Size: 1000000",       "Socket port number: " + std::to_string(port),
        "Current Logs Size: 0",     "Sorting existing files",
        "Initialising finished."};
    // The threads start writing before the last start-up line.
    std::vector<std::string> storeLines;
    for (const std::string& message : messages)
        if (message.find("Thread") == std::string::npos)
            storeLines.push_back(message);
    storeLines.resize(startUp.size());
    EXPECT_EQ(storeLines, startUp);
    EXPECT_TRUE(std::regex_match(messages[1], std::regex("Version 1\\.8\\.\\d{4,} \\(.+\\)")));
    EXPECT_EQ(messages.back(), "Shut down");
    EXPECT_EQ(CountLines(journal, "NewLogData. Log file opened '"), 1);
    EXPECT_EQ(CountLines(journal, "' of 100 bytes."), 1) << "closed with every byte at the end";
    EXPECT_EQ(CountLines(journal, "ConnectThread: Finished."), 1);
    EXPECT_EQ(CountLines(journal, "Socket Read Thread Finished."), 1);
}

TEST(DaemonStore, WithoutASocketPortNoServerRuns) {
    ScratchDir dir;
    {
        RecordingDaemon daemon;
        ASSERT_TRUE(Start(daemon, dir.Path(), 0, 0));
    }
    auto journal = JournalLines(dir.Path());
    EXPECT_EQ(CountLines(journal, "Socket"), 0);
    EXPECT_EQ(CountLines(journal, "ConnectThread: Port opened."), 1);
}

TEST(DaemonStore, CrashFileNameFollowsTheCurrentLog) {
    ScratchDir dir;
    RecordingDaemon daemon;
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 1000));
    Feed(daemon, MakeStream(10), 10);
    ZvAString crash;
    daemon.GetCrashFileName(crash);
    std::vector<std::string> files = ZomFiles(dir.Path());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(crash + "_000.zom", dir.File(files[0]));
}

TEST(DaemonStore, AFileThatCannotBeOpenedIsJournalledOnceAndTheStoreRecovers) {
    ScratchDir dir;
    RecordingDaemon daemon;
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 1000));
    Feed(daemon, MakeStream(1000), 1000);
    const std::string first = ZomFiles(dir.Path()).at(0);
    // Directories in the way of the next names of this log make every open fail.
    std::vector<std::string> blockers;
    for (int segment = 1; segment < 40; ++segment) {
        char name[64];
        snprintf(name, sizeof(name), "%s%03d.zom", first.substr(0, 25).c_str(), segment);
        blockers.push_back(dir.File(name));
        ASSERT_EQ(mkdir(blockers.back().c_str(), 0755), 0);
    }
    Feed(daemon, MakeStream(5000, 2), 500);
    for (const std::string& blocker : blockers)
        rmdir(blocker.c_str());
    const std::string after = MakeStream(700, 3);
    Feed(daemon, after, 700);

    auto journal = JournalLines(dir.Path());
    EXPECT_EQ(CountLines(journal, "Log file failed to opened '"), 1);
    EXPECT_EQ(CountLines(journal, "Log files open again after"), 1);
    EXPECT_EQ(static_cast<long long>(daemon.GetCurrentLogsSize()), ZomBytes(dir.Path()));
    EXPECT_NE(ZomConcat(dir.Path()).find(after), std::string::npos);
}
