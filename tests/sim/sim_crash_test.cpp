// The modem's crash as a host sees it: the logging port hangs up, the AT port comes back in the
// loader and answers the crash dialogue byte for byte, over the pty and over TCP.
#include "zsim-modem.h"

#include <gtest/gtest.h>

#include "sim_host.h"
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
const std::string kAllDebugModes = "\r\n%DEBUG: (0,1,2,3)\r\n\r\nOK\r\n";

std::string Header(const std::string& size) {
    return "\r\nstart of external ram content, start address=0x80000000, size in bytes=" + size +
           ":\r\n";
}

std::string Text(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

ModemOptions CrashingModem(const std::string& dir, uint64_t coreDumpSize) {
    ModemOptions options;
    options.dir = dir;
    options.gen.flowWithoutOpen = true;
    options.gen.bytesPerSecond = 200000;
    options.crash.atPort = true;
    options.crash.atSocket = true;
    options.crash.restartMs = 100;
    options.crash.resetDownMs = 100;
    options.crash.coreDumpSize = coreDumpSize;
    return options;
}

bool OpenAt(AtEnd& at, const Modem& modem, bool tcp) {
    return tcp ? at.OpenTcp(modem.AtSocketPort(), 3000) : at.OpenPty(modem.AtPortPath());
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

class SimCrashSequence : public testing::TestWithParam<bool> {};

TEST_P(SimCrashSequence, HangsUpServesTheCrashDataAndComesBackAfterTheReset) {
    const bool tcp = GetParam();
    zavra_test::TempDir dir;
    ModemOptions options = CrashingModem(dir.Path(), 300000); // more than a pty holds
    options.transcriptFile = dir.File("transcript.json");
    Modem modem;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    EXPECT_EQ(modem.AtPortPath(), dir.File("modem-at"));
    ASSERT_GT(modem.AtSocketPort(), 0);

    AtEnd at;
    ASSERT_TRUE(OpenAt(at, modem, tcp));
    EXPECT_EQ(at.Ask("at%mode?\r", kModemMode.size()), kModemMode);
    EXPECT_EQ(at.Ask("\nAT\r", kOk.size()), kOk);
    EXPECT_EQ(at.Ask("at%bogus\r", 9), "\r\nERROR\r\n");

    // The crash: everything sent on the logging port is read before it hangs up.
    {
        SimHost log(modem.PortPath());
        ASSERT_TRUE(modem.WaitForSent(5000, 5000));
        modem.Crash();
        bool hungUp = false;
        Bytes got = log.Read(SIZE_MAX, 3000, &hungUp);
        EXPECT_TRUE(hungUp);
        ASSERT_TRUE(modem.WaitForCrashed(1000));
        ModemCounters counters = modem.Counters();
        EXPECT_EQ(got.size(), counters.sent);
        EXPECT_EQ(counters.discarded, 0u);
        EXPECT_FALSE(counters.portUp);
        EXPECT_TRUE(counters.crashed);
    }
    EXPECT_TRUE(at.HungUp(3000)); // the AT port went away too

    ASSERT_TRUE(modem.WaitForAtMode(1, 5000));
    ASSERT_TRUE(OpenAt(at, modem, tcp));
    EXPECT_EQ(at.Ask("at%mode?\r", kLoaderMode.size()), kLoaderMode);
    EXPECT_EQ(at.Ask("at%debug=?\r", kAllDebugModes.size()), kAllDebugModes);
    const std::string dump = Header("300000") + Text(modem.CoreDumpImage()) + kOk;
    EXPECT_TRUE(at.Ask("at%debug=2,1\r", dump.size()) == dump); // no 300 KB diff on failure
    const std::string info = BuiltInCrashInfoText();
    EXPECT_EQ(Text(modem.CrashInfoText()), info);
    EXPECT_EQ(at.Ask("at%debug=0,0\r", info.size()), info);
    EXPECT_EQ(at.Ask("at%debug=1,0\r", info.size()), info);
    const std::string log = Text(modem.CrashLogText());
    EXPECT_GT(log.size(), 200u);
    EXPECT_EQ(at.Ask("at%debug\r", log.size()), log);
    EXPECT_EQ(at.Ask("at%debug=99\r", kOk.size()), kOk);
    EXPECT_EQ(at.Ask("at%zreset\r", kOk.size()), kOk);

    // The reset: the logging port is back as a new connection, with the stream flowing.
    ASSERT_TRUE(modem.WaitForConnection(1, 5000));
    {
        SimHost log(modem.PortPath());
        EXPECT_EQ(log.Read(100).size(), 100u);
    }
    EXPECT_FALSE(modem.Counters().crashed);
    EXPECT_EQ(at.Ask("at%mode?\r", kModemMode.size()), kModemMode);

    // A second crash, ended this time by setting the modem mode.
    modem.Crash();
    ASSERT_TRUE(modem.WaitUntil([](const ModemCounters& c) { return c.crashes == 2; }, 3000));
    ASSERT_TRUE(modem.WaitForAtMode(1, 5000));
    ASSERT_TRUE(OpenAt(at, modem, tcp));
    EXPECT_EQ(at.Ask("at%mode=0\r", kOk.size()), kOk);
    ASSERT_TRUE(modem.WaitForConnection(2, 5000));

    const std::vector<std::string> expected = {
        "at%mode?\r",     "AT\r",           "at%bogus\r",     "at%mode?\r", "at%debug=?\r",
        "at%debug=2,1\r", "at%debug=0,0\r", "at%debug=1,0\r", "at%debug\r", "at%debug=99\r",
        "at%zreset\r",    "at%mode?\r",     "at%mode=0\r"};
    EXPECT_EQ(modem.AtCommands(), expected);
    modem.Stop();
    std::string transcript = zavra_test::ReadFile(options.transcriptFile);
    const std::string via = tcp ? "tcp" : "pty";
    EXPECT_NE(transcript.find("\"via\":\"" + via + "\",\"at\":\"at%debug=2,1\\r\"}\n"),
              std::string::npos)
        << transcript;
    size_t lines = 0;
    for (size_t at = transcript.find("\"at\":"); at != std::string::npos;
         at = transcript.find("\"at\":", at + 1))
        ++lines;
    EXPECT_EQ(lines, expected.size());
}

INSTANTIATE_TEST_SUITE_P(Transports, SimCrashSequence, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                             return info.param ? "Tcp" : "Pty";
                         });

// The built-in crash information, read by Python: the text format, the base64 bodies and the
// zip inside, without any of the simulator's code.
TEST(SimCrash, BuiltInCrashInformationDecodesToItsSections) {
    static const char kReader[] = R"(
import base64, io, os, sys, zipfile
text = open(sys.argv[1], 'rb').read()
assert text.endswith(b'\r\n') and b'\n' not in text.replace(b'\r\n', b''), 'line ends'
sections = []  # [head, body lines or None while in the head]
for line in text.split(b'\r\n')[:-1]:
    if line.startswith(b'--Zavra debug info'):
        sections.append([{}, None])
    elif sections and sections[-1][1] is None and line.startswith(b'Content-'):
        key, _, value = line.partition(b':')
        sections[-1][0][key.decode()] = value.strip().decode()
    elif sections:
        sections[-1][1] = (sections[-1][1] or []) + ([line] if line else [])
for head, body in sections[:-1]:
    body = body or []
    name = head['Content-Description']
    if head.get('Content-Comment') == 'No valid log data available':
        sys.stderr.write('no data %s\n' % name)
        continue
    encoding = head['Content-Transfer-Encoding']
    assert all(len(line) <= 76 for line in body), name
    if encoding == 'x-base64':
        data = base64.b64decode(b''.join(body), validate=True)
    else:
        data = b'\n'.join(body)
    open(os.path.join(sys.argv[2], name), 'wb').write(data)
    sys.stderr.write('%s %s\n' % (name, encoding))
    if name.endswith('.zip'):
        archive = zipfile.ZipFile(io.BytesIO(data))
        assert archive.testzip() is None
        sys.stderr.write('zip %s\n' % ','.join(archive.namelist()))
)";
    zavra_test::TempDir dir;
    const std::string text = BuiltInCrashInfoText();
    ASSERT_EQ(BuiltInCrashInfoText(), text); // the same bytes every time
    ASSERT_TRUE(zavra_test::WriteFile(dir.File("crash.txt"), text));
    zavra_test::Process python;
    ASSERT_TRUE(
        python.Start("/usr/bin/python3", {"-c", kReader, dir.File("crash.txt"), dir.Path()}))
        << python.Error();
    ASSERT_TRUE(python.Wait(30000));
    ASSERT_EQ(python.ExitCode(), 0) << zavra_test::Describe(python);

    std::string expected;
    for (const CrashSection& section : BuiltInCrashSections()) {
        expected += section.description + " " + section.encoding + "\n";
        if (section.description == "crash_dump_1.zip")
            expected += "zip bb_events.txt,registers.txt\n";
        if (section.description == "logging_kor2_chunk1.zol")
            expected += "no data logging_kor2_chunk2.zol\n";
        EXPECT_EQ(zavra_test::ReadFile(dir.File(section.description)), section.content)
            << section.description;
    }
    EXPECT_EQ(python.Stderr(), expected);
}

TEST(SimCrashCommand, Sigusr2CrashesAndTheNamedFaultIsServed) {
    zavra_test::TempDir dir;
    zavra_test::Process sim;
    ASSERT_TRUE(sim.Start(ZAVRA_MODEM_SIM_PATH,
                          {"-d", dir.Path(), "-q", "--at-port", "--crash-restart-ms", "50",
                           "--core-dump-size", "1K", "--crash-fault", "info-201"}))
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
    EXPECT_EQ(at.Ask("at%debug=0,0\r", 201), BuiltInCrashInfoText().substr(0, 201));
    const size_t dumpSize = Header("1024").size() + 1024 + kOk.size();
    const std::string dump = at.Ask("at%debug=2,1\r", dumpSize);
    EXPECT_EQ(dump.substr(0, Header("1024").size()), Header("1024"));
    EXPECT_EQ(dump.size(), dumpSize);

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

TEST(SimCrash, ByteAndTimeTriggersFireOncePerStart) {
    zavra_test::TempDir dir;
    ModemOptions options = CrashingModem(dir.Path(), 16);
    options.gen.bytesPerSecond = 0;
    options.crash.afterBytes = 30000;
    Modem modem;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    {
        SimHost log(modem.PortPath());
        bool hungUp = false;
        EXPECT_EQ(log.Read(SIZE_MAX, 3000, &hungUp).size(), 30000u); // exactly, then the crash
        EXPECT_TRUE(hungUp);
    }
    ASSERT_TRUE(modem.WaitForCrashed(1000));
    ASSERT_TRUE(modem.WaitForAtMode(1, 5000));
    {
        AtEnd at;
        ASSERT_TRUE(at.OpenPty(modem.AtPortPath()));
        EXPECT_EQ(at.Ask("at%zreset\r", kOk.size()), kOk);
    }
    ASSERT_TRUE(modem.WaitForConnection(1, 5000));
    {
        SimHost log(modem.PortPath());
        EXPECT_EQ(log.Read(60000).size(), 60000u); // the byte count does not crash it again
    }
    EXPECT_EQ(modem.Counters().crashes, 1u);
    modem.Stop();

    options = CrashingModem(dir.Path(), 16);
    options.crash.afterMs = 300;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(modem.WaitForCrashed(5000));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    ASSERT_TRUE(modem.WaitForAtMode(1, 5000));
    {
        AtEnd at;
        ASSERT_TRUE(at.OpenTcp(modem.AtSocketPort(), 3000));
        EXPECT_EQ(at.Ask("at%mode=0\r", kOk.size()), kOk);
    }
    ASSERT_TRUE(modem.WaitForConnection(1, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(400)); // past the time once more
    EXPECT_EQ(modem.Counters().crashes, 1u);
    EXPECT_TRUE(modem.Counters().portUp);
}
