// zavra_log_serial -a end to end: the real binary, a simulated modem on a pty, loopback clients.
#include <chrono>
#include <regex>
#include <sys/socket.h>
#include <unistd.h>

#include "daemon_run.h"

using namespace daemon_test;

namespace {

// A log's name: "daemon_" and the date and time it began (then, in segments, the number).
const char* const kLogName = R"(daemon_\d\d-\d\d-\d\d_\d\d-\d\d-\d\d)";

// The segment number in a segment's name, "?" for any other name.
std::string Segment(const std::string& name) {
    std::smatch match;
    const std::regex segment(kLogName + std::string(R"(_(\d{3})\.zom)"));
    return std::regex_match(name, match, segment) ? match[1].str() : "?";
}

} // namespace

TEST(DaemonTool, SegmentsOfExactSizeHoldTheTailOfTheStreamWithinTheBudgetPastAStalledClient) {
    DaemonRun run;
    run.StartModem(12 * kMiB);
    run.StartTool("8,1", {run.Serve()});
    // A client that stops reading loses chunks, and the files still keep every byte.
    int client = run.Connect();
    int small = 4096;
    setsockopt(client, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    EXPECT_LE(run.DrainWatchingBudget(), 8 * kMiB);
    ASSERT_TRUE(run.WaitForJournal("dropping data for the client", 5000));
    close(client);
    ASSERT_TRUE(run.WaitForJournal("Client left, ", 5000));
    // Every new segment announces the host time: 12 segments, and the one at start-up.
    ASSERT_TRUE(run.modem.WaitUntil(zsim::RecordSeen(run.modem.Ids().hostTime, 13), 5000));
    run.Terminate();

    std::vector<std::string> names = ZomFiles(run.store);
    ASSERT_EQ(names.size(), 8u);
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(Segment(names[i]), (i < 6 ? "00" : "01") + std::to_string((i + 4) % 10));
        EXPECT_EQ(zavra_test::FileSize(run.StoreFile(names[i])), kMiB) << names[i];
    }
    ASSERT_EQ(run.modem.Counters().delivered, static_cast<uint64_t>(12 * kMiB));
    EXPECT_TRUE(ZomConcat(run.store) == run.Sent().substr(4 * kMiB)) << "the stream's tail";
    EXPECT_EQ(run.modem.RecordsWithId(run.modem.Ids().hostTime).size(), 13u);

    for (const std::string& line : JournalLines(run.store))
        EXPECT_TRUE(std::regex_match(line, std::regex(R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d: .+)")))
            << line;
    for (std::string once : {": Total Size: 8388608", ": File Size: 1048576", "Shut down"})
        EXPECT_EQ(JournalCount(run.store, once), 1) << once;
    EXPECT_EQ(JournalCount(run.store, "Deleting old file '"), 4);
    EXPECT_EQ(JournalCount(run.store, "error"), 0);
}

// Ends with a port failure under -x: status 50, and the journal closed as after a signal.
TEST(DaemonTool, ExistingFilesGoFirstKeepFirstSegmentSavesSegmentZeroAndExitOnPortFailure) {
    DaemonRun run;
    zavra_test::WriteFile(run.StoreFile("daemon_20-01-02_00-00-00.zom"), std::string(kMiB, 'b'));
    zavra_test::WriteFile(run.StoreFile("daemon_20-01-01_00-00-00_000.zom"),
                          std::string(2 * kMiB, 'a'));
    zavra_test::WriteFile(run.StoreFile("notes.txt"), "not a log");
    run.StartModem(10 * kMiB);
    run.StartTool("8,1", {"-f", "-x"});
    EXPECT_LE(run.DrainWatchingBudget(), 8 * kMiB);
    run.modem.Apply(zsim::Control::HangUp(1500));
    run.ExpectExit(50);

    EXPECT_EQ(zavra_test::ReadFile(run.StoreFile("notes.txt")), "not a log");
    std::vector<std::string> deleted;
    for (const std::string& line : JournalLines(run.store))
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
    const std::string kept = ZomConcat(run.store);
    EXPECT_TRUE(kept.substr(0, kMiB) == run.Sent().substr(0, kMiB));
    EXPECT_TRUE(kept.substr(kMiB) == run.Sent().substr(11 * kMiB - kept.size()));
    EXPECT_EQ(JournalCount(run.store, "First segment move failed"), 0);
    EXPECT_EQ(JournalCount(run.store, "Shut down"), 1);
}

// One client session on the port as it first opens, then a second across its failure and return.
// Served on one loopback address (127.0.0.2): a client there is served and journalled by its
// address, while nothing listens on 127.0.0.1.
TEST(DaemonTool, AClientIsServedBothWaysAndAFailedPortIsReopenedWithANewLogAndServedAgain) {
    DaemonRun run;
    run.StartModem(0, 100000);
    const std::string where = "127.0.0.2:" + std::to_string(run.port);
    run.StartTool("", {"-p" + where});
    int client = zavra_test::ConnectTcp("127.0.0.2", run.port, 5000, "127.0.0.3");
    ASSERT_GE(client, 0);
    EXPECT_LT(zavra_test::ConnectTcp(run.port, 0), 0) << "listening on 127.0.0.1 too";
    const std::string got = zavra_test::ReadExactly(client, 20000, 5000);
    ASSERT_EQ(got.size(), 20000u);
    run.modem.FlushFiles();
    EXPECT_NE(run.Sent().find(got), std::string::npos)
        << "the client sees a contiguous piece of the stream";
    const std::string down = "client bytes for the modem \x01\x02\x03";
    ASSERT_TRUE(zavra_test::WriteAll(client, down));
    auto reached = [&] {
        auto raw = run.modem.RawReceived();
        return std::search(raw.begin(), raw.end(), down.begin(), down.end()) != raw.end();
    };
    EXPECT_TRUE(zavra_test::WaitUntil(reached, 5000)) << "the client's bytes reach the modem";
    const size_t opens = run.modem.RecordsWithId(run.modem.Ids().open).size();
    close(client);
    EXPECT_TRUE(run.modem.WaitUntil(zsim::RecordSeen(run.modem.Ids().open, opens + 1), 5000))
        << "the channel is opened again when a client leaves";
    ASSERT_TRUE(run.tool.Running()) << "a client that leaves never ends the daemon";
    client = zavra_test::ConnectTcp("127.0.0.2", run.port, 5000);
    ASSERT_EQ(zavra_test::ReadExactly(client, 20000, 5000).size(), 20000u);

    const auto failed = std::chrono::steady_clock::now();
    run.modem.Apply(zsim::Control::HangUp(1500));
    ASSERT_TRUE(run.modem.WaitUntil(zsim::Reconnected(1), 8000));
    const auto back = std::chrono::steady_clock::now() - failed;
    EXPECT_GE(back, std::chrono::milliseconds(1400));
    EXPECT_LE(back, std::chrono::milliseconds(6000)) << "re-opened about a second after its return";
    // Initialised again on the new connection, and served again.
    ASSERT_TRUE(run.modem.WaitUntil(zsim::ChannelOpen(), 5000));
    close(client);
    client = zavra_test::ConnectTcp("127.0.0.2", run.port, 5000);
    EXPECT_EQ(zavra_test::ReadExactly(client, 20000, 5000).size(), 20000u);
    close(client);
    run.modem.Apply(zsim::Control::StreamOn(false));
    run.Terminate();

    std::vector<std::string> names = ZomFiles(run.store);
    ASSERT_EQ(names.size(), 2u);
    for (const std::string& name : names)
        EXPECT_TRUE(std::regex_match(name, std::regex(kLogName + std::string(R"(\.zom)")))) << name;
    EXPECT_LT(names[0], names[1]) << "a new log with a later name";
    EXPECT_EQ(static_cast<uint64_t>(ZomBytes(run.store)), run.modem.Counters().delivered);
    if (run.modem.Counters().discarded == 0) {
        EXPECT_TRUE(ZomConcat(run.store) == run.Sent());
    }

    EXPECT_EQ(JournalCount(run.store, "Port Failure Detected."), 1);
    EXPECT_EQ(JournalCount(run.store, "ConnectThread: Port opened."), 2);
    EXPECT_EQ(JournalCount(run.store, "Socket port number: " + std::to_string(run.port)), 1);
    EXPECT_EQ(JournalCount(run.store, "Socket address: " + where), 1);
    EXPECT_EQ(JournalCount(run.store, "SocketThread: Connected to 127.0.0.3."), 1);
}

// A client whose link stalls for 500 ms every 2 s while the modem sends 2 MB/s keeps up on
// average: the daemon holds each stall's backlog for it, and from the moment it connected it
// gets every byte, up to the end of the stream.
TEST(DaemonTool, AClientBehindAStallingLinkGetsEveryByteFromItsConnection) {
    DaemonRun run;
    run.StartModem(10000000, 2000000);
    run.StartTool("", {run.Serve()});
    int client = run.Connect();
    zavra_test::PausingReader reader(client, 2000, 500);
    ASSERT_TRUE(run.modem.WaitUntil(zsim::GeneratorDone(), 60000)) << run.tool.Stderr();
    ASSERT_TRUE(run.modem.WaitUntil(zsim::Drained(), 20000));
    run.modem.FlushFiles();
    const std::string sent = run.Sent();
    ASSERT_EQ(sent.size(), 10000000u);
    auto hasTheEnd = [&] {
        const std::string got = reader.Bytes();
        return got.size() >= 64 && got.compare(got.size() - 64, 64, sent, sent.size() - 64) == 0;
    };
    EXPECT_TRUE(zavra_test::WaitUntil(hasTheEnd, 20000))
        << "the client got " << reader.Size() << " bytes";
    run.Terminate();
    reader.Stop();
    close(client);
    const std::string got = reader.Bytes();
    EXPECT_GE(reader.Pauses(), 2u);
    EXPECT_GT(got.size(), sent.size() / 2);
    ASSERT_LE(got.size(), sent.size());
    EXPECT_TRUE(got == sent.substr(sent.size() - got.size()))
        << "the client's stream is the tail of the modem's, byte for byte";
    EXPECT_EQ(JournalCount(run.store, "dropping data for the client"), 0);
}
