// The modem's crash as a host sees it: the AT port comes back in the loader and answers byte for
// byte; the simulator's command line crashes it on SIGUSR2 and refuses an unknown fault.
#include "zsim-modem.h"

#include <gtest/gtest.h>

#include "zavra_test_at.h"
#include "zavra_test_files.h"
#include "zavra_test_process.h"

#include <climits>
#include <csignal>
#include <thread>

using namespace zsim;
using zavra_test::AtEnd;

namespace {

const std::string kOk = "\r\nOK\r\n";
const std::string kModemMode = "\r\n%MODE: 0\r\n\r\nOK\r\n";
const std::string kLoaderMode = "\r\n%MODE: 1\r\n\r\nOK\r\n";

std::string Header(const std::string& size) {
    return "\r\nstart of external ram content, start address=0x80000000, size in bytes=" + size +
           ":\r\n";
}

ModemOptions CrashingModem(const std::string& dir) {
    ModemOptions options;
    options.dir = dir;
    options.gen.flowWithoutOpen = true;
    options.gen.bytesPerSecond = 200000;
    options.crash.atPort = true;
    options.crash.atSocket = true;
    options.crash.restartMs = 100;
    options.crash.resetDownMs = 100;
    options.crash.coreDumpSize = 16;
    return options;
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

// In the loader each fault changes the reply to one command; the bytes on the wire, literally.
TEST(SimCrash, EachFaultAnswersWithItsOwnBytes) {
    // A reply with a dump is the header, the image's bytes and "OK".
    const struct {
        CrashFault fault;
        const char* command;
        std::string reply; // up to the image, when there is one
        size_t imageBytes;
    } cases[] = {
        {CrashFault::None, "at%mode?\r", kLoaderMode, 0},
        {CrashFault::None, "\nAT\r", kOk, 0},
        {CrashFault::None, "at%bogus\r", "\r\nERROR\r\n", 0},
        {CrashFault::None, "at%debug=?\r", "\r\n%DEBUG: (0,1,2,3)\r\n\r\nOK\r\n", 0},
        {CrashFault::None, "at%debug=2,1\r", Header("16"), 16},
        {CrashFault::NoFullDump, "at%debug=?\r", "\r\n%DEBUG: (0,1,2)\r\n\r\nOK\r\n", 0},
        {CrashFault::DumpError, "at%debug=2,1\r", "\r\nERROR\r\n", 0},
        {CrashFault::NoFullDumpAvailable, "at%debug=2,1\r", "\r\nNo Full Core Dump Available\r\n",
         0},
        {CrashFault::ExtraAfterHeader, "at%debug=2,1\r", Header("8"), 16},
        {CrashFault::OversizeAnnounced, "at%debug=2,1\r", Header("4000000000"), 16},
        {CrashFault::ModemMode, "at%mode?\r", kModemMode, 0},
        {CrashFault::None, "at%debug=99\r", kOk, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(CrashFaultName(c.fault)) + " " + c.command);
        zavra_test::TempDir dir;
        ModemOptions options = CrashingModem(dir.Path());
        options.crash.fault = c.fault;
        Modem modem;
        ASSERT_TRUE(modem.Start(options)) << modem.Error();
        modem.Apply(zsim::Control::Crash());
        ASSERT_TRUE(modem.WaitUntil(zsim::AtMode(1), 5000));
        AtEnd at;
        ASSERT_TRUE(at.OpenPty(modem.AtPortPath()));
        const size_t size = c.reply.size() + c.imageBytes + (c.imageBytes ? kOk.size() : 0);
        const std::string got = at.Ask(c.command, size);
        EXPECT_EQ(got.substr(0, c.reply.size()), c.reply);
        ASSERT_EQ(got.size(), size);
        if (c.imageBytes) {
            EXPECT_EQ(got.substr(size - kOk.size()), kOk);
        }
    }
}

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
