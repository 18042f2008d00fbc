// The tool on real USB, inside the rig's guest (script/usbrig): the simulated modem on the
// gadget's ACM functions, the tool on the kernel's cdc-acm ttys and udev's by-id links.
// Interfaces: 00 the AT port (acm.0), 02 idle (acm.1), 04 the log port (acm.2).
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <map>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "crash_zip_reader.h"
#include "daemon_test_files.h"
#include "zavra_test_expect.h"
#include "zavra_test_files.h"
#include "zavra_test_process.h"
#include "zsim-modem.h"

namespace {

using zavra_test::Contains;
using zavra_test::ExpectExit;

std::string ById(int interface) {
    return "/dev/serial/by-id/usb-Zavra_Zavra_ZM200_Modem_SN0001-if0" + std::to_string(interface);
}

// The kernel's node behind an interface's by-id link, empty while it is missing.
std::string Node(int interface) {
    char* path = realpath(ById(interface).c_str(), nullptr);
    std::string node = path ? path : "";
    free(path);
    return node;
}

std::string Text(const zsim::Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

// One modem on the rig's gadget and the tool beside it, in a scratch directory.
struct UsbRun {
    zavra_test::TempDir dir;
    std::shared_ptr<zsim::Gadget> gadget = std::make_shared<zsim::Gadget>();
    zsim::ModemOptions options;
    zsim::Modem modem;
    zavra_test::Process tool;

    UsbRun() {
        options.dir = dir.Path();
        options.teeFile = dir.File("sent.bin");
        options.gadget = gadget;
        options.crash.atPort = true;
        options.crash.coreDumpSize = 64 << 10;
        options.gen.bytesPerSecond = 256 << 10;
    }
    // The modem is plugged in, and udev has named its three interfaces.
    bool StartModem() {
        std::string error;
        if (!gadget->Open({getenv("ZAVRA_USB_GADGET"), getenv("ZAVRA_USB_UDC")}, &error) ||
            !modem.Start(options)) {
            ADD_FAILURE() << error << modem.Error();
            return false;
        }
        return Enumerated();
    }
    static bool Enumerated() {
        bool named = zavra_test::WaitUntil(
            [] { return !Node(0).empty() && !Node(2).empty() && !Node(4).empty(); }, 15000);
        return named && zavra_test::WaitUntil([] { return system("udevadm settle") == 0; }, 10000);
    }
    void StartTool(const std::vector<std::string>& args) {
        ASSERT_TRUE(tool.Start(ZAVRA_LOG_SERIAL_PATH, args)) << tool.Error();
    }
    std::string Sent() {
        modem.FlushFiles();
        return zavra_test::ReadFile(options.teeFile);
    }
};

class Usb : public ::testing::Test {
protected:
    void SetUp() override {
        if (!getenv("ZAVRA_USB_GADGET"))
            GTEST_SKIP() << "not in the real-USB guest (script/usbrig run this test)";
    }
};

// Every way of naming the log port reaches interface 04, and the crash check finds the AT port
// (interface 00) from each.
TEST_F(Usb, EveryNameReachesTheLogPortAndTheAtPort) {
    struct Case {
        const char* how;
        std::function<std::string(UsbRun&)> name; // the port's argument
    } cases[] = {
        {"by-id link", [](UsbRun&) { return "-d" + ById(4); }},
        {"kernel name", [](UsbRun&) { return "-d" + Node(4); }},
        {"a link of the user's to the by-id link",
         [](UsbRun& run) {
             const std::string link = run.dir.File("modem-log-port");
             return symlink(ById(4).c_str(), link.c_str()) == 0 ? "-d" + link : "";
         }},
        {"interface file",
         [](UsbRun& run) {
             const std::string file = run.dir.File("log-port.txt");
             zavra_test::WriteFile(file, "VID=1e2d,PID=0061,MI=04\n");
             return file;
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.how);
        UsbRun run;
        ASSERT_TRUE(run.StartModem());
        const std::string out = run.dir.File("out.zom");
        run.StartTool({"-v5", "-m2500", c.name(run), out});
        ExpectExit(run.tool, 0);
        EXPECT_TRUE(Contains(run.tool.Stderr(), "Found modem port " + Node(0) + ", "));
        const std::string got = zavra_test::ReadFile(out), sent = run.Sent();
        EXPECT_GT(got.size(), 100000u);
        EXPECT_TRUE(sent.compare(0, got.size(), got) == 0) << "the capture is not what was sent";
    }
    // Detection alone picks a port of the diagnostic kind, which udev does not tell apart.
    UsbRun run;
    ASSERT_TRUE(run.StartModem());
    run.StartTool({run.dir.File("out.zom")});
    ExpectExit(run.tool, 0);
    EXPECT_TRUE(Contains(run.tool.Stderr(), "No serial port has been specified or detected"));
}

// A steady 1 MB/s through the by-id link, byte for byte, and the statistics line's counts.
TEST_F(Usb, CaptureAtOneMegabyteASecondIsExact) {
    UsbRun run;
    run.options.gen.bytesPerSecond = 1000000;
    run.options.gen.stopAfterBytes = 3 << 20;
    ASSERT_TRUE(run.StartModem());
    const std::string out = run.dir.File("out.zom");
    run.StartTool({"-d" + ById(4), "-m5500", out});
    ExpectExit(run.tool, 0, 30000);
    EXPECT_TRUE(run.modem.WaitUntil(zsim::HostQuiet(200), 3000));
    const std::string got = zavra_test::ReadFile(out);
    EXPECT_EQ(got.size(), 3u << 20);
    EXPECT_TRUE(got == run.Sent()) << "the capture is not what was sent";
    const std::string err = run.tool.Stderr();
    const std::string last = err.substr(err.rfind("Merged Stream: "));
    EXPECT_TRUE(Contains(last, "Merged Stream: " + std::to_string(got.size()) + "/" +
                                   std::to_string(run.modem.Counters().received) +
                                   " bytes. throughput "));
}

// The daemon through unplug and replug: of the same names, of a modem that comes up after the
// tool has sent its start-up records, and under new names (a program held the old AT node open).
TEST_F(Usb, DaemonResumesOnTheLogPortAfterEveryReplug) {
    UsbRun run;
    ASSERT_TRUE(run.StartModem());
    const std::string store = run.dir.File("store"), file = run.dir.File("log-port.txt");
    mkdir(store.c_str(), 0755);
    zavra_test::WriteFile(file, "VID=1e2d,PID=0061,MI=04\n");
    run.StartTool({"-a" + store + ",64,8", "-t", "-b", "-v5", file});
    // The modem logs 100 kB, and the daemon stores all of it.
    int failures = 0;
    auto logged = [&] {
        const uint64_t from = run.modem.Counters().sent;
        run.modem.Apply(zsim::Control::StreamOn(true));
        const bool asked = run.modem.WaitUntil(
            [&](const zsim::ModemCounters& c) { return c.sent >= from + 100000; }, 8000);
        run.modem.Apply(zsim::Control::StreamOn(false));
        run.modem.WaitUntil(zsim::Drained(), 5000);
        const long long sent = static_cast<long long>(run.modem.Counters().sent);
        const bool stored =
            zavra_test::WaitUntil([&] { return daemon_test::ZomBytes(store) == sent; }, 8000);
        EXPECT_TRUE(asked) << "the modem was not asked to log (no channel open)";
        EXPECT_TRUE(stored) << "the daemon stored " << daemon_test::ZomBytes(store) << " of "
                            << sent << " bytes sent";
        failures += !(asked && stored);
    };
    enum Replug { Same, LateModem, Renamed };
    std::string renamed;
    for (Replug replug : {Same, LateModem, Renamed, Same}) {
        SCOPED_TRACE("connection " + std::to_string(run.modem.Counters().connection));
        logged();
        const unsigned next = run.modem.Counters().connection + 1;
        const std::string logNode = Node(4);
        const int held = replug == Renamed ? open(Node(0).c_str(), O_RDWR | O_NOCTTY) : -1;
        run.gadget->SetUpDelay(replug == LateModem ? 3000 : 0);
        run.modem.Apply(zsim::Control::HangUp(500));
        ASSERT_TRUE(run.modem.WaitUntil(zsim::Reconnected(next), 10000));
        ASSERT_TRUE(UsbRun::Enumerated());
        if (held >= 0) {
            renamed = Node(4);
            EXPECT_NE(renamed, logNode);
            close(held);
        }
    }
    SCOPED_TRACE("last connection");
    logged();
    run.tool.Signal(SIGTERM);
    ExpectExit(run.tool, 15);
    if (failures == 0) {
        EXPECT_TRUE(daemon_test::ZomConcat(store) == run.Sent()) << "the logs are not the stream";
    }
    EXPECT_EQ(daemon_test::JournalCount(store, "Port Failure Detected."), 4);
    EXPECT_GE(daemon_test::JournalCount(store, renamed), 1)
        << "the journal does not name " << renamed;
    // A modem that is ready gets the start-up records once: close (KOR 0 and 1), host time, open
    // (KOR 0 and 1), and the host time of the new log file.
    std::map<unsigned, std::vector<unsigned>> ids;
    for (const zsim::HostRecord& record : run.modem.Records())
        ids[record.connection].push_back(record.id);
    for (unsigned connection : {0u, 1u, 3u})
        EXPECT_EQ(ids[connection], (std::vector<unsigned>{0x36, 0x36, 0x40, 0x35, 0x35, 0x40}))
            << "connection " << connection;
}

// A crash: the log port goes away, the modem comes back in its loader with its AT port on
// another function, and the tool fetches the bundle over it, named after the log. Named by the
// kernel's node, and by the by-id link while a terminal holds the AT node, so that the loader's
// port gets a new name.
TEST_F(Usb, CrashBundleOverTheRealAtPort) {
    for (bool renamed : {false, true}) {
        SCOPED_TRACE(renamed ? "by-id, AT node held" : "kernel name");
        UsbRun run;
        run.options.crash.afterBytes = 300000;
        ASSERT_TRUE(run.StartModem());
        const int held = renamed ? open(Node(0).c_str(), O_RDWR | O_NOCTTY) : -1;
        const std::string out = run.dir.File("out.zom");
        run.StartTool({"-v5", renamed ? "-d" + ById(4) : "-d" + Node(4), out});
        ExpectExit(run.tool, 50, 60000);
        if (held >= 0)
            close(held);
        const std::string err = run.tool.Stderr();
        EXPECT_TRUE(Contains(err, "TARGET-CRASH: Crash ZIP saved to '" +
                                      run.dir.File("out-crash.zip") + "'\n"));
        EXPECT_TRUE(zavra_test::ReadFile(out) == run.Sent()) << "the capture is not the stream";
        EXPECT_TRUE(zavra_test::ReadFile(run.dir.File("out-crash.txt")) ==
                    Text(run.modem.CrashInfoText()));
        std::map<std::string, std::string> zip;
        EXPECT_TRUE(crash_test::ReadZip(run.dir.File("out-crash.zip"), zip));
        EXPECT_TRUE(zip["out-crashlog.txt"] == Text(run.modem.CrashLogText()));
        EXPECT_TRUE(zip["extram.bin"] == Text(run.modem.CoreDumpImage()));
    }
}

// The port's terminal settings are the user's again once the tool has closed it.
TEST_F(Usb, PortSettingsAreRestoredAtExit) {
    UsbRun run;
    ASSERT_TRUE(run.StartModem());
    const std::string node = Node(4);
    int fd = open(node.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    termios before{};
    ASSERT_EQ(tcgetattr(fd, &before), 0);
    cfsetspeed(&before, B9600);
    before.c_cc[VMIN] = 1;
    before.c_cc[VTIME] = 0;
    ASSERT_EQ(tcsetattr(fd, TCSANOW, &before), 0);
    ASSERT_EQ(tcgetattr(fd, &before), 0);
    close(fd);
    run.StartTool({"-d" + node, "-t", "-m1000", run.dir.File("out.zom")});
    ExpectExit(run.tool, 0);
    fd = open(node.c_str(), O_RDWR | O_NOCTTY);
    termios after{};
    ASSERT_EQ(tcgetattr(fd, &after), 0);
    close(fd);
    EXPECT_EQ(cfgetispeed(&after), B9600);
    EXPECT_EQ(after.c_cc[VMIN], 1);
    EXPECT_EQ(after.c_cc[VTIME], 0);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(after.c_iflag, before.c_iflag);
}

} // namespace
