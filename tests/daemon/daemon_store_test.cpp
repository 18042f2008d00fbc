// The store in-process: segment names and sizes, the budget, keep-first order, existing files,
// and faults of the file system.
#include <gtest/gtest.h>

#include <regex>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon_store_fixture.h"

using namespace daemon_test;

namespace {
const std::regex kSegment("(daemon_\\d\\d-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d)_(\\d\\d\\d)\\.zom");

std::string SegmentOf(const std::string& name) {
    std::smatch match;
    return std::regex_match(name, match, kSegment) ? match[2].str() : name;
}
} // namespace

TEST(DaemonStore, SegmentsEndAtTheLimitAndAnOversizedChunkIsSplitOnce) {
    Store store;
    ASSERT_TRUE(store.Start(0, 1000));
    const std::string stream = MakeStream(2500 + 6 * 600);
    store.Feed(stream.substr(0, 2500), 2500);
    store.Feed(stream.substr(2500), 600);
    ZvAString crashName;
    store.daemon.GetCrashFileName(crashName);
    store.daemon.Shutdown();

    std::vector<std::string> files = ZomFiles(store.dir);
    std::vector<size_t> sizes;
    for (const std::string& name : files) {
        sizes.push_back(zavra_test::ReadFile(store.File(name)).size());
        EXPECT_EQ(name.substr(0, 24), files[0].substr(0, 24)) << "one log name";
    }
    EXPECT_EQ(sizes, (std::vector<size_t>{1000, 1500, 1000, 1000, 1000, 600}));
    EXPECT_EQ(SegmentOf(files.back()), "005");
    EXPECT_EQ(ZomConcat(store.dir), stream);
    EXPECT_EQ(store.daemon.segments, 6);
    EXPECT_EQ(crashName + "_000.zom", store.File(files[0]));
    EXPECT_EQ(JournalCount(store.dir, "File limit exceeded but no open file, num bytes 2500"), 1);
    EXPECT_EQ(JournalCount(store.dir, files[1] + "' of 1500 bytes."), 1);
}

TEST(DaemonStore, TheBudgetHoldsAfterEveryChunkAndKeepsTheStreamsTail) {
    // The second budget is no larger than one segment: the segment just filled has to go.
    for (auto sizes : {std::make_pair(5000ull, 1000ull), std::make_pair(3000ull, 3000ull)}) {
        Store store;
        ASSERT_TRUE(store.Start(sizes.first, sizes.second));
        const std::string stream = MakeStream(40 * 333);
        for (size_t at = 0; at < stream.size(); at += 333) {
            store.Feed(stream.substr(at, 333), 333);
            ASSERT_LE(ZomBytes(store.dir), static_cast<long long>(sizes.first)) << at;
            ASSERT_EQ(static_cast<long long>(store.daemon.GetCurrentLogsSize()),
                      ZomBytes(store.dir));
        }
        const std::string kept = ZomConcat(store.dir);
        EXPECT_GT(kept.size() + sizes.second, sizes.first) << "whole segments go, no more";
        EXPECT_EQ(kept, stream.substr(stream.size() - kept.size()));
        EXPECT_EQ(JournalCount(store.dir, "error"), 0);
    }
}

TEST(DaemonStore, KeepFirstSegmentMovesSegmentZeroBehindTheLatestClosedOne) {
    Store plain;
    plain.daemon.SetKeepFirstSegment(true);
    ASSERT_TRUE(plain.Start(0, 1000));
    plain.Feed(MakeStream(4500), 500);
    std::vector<std::string> order;
    for (const std::string& name : plain.Order())
        order.push_back(SegmentOf(name));
    EXPECT_EQ(order, (std::vector<std::string>{"001", "002", "003", "000", "004"}));

    Store budget;
    budget.daemon.SetKeepFirstSegment(true);
    ASSERT_TRUE(budget.Start(4000, 1000));
    const std::string stream = MakeStream(12000);
    budget.Feed(stream, 500);
    std::vector<std::string> files = ZomFiles(budget.dir);
    ASSERT_EQ(files.size(), 4u);
    EXPECT_EQ(SegmentOf(files[0]), "000");
    EXPECT_EQ(zavra_test::ReadFile(budget.File(files[0])), stream.substr(0, 1000));
    EXPECT_EQ(ZomConcat(budget.dir).substr(1000), stream.substr(stream.size() - 3000));
    EXPECT_EQ(JournalCount(budget.dir, "First segment move failed"), 0);
}

TEST(DaemonStore, ExistingFilesCountAndGoOldestFirstAndOtherFilesAreNeverTouched) {
    Store store;
    zavra_test::WriteFile(store.File("daemon_21-01-01_00-00-00_000.zom"), std::string(3000, 'b'));
    zavra_test::WriteFile(store.File("daemon_20-06-01_00-00-00.zom"), std::string(3000, 'a'));
    zavra_test::WriteFile(store.File("daemon_22-01-01_00-00-00_000.zom"), std::string(1000, 'c'));
    zavra_test::WriteFile(store.File("daemon_22-02-02_00-00-00_000.zom"), std::string(500, 'd'));
    zavra_test::WriteFile(store.File("notes.txt"), "keep me");
    zavra_test::WriteFile(store.File("daemon.log"), "the previous run's journal\n");
    ASSERT_EQ(mkdir(store.File("folder.zom").c_str(), 0755), 0);

    ASSERT_TRUE(store.Start(5000, 1000));
    // 7500 bytes found: the oldest name goes, the rest fits.
    EXPECT_EQ(ZomFiles(store.dir).size(), 3u);
    EXPECT_TRUE(zavra_test::ReadFile(store.File("daemon_20-06-01_00-00-00.zom")).empty());
    // A managed file removed by hand is simply dropped when its turn comes.
    unlink(store.File("daemon_21-01-01_00-00-00_000.zom").c_str());
    store.Feed(MakeStream(4000), 500);
    EXPECT_TRUE(zavra_test::ReadFile(store.File("daemon_22-01-01_00-00-00_000.zom")).empty());
    EXPECT_EQ(zavra_test::ReadFile(store.File("daemon_22-02-02_00-00-00_000.zom")).size(), 500u);
    EXPECT_EQ(zavra_test::ReadFile(store.File("notes.txt")), "keep me");
    struct stat info;
    EXPECT_EQ(stat(store.File("folder.zom").c_str(), &info), 0);

    EXPECT_EQ(JournalCount(store.dir, "previous run"), 0) << "the journal starts afresh";
    EXPECT_EQ(JournalCount(store.dir, "Initialise: Adding existing file '"), 4);
    EXPECT_EQ(JournalCount(store.dir, "Current Logs Size: 7500"), 1);
    EXPECT_EQ(JournalCount(store.dir, "Deleting old file '"), 3);
    EXPECT_EQ(JournalCount(store.dir, "error"), 0);
}

// A segment that is a link to /dev/full fails every write with ENOSPC, as a full disk does, with
// no file system to mount; a directory in the way of the next name makes its open fail.
TEST(DaemonStore, WriteAndOpenFailuresAreJournalledOnceAndTheStoreRecovers) {
    Store store;
    ASSERT_TRUE(store.Start(0, 1000));
    store.Feed(MakeStream(1000), 1000);
    const std::string log = ZomFiles(store.dir).at(0).substr(0, 24);
    ASSERT_EQ(symlink("/dev/full", store.File(log + "_001.zom").c_str()), 0);
    ASSERT_EQ(mkdir(store.File(log + "_002.zom").c_str(), 0755), 0);
    store.Feed(MakeStream(3000, 2), 500);
    EXPECT_EQ(JournalCount(store.dir, "NewLogData. Call to fwrite failed, return=0, errno=28"), 1);
    EXPECT_EQ(JournalCount(store.dir, "NewLogData. Log file failed to opened '"), 1);

    rmdir(store.File(log + "_002.zom").c_str());
    const std::string after = MakeStream(700, 3);
    store.Feed(after, 700);
    EXPECT_EQ(JournalCount(store.dir, "NewLogData. Log files open again after"), 1);
    EXPECT_EQ(JournalCount(store.dir, "NewLogData. Writing resumed, "), 1);
    EXPECT_NE(ZomConcat(store.dir).find(after), std::string::npos);
}
