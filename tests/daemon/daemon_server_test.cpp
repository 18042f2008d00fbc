// The connect thread and the socket server in-process, with real loopback clients.
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "daemon_store_fixture.h"
#include "zv-time.h"

using namespace daemon_test;

namespace {

// Reads what arrives within `ms` of quiet, up to `limit` bytes.
std::string Drain(int fd, size_t limit, int ms) {
    std::string got;
    char buffer[65536];
    while (got.size() < limit) {
        pollfd ready = {fd, POLLIN, 0};
        if (poll(&ready, 1, ms) <= 0)
            break;
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n <= 0)
            break;
        got.append(buffer, static_cast<size_t>(n));
    }
    return got;
}

// True when the peer has closed or reset the connection.
bool ClosedByPeer(int fd, int ms) {
    char byte;
    pollfd ready = {fd, POLLIN, 0};
    if (poll(&ready, 1, ms) <= 0)
        return false;
    return read(fd, &byte, 1) <= 0;
}

} // namespace

TEST(DaemonServer, TheConnectThreadRetriesEachSecondUntilThePortOpens) {
    ScratchDir dir;
    RecordingDaemon daemon;
    daemon.failingOpens = 1;
    const unsigned start = ZvTime::GetMsTickTime();
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 0));
    const unsigned took = ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime());
    EXPECT_GE(took, 900u);
    EXPECT_EQ(daemon.opens, 2);
    EXPECT_EQ(daemon.initialises, 1);
    EXPECT_EQ(daemon.closes, 1);
    EXPECT_EQ(CountLines(JournalLines(dir.Path()), "ConnectThread: Port opened."), 1);
}

TEST(DaemonServer, AClientGetsTheStreamAndItsBytesReachThePortInSmallPieces) {
    ScratchDir dir;
    RecordingDaemon daemon;
    const int port = FreeTcpPort();
    daemon.SetSocketPort(port);
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 0));
    int client = ConnectTcp(port, 3000);
    ASSERT_GE(client, 0);
    ASSERT_TRUE(WaitUntil(
        [&] {
            return CountLines(JournalLines(dir.Path()), "SocketThread: Connected to 127.0.0.1.") ==
                   1;
        },
        3000));

    const std::string stream = MakeStream(200000);
    Feed(daemon, stream, 4096);
    EXPECT_EQ(Drain(client, stream.size(), 1000), stream);
    EXPECT_EQ(ZomConcat(dir.Path()), stream);

    const std::string down = MakeStream(5000, 9);
    ASSERT_EQ(write(client, down.data(), down.size()), static_cast<ssize_t>(down.size()));
    EXPECT_TRUE(WaitUntil([&] { return daemon.SentToPort() == down; }, 3000));
    EXPECT_LE(daemon.LargestPieceToPort(), 1024u);

    close(client);
    ASSERT_TRUE(WaitUntil([&] { return daemon.disconnects == 1; }, 3000));
    // The next client is served at once, and a departed client never ends the process.
    Feed(daemon, stream, 4096);
    client = ConnectTcp(port, 3000);
    ASSERT_GE(client, 0);
    ASSERT_TRUE(WaitUntil(
        [&] { return CountLines(JournalLines(dir.Path()), "SocketThread: Connected to") == 2; },
        3000));
    Feed(daemon, stream.substr(0, 1000), 1000);
    EXPECT_EQ(Drain(client, 1000, 1000), stream.substr(0, 1000));
    close(client);
    EXPECT_TRUE(WaitUntil([&] { return daemon.disconnects == 2; }, 3000));
}

TEST(DaemonServer, AStalledClientNeverHoldsUpTheStore) {
    ScratchDir dir;
    RecordingDaemon daemon;
    const int port = FreeTcpPort();
    daemon.SetSocketPort(port);
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 4 << 20));
    int client = ConnectTcp(port, 3000);
    ASSERT_GE(client, 0);
    ASSERT_TRUE(WaitUntil(
        [&] { return CountLines(JournalLines(dir.Path()), "SocketThread: Connected to") == 1; },
        3000));

    // Far more than the socket buffers hold, and the client reads none of it.
    const std::string stream = MakeStream(24 << 20);
    const unsigned start = ZvTime::GetMsTickTime();
    Feed(daemon, stream, 16384);
    EXPECT_LT(ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()), 20000u);
    EXPECT_EQ(ZomConcat(dir.Path()), stream);
    EXPECT_GT(daemon.GetClientDroppedChunks(), 0u);
    EXPECT_GT(daemon.GetClientDroppedBytes(), 0u);
    EXPECT_EQ(CountLines(JournalLines(dir.Path()), "dropping data for the client"), 1);

    // The client leaves without reading: the store goes on, and the episode is summed up.
    close(client);
    ASSERT_TRUE(WaitUntil([&] { return daemon.disconnects == 1; }, 3000));
    Feed(daemon, stream.substr(0, 100000), 16384);
    auto journal = JournalLines(dir.Path());
    EXPECT_EQ(CountLines(journal, "Client left, "), 1);
    EXPECT_EQ(CountLines(journal, "dropping data for the client"), 1);
}

TEST(DaemonServer, APortFailureDropsTheClientAndTheSamePortServesAgain) {
    ScratchDir dir;
    RecordingDaemon daemon;
    const int port = FreeTcpPort();
    daemon.SetSocketPort(port);
    ASSERT_TRUE(Start(daemon, dir.Path(), 0, 0));
    int client = ConnectTcp(port, 3000);
    ASSERT_GE(client, 0);
    ASSERT_TRUE(WaitUntil(
        [&] { return CountLines(JournalLines(dir.Path()), "SocketThread: Connected to") == 1; },
        3000));
    Feed(daemon, MakeStream(3000), 1000);
    EXPECT_EQ(Drain(client, 3000, 1000).size(), 3000u);

    daemon.failingOpens = 1;
    daemon.PortFailureDetected();
    EXPECT_TRUE(ClosedByPeer(client, 3000));
    close(client);
    ASSERT_TRUE(WaitUntil([&] { return daemon.IsPortOpen() && daemon.opens == 3; }, 5000));
    EXPECT_EQ(daemon.closes, 2);
    EXPECT_EQ(daemon.initialises, 2);

    client = ConnectTcp(port, 3000);
    ASSERT_GE(client, 0) << ReadFile(dir.File("daemon.log"));
    ASSERT_TRUE(WaitUntil(
        [&] { return CountLines(JournalLines(dir.Path()), "SocketThread: Connected to") == 2; },
        3000));
    const std::string after = MakeStream(2000, 5);
    Feed(daemon, after, 1000);
    EXPECT_EQ(Drain(client, after.size(), 1000), after);
    close(client);

    auto journal = JournalLines(dir.Path());
    EXPECT_EQ(CountLines(journal, "Port Failure Detected."), 1);
    EXPECT_EQ(CountLines(journal, "ConnectThread: Closing sockets as target port closed."), 2);
    EXPECT_EQ(CountLines(journal, "' of 3000 bytes."), 1) << "the log ends at the failure";
    EXPECT_EQ(CountLines(journal, "Server socket not opened"), 0);
}

TEST(DaemonServer, AFullDiskIsJournalledOnceWhileTheClientKeepsTheStream) {
    ScratchDir scratch;
    const std::string dir = scratch.File("small");
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=256k") != 0)
        GTEST_SKIP() << "mounting a small file system is not allowed here (" << errno
                     << "); the end-to-end full-disk test covers the fallback";
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{dir};
    WriteFile(dir + "/filler.bin", std::string(64 << 10, 'f'));

    RecordingDaemon daemon;
    const int port = FreeTcpPort();
    daemon.SetSocketPort(port);
    ASSERT_TRUE(Start(daemon, dir, 0, 0));
    int client = ConnectTcp(port, 3000);
    ASSERT_GE(client, 0);
    ASSERT_TRUE(WaitUntil(
        [&] { return CountLines(JournalLines(dir), "SocketThread: Connected to") == 1; }, 3000));
    const std::string stream = MakeStream(400 << 10);
    std::string received;
    std::thread reader([&] { received = Drain(client, stream.size() + (32 << 10), 2000); });
    Feed(daemon, stream, 4096);

    auto journal = JournalLines(dir);
    EXPECT_EQ(CountLines(journal, "NewLogData. Call to fwrite failed, return="), 1);
    EXPECT_EQ(CountLines(journal, ", errno=28, file="), 1);
    // Room again: the store writes the very next chunk.
    unlink((dir + "/filler.bin").c_str());
    const std::string after = MakeStream(32 << 10, 4);
    Feed(daemon, after, 4096);
    reader.join();
    close(client);
    EXPECT_EQ(received, stream + after);
    journal = JournalLines(dir);
    EXPECT_EQ(CountLines(journal, "NewLogData. Writing resumed, "), 1);
    const std::string kept = ZomConcat(dir);
    EXPECT_EQ(kept.substr(kept.size() - after.size()), after);
    EXPECT_EQ(kept.substr(0, 100000), stream.substr(0, 100000));
}
