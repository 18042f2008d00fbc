// zavra_log_serial -a end to end: the real binary, a simulated modem on a pty, loopback clients.
#include <chrono>
#include <csignal>
#include <regex>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "daemon_e2e_fixture.h"
#include "zavra_test_net.h"

using namespace daemon_test;

namespace {

const long long kMiB = 1 << 20;
const std::regex kSegment("daemon_(\\d\\d-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d)_(\\d\\d\\d)\\.zom");
const std::regex kWholeLog("daemon_(\\d\\d-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d)\\.zom");

// Waits until the tool has read everything the modem sent, watching the directory size meanwhile.
long long DrainWatchingBudget(DaemonRun& run, int timeoutMs) {
    long long largest = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        largest = std::max(largest, ZomBytes(run.store));
        auto counters = run.modem.Counters();
        if (counters.generatorDone && run.modem.Unread() == 0)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return largest;
}

std::string Segment(const std::string& name) {
    std::smatch match;
    return std::regex_match(name, match, kSegment) ? match[2].str() : "?";
}

} // namespace

TEST(DaemonTool, SegmentsOfExactSizeHoldTheTailOfTheStreamWithinTheBudget) {
    DaemonRun run;
    run.StartModem(12 * kMiB);
    run.StartTool("8,1");
    const long long largest = DrainWatchingBudget(run, 30000);
    ASSERT_TRUE(run.modem.Counters().generatorDone);
    // Every new segment announces the host time: 12 segments, and the one at start-up.
    ASSERT_TRUE(run.modem.WaitForRecordId(run.modem.Ids().hostTime, 5000, 13));
    run.Terminate();

    EXPECT_LE(largest, 8 * kMiB);
    std::vector<std::string> names = ZomFiles(run.store);
    ASSERT_EQ(names.size(), 8u);
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(Segment(names[i]), (i < 6 ? "00" : "01") + std::to_string((i + 4) % 10))
            << names[i];
        EXPECT_EQ(zavra_test::FileSize(run.StoreFile(names[i])), kMiB) << names[i];
    }
    const std::string kept = ZomConcat(run.store);
    ASSERT_EQ(run.modem.Counters().delivered, static_cast<uint64_t>(12 * kMiB));
    EXPECT_TRUE(kept == ReadPart(run.Sent(), 4 * kMiB)) << "the files are the stream's tail";
    EXPECT_EQ(run.RecordsWithId(run.modem.Ids().hostTime), 13u);

    auto journal = JournalLines(run.store);
    const std::regex stamped("\\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d: .+");
    for (const std::string& line : journal)
        EXPECT_TRUE(std::regex_match(line, stamped)) << line;
    EXPECT_EQ(JournalCount(run.store, ": Directory: " + run.store), 1);
    EXPECT_EQ(JournalCount(run.store, ": Total Size: 8388608"), 1);
    EXPECT_EQ(JournalCount(run.store, ": File Size: 1048576"), 1);
    EXPECT_EQ(JournalCount(run.store, ": Version 1.8."), 1);
    EXPECT_EQ(JournalCount(run.store, "Socket port number"), 0);
    EXPECT_EQ(JournalCount(run.store, "Deleting old file '"), 4);
    EXPECT_EQ(JournalCount(run.store, "error"), 0);
    EXPECT_EQ(JournalCount(run.store, "Shut down"), 1);
}

TEST(DaemonTool, ExistingFilesGoFirstAndKeepFirstSegmentSavesSegmentZero) {
    DaemonRun run;
    zavra_test::WriteFile(run.StoreFile("daemon_20-01-02_00-00-00.zom"), std::string(kMiB, 'b'));
    zavra_test::WriteFile(run.StoreFile("daemon_20-01-01_00-00-00_000.zom"),
                          std::string(2 * kMiB, 'a'));
    zavra_test::WriteFile(run.StoreFile("notes.txt"), "not a log");
    run.StartModem(10 * kMiB);
    run.StartTool("8,1", {"-f"});
    const long long largest = DrainWatchingBudget(run, 30000);
    run.Terminate();

    EXPECT_LE(largest, 8 * kMiB);
    EXPECT_EQ(zavra_test::ReadFile(run.StoreFile("notes.txt")), "not a log");
    auto journal = JournalLines(run.store);
    std::vector<std::string> deleted;
    for (const std::string& line : journal)
        if (line.find("Deleting old file '") != std::string::npos)
            deleted.push_back(line.substr(line.rfind('/') + 1, 28));
    ASSERT_GE(deleted.size(), 2u);
    EXPECT_EQ(deleted[0], "daemon_20-01-01_00-00-00_000");
    EXPECT_EQ(deleted[1], "daemon_20-01-02_00-00-00.zom");

    // Segment 000 of this log survives; middle segments went; the rest is the stream's tail.
    std::vector<std::string> names = ZomFiles(run.store);
    ASSERT_GE(names.size(), 3u);
    EXPECT_EQ(Segment(names[0]), "000");
    EXPECT_EQ(Segment(names[1]), "003");
    EXPECT_TRUE(zavra_test::ReadFile(run.StoreFile(names[0])) == ReadPart(run.Sent(), 0, kMiB));
    std::string recent;
    for (size_t i = 1; i < names.size(); ++i)
        recent += zavra_test::ReadFile(run.StoreFile(names[i]));
    EXPECT_TRUE(recent == ReadPart(run.Sent(), 10 * kMiB - recent.size()));
    EXPECT_EQ(JournalCount(run.store, "First segment move failed"), 0);
}

TEST(DaemonTool, AClientGetsTheStreamItsBytesReachTheModemAndLeavingReopensTheChannel) {
    DaemonRun run;
    const int port = zavra_test::FreeTcpPort();
    run.StartModem(0, 200000);
    run.StartTool("", {"-p" + std::to_string(port)});
    ASSERT_TRUE(run.modem.WaitForChannelOpen(true, 5000));
    const size_t opensBefore = run.RecordsWithId(run.modem.Ids().open);

    int client = zavra_test::ConnectTcp(port, 5000);
    ASSERT_GE(client, 0);
    const std::string got = zavra_test::ReadExactly(client, 100000, 5000);
    ASSERT_EQ(got.size(), 100000u);
    run.modem.FlushFiles();
    EXPECT_NE(zavra_test::ReadFile(run.Sent()).find(got), std::string::npos)
        << "the client sees a contiguous piece of the stream";

    const std::string down = "client bytes for the modem \x01\x02\x03";
    ASSERT_TRUE(zavra_test::WriteAll(client, down));
    bool arrived = false;
    for (int waited = 0; !arrived && waited < 5000; waited += 20) {
        auto raw = run.modem.RawReceived();
        arrived = std::string(raw.begin(), raw.end()).find(down) != std::string::npos;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(arrived) << "the client's bytes reach the modem";

    close(client);
    EXPECT_TRUE(run.modem.WaitForRecordId(run.modem.Ids().open, 5000, opensBefore + 1));
    ASSERT_TRUE(run.tool.Running()) << "a client that leaves never ends the daemon";
    client = zavra_test::ConnectTcp(port, 5000);
    ASSERT_GE(client, 0);
    EXPECT_EQ(zavra_test::ReadExactly(client, 1000, 5000).size(), 1000u);
    close(client);
    run.modem.SetGeneratorEnabled(false);
    run.Terminate();
    EXPECT_TRUE(ZomConcat(run.store) == ReadPart(run.Sent(), 0, run.modem.Counters().delivered));
}

TEST(DaemonTool, AStalledClientLosesChunksButTheFilesKeepEveryByte) {
    DaemonRun run;
    const int port = zavra_test::FreeTcpPort();
    run.StartModem(16 * kMiB);
    run.StartTool("", {"-p" + std::to_string(port)});
    int client = zavra_test::ConnectTcp(port, 5000);
    ASSERT_GE(client, 0);
    int small = 4096;
    setsockopt(client, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    DrainWatchingBudget(run, 30000);
    ASSERT_TRUE(run.modem.Counters().generatorDone);
    ASSERT_TRUE(run.WaitForJournal("dropping data for the client", 5000));
    close(client);
    ASSERT_TRUE(run.WaitForJournal("Client left, ", 5000));
    ASSERT_TRUE(run.tool.Running());
    run.Terminate();
    EXPECT_EQ(run.modem.Counters().delivered, static_cast<uint64_t>(16 * kMiB));
    EXPECT_TRUE(ZomConcat(run.store) == zavra_test::ReadFile(run.Sent()));
    EXPECT_EQ(JournalCount(run.store, "dropping data for the client"), 1);
}

TEST(DaemonTool, APortThatFailsAndReturnsIsReopenedWithANewLogAndServedAgain) {
    DaemonRun run;
    const int port = zavra_test::FreeTcpPort();
    run.StartModem(0, 100000);
    run.StartTool("", {"-p" + std::to_string(port)});
    int client = zavra_test::ConnectTcp(port, 5000);
    ASSERT_GE(client, 0);
    ASSERT_EQ(zavra_test::ReadExactly(client, 20000, 5000).size(), 20000u);

    const auto failed = std::chrono::steady_clock::now();
    run.modem.HangUp(1500);
    ASSERT_TRUE(run.modem.WaitForConnection(1, 8000));
    const auto back = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - failed)
                          .count();
    EXPECT_GE(back, 1400);
    EXPECT_LE(back, 4500) << "re-opened within about a second of the port's return";
    // Initialised again on the new connection, and logging again.
    ASSERT_TRUE(run.modem.WaitForChannelOpen(true, 5000));
    close(client);
    client = zavra_test::ConnectTcp(port, 5000);
    ASSERT_GE(client, 0);
    EXPECT_EQ(zavra_test::ReadExactly(client, 20000, 5000).size(), 20000u)
        << "served again on the same port";
    close(client);
    run.modem.SetGeneratorEnabled(false);
    run.Terminate();

    auto records = run.modem.Records();
    size_t reinitialised = 0;
    for (const auto& record : records)
        if (record.connection == 1 &&
            (record.id == run.modem.Ids().close || record.id == run.modem.Ids().hostTime ||
             record.id == run.modem.Ids().open))
            ++reinitialised;
    EXPECT_GE(reinitialised, 3u);
    std::vector<std::string> names = ZomFiles(run.store);
    ASSERT_EQ(names.size(), 2u);
    EXPECT_TRUE(std::regex_match(names[0], kWholeLog) && std::regex_match(names[1], kWholeLog));
    EXPECT_LT(names[0], names[1]) << "a new log with a later name";
    auto counters = run.modem.Counters();
    EXPECT_EQ(static_cast<uint64_t>(ZomBytes(run.store)), counters.delivered);
    if (counters.discarded == 0) {
        EXPECT_TRUE(ZomConcat(run.store) == zavra_test::ReadFile(run.Sent()));
    }

    auto journal = JournalLines(run.store);
    EXPECT_EQ(JournalCount(run.store, "Port Failure Detected."), 1);
    EXPECT_EQ(JournalCount(run.store, "ConnectThread: Connect request."), 2);
    EXPECT_EQ(JournalCount(run.store, "ConnectThread: Port opened."), 2);
    EXPECT_EQ(JournalCount(run.store, "Socket port number: " + std::to_string(port)), 1);
    EXPECT_EQ(JournalCount(run.store, "Server socket not opened"), 0);
}

TEST(DaemonTool, WithExitOnPortFailureAFailedPortEndsTheRunWithEveryByteOnDisk) {
    DaemonRun run;
    run.StartModem(0, 500000);
    run.StartTool("8,1", {"-x"});
    ASSERT_TRUE(run.modem.WaitForSent(300000, 5000));
    run.modem.HangUp(1500);
    if (!run.tool.Wait(10000)) {
        run.tool.Kill();
        FAIL() << "the tool did not end; stderr:\n" << run.tool.Stderr();
    }
    EXPECT_EQ(run.tool.ExitCode(), 50) << zavra_test::Describe(run.tool);
    run.modem.FlushFiles();
    auto counters = run.modem.Counters();
    EXPECT_EQ(static_cast<uint64_t>(ZomBytes(run.store)), counters.delivered);
    EXPECT_TRUE(ZomConcat(run.store) == ReadPart(run.Sent(), 0, counters.delivered));
    EXPECT_EQ(JournalCount(run.store, "Shut down"), 1);
}

// A full disk needs a small file system: a tmpfs mounted on the daemon directory. Without the right
// to mount, the test is skipped and the store's own test of a segment linked to /dev/full still
// exercises ENOSPC. A file size limit (RLIMIT_FSIZE) would not do: writes fail with EFBIG and
// a SIGXFSZ signal instead.
TEST(DaemonTool, AFullDiskIsJournalledTheClientKeepsTheStreamAndWritingResumes) {
    DaemonRun run;
    if (mount("tmpfs", run.store.c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "mounting a small file system is not allowed here (errno " << errno << ")";
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{run.store};
    zavra_test::WriteFile(run.StoreFile("filler.bin"), std::string(256 << 10, 'f'));

    const int port = zavra_test::FreeTcpPort();
    run.StartModem(0, 2000000);
    run.StartTool("", {"-p" + std::to_string(port)});
    int client = zavra_test::ConnectTcp(port, 5000);
    ASSERT_GE(client, 0);
    ASSERT_TRUE(run.WaitForJournal("NewLogData. Call to fwrite failed", 10000));
    // The stream still reaches the client while nothing can be written.
    const std::string meanwhile = zavra_test::ReadExactly(client, 500000, 5000);
    EXPECT_EQ(meanwhile.size(), 500000u);
    ASSERT_TRUE(run.tool.Running());

    unlink(run.StoreFile("filler.bin").c_str());
    ASSERT_TRUE(run.WaitForJournal("NewLogData. Writing resumed, ", 5000));
    run.modem.SetGeneratorEnabled(false);
    ASSERT_TRUE(run.modem.WaitForDrained(5000));
    close(client);
    run.Terminate();

    auto journal = JournalLines(run.store);
    EXPECT_EQ(JournalCount(run.store, "NewLogData. Call to fwrite failed, return="), 1);
    EXPECT_EQ(JournalCount(run.store, ", errno=28, file="), 1);
    // What came after the room was made is on disk, up to the last byte.
    const std::string sent = zavra_test::ReadFile(run.Sent());
    const std::string kept = ZomConcat(run.store);
    ASSERT_GT(kept.size(), 4096u);
    EXPECT_TRUE(kept.substr(kept.size() - 4096) == sent.substr(sent.size() - 4096));
}
