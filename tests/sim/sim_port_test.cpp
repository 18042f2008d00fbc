// The modem's end of the pseudo-terminal: the published link and the hang-up.
#include "zsim-pty-port.h"

#include <gtest/gtest.h>

#include "sim_host.h"
#include "zavra_test_files.h"

#include <climits>
#include <thread>

using namespace zsim;

namespace {

std::string LinkTarget(const std::string& link) {
    char target[PATH_MAX];
    ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

} // namespace

TEST(SimPort, LinkAndDrainFollowThePortThroughHangUpAndReturn) {
    zavra_test::TempDir dir;
    std::string link = dir.Path() + "/port";
    PtyPort port;
    Bytes sent(3000);
    for (size_t i = 0; i < sent.size(); ++i)
        sent[i] = static_cast<uint8_t>(i * 7);
    ASSERT_TRUE(port.Open(link));
    EXPECT_EQ(LinkTarget(link), port.SlavePath());
    // Nobody has the port open: the drain gives up early and the hang-up counts the loss.
    ASSERT_EQ(write(port.MasterFd(), sent.data(), 1000), 1000);
    EXPECT_FALSE(port.Drain(2000));
    EXPECT_EQ(port.HangUp(), 1000u);
    EXPECT_EQ(LinkTarget(link), "port.down");
    EXPECT_LT(open(link.c_str(), O_RDWR | O_NOCTTY), 0); // nothing there while down

    ASSERT_TRUE(port.Open(link));
    EXPECT_EQ(LinkTarget(link), port.SlavePath());
    {
        SimHost host(link);
        EXPECT_TRUE(port.HostHasOpen());
        ASSERT_EQ(write(port.MasterFd(), sent.data(), sent.size()), 3000);
        Bytes got;
        std::thread reader([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            got = host.Read(sent.size());
        });
        EXPECT_TRUE(port.Drain(3000));
        reader.join();
        EXPECT_EQ(got, sent);
    }
    EXPECT_FALSE(port.HostHasOpen());
    EXPECT_EQ(port.HangUp(), 0u);
    port.Close();
    EXPECT_EQ(LinkTarget(link), "");
}
