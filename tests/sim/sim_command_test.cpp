// The simulator's command line: SIGUSR2 crashes the modem, whose AT port comes back in the loader
// shaped by the options; an unknown fault is refused.
#include <gtest/gtest.h>

#include "zavra_test_at.h"
#include "zavra_test_files.h"
#include "zavra_test_process.h"

#include <climits>
#include <csignal>
#include <thread>

using zavra_test::AtEnd;

namespace {

const std::string kOk = "\r\nOK\r\n";
const std::string kModemMode = "\r\n%MODE: 0\r\n\r\nOK\r\n";
const std::string kLoaderMode = "\r\n%MODE: 1\r\n\r\nOK\r\n";

std::string Header(const std::string& size) {
    return "\r\nstart of external ram content, start address=0x80000000, size in bytes=" + size +
           ":\r\n";
}

// Waits until the link points at its target, or (for an empty target) at a port that is up.
bool WaitForLink(const std::string& link, const std::string& target, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (char now[PATH_MAX]; std::chrono::steady_clock::now() < deadline;
         std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        const ssize_t n = readlink(link.c_str(), now, sizeof now - 1);
        const std::string to = n > 0 ? std::string(now, static_cast<size_t>(n)) : "";
        if (target.empty() ? !to.empty() && to.find(".down") == std::string::npos : to == target)
            return true;
    }
    return false;
}

} // namespace

TEST(SimCrashCommand, Sigusr2CrashesAndTheOptionsShapeTheLoader) {
    zavra_test::TempDir dir;
    zavra_test::Process sim;
    ASSERT_TRUE(sim.Start(ZAVRA_MODEM_SIM_PATH,
                          {"-d", dir.Path(), "-q", "--at-port", "--crash-restart-ms", "50",
                           "--core-dump-size", "1K", "--crash-fault", "split-header"}))
        << sim.Error();
    const std::string atLink = dir.File("modem-at");
    ASSERT_TRUE(WaitForLink(atLink, "", 5000)) << zavra_test::Describe(sim);
    AtEnd at;
    ASSERT_TRUE(at.OpenPty(atLink));
    EXPECT_EQ(at.Ask("at%mode?\r", kModemMode.size()), kModemMode);

    ASSERT_TRUE(sim.Signal(SIGUSR2));
    ASSERT_TRUE(at.HungUp(3000));
    EXPECT_TRUE(WaitForLink(dir.File("modem-log"), "modem-log.down", 3000));
    ASSERT_TRUE(WaitForLink(atLink, "", 5000));
    ASSERT_TRUE(at.OpenPty(atLink));
    EXPECT_EQ(at.Ask("at%mode?\r", kLoaderMode.size()), kLoaderMode);
    const std::string dump = at.Ask("at%debug=2,1\r", Header("1024").size() + 1024 + kOk.size());
    EXPECT_EQ(dump.substr(0, Header("1024").size()), Header("1024")); // both halves of the header
    EXPECT_EQ(dump.size(), Header("1024").size() + 1024 + kOk.size());

    ASSERT_TRUE(sim.Signal(SIGTERM));
    ASSERT_TRUE(sim.Wait(10000));
    EXPECT_EQ(sim.ExitCode(), 0) << zavra_test::Describe(sim);
}

TEST(SimCrashCommand, UnknownFaultIsRefused) {
    zavra_test::Process sim;
    ASSERT_TRUE(sim.Start(ZAVRA_MODEM_SIM_PATH, {"--crash-fault", "sometimes"})) << sim.Error();
    ASSERT_TRUE(sim.Wait(10000));
    EXPECT_EQ(sim.ExitCode(), 1);
    EXPECT_EQ(sim.Stderr(), "zavra_modem_sim: Unknown crash fault 'sometimes'.\n");
}
