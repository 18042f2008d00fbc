#include "zsim-pty-port.h"

#include <gtest/gtest.h>

#include "sim_host.h"

#include <climits>
#include <csignal>
#include <sys/wait.h>
#include <thread>

using namespace zsim;

namespace {

std::string LinkTarget(const std::string& link) {
    char target[PATH_MAX];
    ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

} // namespace

TEST(SimPort, LinkFollowsThePortThroughHangUpAndReturn) {
    SimTempDir dir;
    std::string link = dir.path + "/port";
    PtyPort port;
    ASSERT_TRUE(port.Open(link));
    std::string first = port.SlavePath();
    EXPECT_EQ(LinkTarget(link), first);
    {
        SimHost host(link);
        ASSERT_GE(host.fd, 0);
        EXPECT_TRUE(port.HostHasOpen());
    }
    EXPECT_FALSE(port.HostHasOpen());

    port.HangUp();
    EXPECT_EQ(LinkTarget(link), "port.down");
    EXPECT_LT(open(link.c_str(), O_RDWR | O_NOCTTY), 0); // nothing there while down

    ASSERT_TRUE(port.Open(link));
    EXPECT_EQ(LinkTarget(link), port.SlavePath());
    SimHost host(link);
    ASSERT_GE(host.fd, 0);
    uint8_t byte = 0x5A;
    ASSERT_EQ(write(port.MasterFd(), &byte, 1), 1);
    EXPECT_EQ(host.Read(1), Bytes{0x5A});

    port.Close();
    EXPECT_EQ(LinkTarget(link), "");
}

TEST(SimPort, DrainLetsASlowReaderTakeEverythingBeforeTheHangUp) {
    SimTempDir dir;
    PtyPort port;
    ASSERT_TRUE(port.Open(dir.path + "/port"));
    SimHost host(port.LinkPath());
    Bytes sent(3000);
    for (size_t i = 0; i < sent.size(); ++i) {
        sent[i] = static_cast<uint8_t>(i * 7);
    }
    ASSERT_EQ(write(port.MasterFd(), sent.data(), sent.size()), 3000);
    Bytes got;
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        got = host.Read(sent.size());
    });
    EXPECT_TRUE(port.Drain(3000));
    EXPECT_EQ(port.HangUp(), 0u);
    reader.join();
    EXPECT_EQ(got, sent);
}

TEST(SimPort, UnreadBytesAreCountedWhenNobodyReads) {
    SimTempDir dir;
    PtyPort port;
    ASSERT_TRUE(port.Open(dir.path + "/port"));
    Bytes sent(1000, 0x11);
    ASSERT_EQ(write(port.MasterFd(), sent.data(), sent.size()), 1000);
    EXPECT_FALSE(port.Drain(2000)); // nobody has the port open: gives up early
    EXPECT_EQ(port.HangUp(), 1000u);
}

// The tool under test is a child process of the test: it must not inherit the modem's ends of
// the pty, or closing the master would no longer hang the port up.
TEST(SimPort, ChildProcessesDoNotHoldThePortOpen) {
    SimTempDir dir;
    PtyPort port;
    ASSERT_TRUE(port.Open(dir.path + "/port"));
    pid_t child = fork();
    if (child == 0) {
        execlp("sleep", "sleep", "5", static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_GT(child, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // let it exec
    EXPECT_FALSE(port.HostHasOpen());
    SimHost host(port.LinkPath());
    port.HangUp();
    bool hungUp = false;
    host.Read(1, 1000, &hungUp);
    EXPECT_TRUE(hungUp);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}
