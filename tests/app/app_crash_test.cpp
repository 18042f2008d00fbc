// A modem crash end to end: the real tool in a umockdev testbed where the simulated modem's two
// ptys are the tty interfaces of one USB modem (the AT port first), so that the tool finds the
// AT port through the real libudev; the simulator's crash mode at the other end. Zips are read
// back with Python's zipfile.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "app_test_tool.h"
#include "crash_zip_reader.h"
#include "zavra_test_expect.h"
#include "zavra_test_net.h"
#include "zavra_test_udev.h"

namespace apptest {
namespace {

using Entries = std::map<std::string, std::string>;
using Clock = std::chrono::steady_clock;
using zavra_test::Contains;

// The entries of a zip and their contents, read by Python's zipfile after its CRC check.
Entries ReadZip(const std::string& zip) {
    Entries entries;
    EXPECT_TRUE(crash_test::ReadZip(zip, entries)) << zip << " is not a valid zip";
    return entries;
}

// The zip holds exactly the expected entries, each byte for byte.
void ExpectZip(const std::string& zip, const Entries& expected) {
    const Entries got = ReadZip(zip);
    for (const auto& entry : expected)
        EXPECT_TRUE(got.count(entry.first) == 1 && got.at(entry.first) == entry.second)
            << entry.first;
    EXPECT_EQ(got.size(), expected.size()) << "entries beside the expected ones";
}

// The names in a directory, without "." and "..", or only those that begin with one of `prefixes`.
std::set<std::string> Names(const std::string& dir, const std::vector<std::string>& prefixes = {}) {
    std::set<std::string> names;
    if (DIR* handle = opendir(dir.c_str())) {
        while (dirent* entry = readdir(handle)) {
            const std::string name = entry->d_name;
            bool wanted = prefixes.empty() ? name != "." && name != ".." : false;
            for (const std::string& prefix : prefixes)
                wanted = wanted || name.rfind(prefix, 0) == 0;
            if (wanted)
                names.insert(name);
        }
        closedir(handle);
    }
    return names;
}

// Names the retrieval or the bundle uses while it works; none may outlive a run.
std::set<std::string> Leftovers(const std::string& dir) {
    return Names(dir, {".zavra-crash", "exr", "crh", "clf"});
}

std::string Text(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

std::string PortFail(const std::string& text) {
    char line[256];
    snprintf(line, sizeof line, "PORT-FAIL: %-60s\n", text.c_str());
    return line;
}

const std::vector<std::string> kDumpedAndReset = {"at%debug=?\r",   "at%mode?\r", "at%debug=2,1\r",
                                                  "at%debug=0,0\r", "at%debug\r", "at%mode=0\r",
                                                  "at%zreset\r"};

// A modem that crashes once its stream passed 256 KiB, described to udev as one USB modem.
struct CrashRun {
    Bench bench;
    zavra_test::Process tool;

    CrashRun() {
        bench.options.gen.enabled = true;
        bench.options.gen.bytesPerSecond = 2u << 20;
        bench.options.crash.atPort = true;
        bench.options.crash.afterBytes = 256u << 10;
        bench.options.crash.coreDumpSize = 300000; // several reads of the tool's 50000 bytes
        bench.options.crash.restartMs = 300;
    }
    // Runs the tool with -d<port> (`port` instead, a link or a definition file, when given) and
    // `args`, in the directory `cwd` when one is given. The modem's nodes in the udev description
    // are links, "at0" and "log0", so that a test can move them (Renumber).
    void Start(std::vector<std::string> args, const std::string& cwd = "", std::string port = "") {
        bench.StartModem();
        ASSERT_EQ(symlink(bench.modem.AtPortPath().c_str(), Path("at0").c_str()), 0);
        ASSERT_EQ(symlink(bench.Port().c_str(), Path("log0").c_str()), 0);
        const std::string description = bench.dir.File("modem.umockdev");
        ASSERT_TRUE(zavra_test::WriteUsbModem(description, {Path("at0"), Path("log0")}));
        args.insert(args.begin(), port.empty() ? "-d" + bench.Port() : port);
        // The shell tells where the testbed is, and changes directory.
        args.insert(args.begin(),
                    {"-c", "echo \"$UMOCKDEV_DIR\" >\"$0\" && cd \"$1\" && shift && exec \"$@\"",
                     Path("testbed"), cwd.empty() ? "." : cwd, ZAVRA_LOG_SERIAL_PATH});
        ASSERT_TRUE(zavra_test::StartInTestbed(tool, description, "/bin/sh", args)) << tool.Error();
    }
    // The modem comes back under other names: udev now names its interface `index` (0 the AT
    // port "at", 1 the log port "log") "<base>1", and "<base>0" leads to `oldTarget` (another
    // interface of the modem) or is gone.
    void Renumber(unsigned index, const std::string& base, const std::string& oldTarget = "") {
        std::string testbed = zavra_test::ReadFile(Path("testbed"));
        ASSERT_FALSE(testbed.empty());
        testbed.pop_back();
        const std::string uevent =
            testbed + "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1." +
            std::to_string(2 * index) + "/tty/ttyACM" + std::to_string(index) + "/uevent";
        std::string text = zavra_test::ReadFile(uevent);
        const std::string from = Path(base + "0"), to = Path(base + "1");
        ASSERT_NE(text.find(from), std::string::npos) << text;
        text.replace(text.find(from), from.size(), to);
        const std::string target = index == 0 ? bench.modem.AtPortPath() : bench.Port();
        ASSERT_EQ(symlink(target.c_str(), to.c_str()), 0);
        ASSERT_TRUE(zavra_test::WriteFile(uevent, text));
        ASSERT_EQ(unlink(from.c_str()), 0);
        if (!oldTarget.empty()) {
            ASSERT_EQ(symlink(oldTarget.c_str(), from.c_str()), 0);
        }
    }
    std::string Path(const std::string& name) const { return bench.dir.File(name); }
    // The modem is back for the `times`th time and has sent `bytes` more since.
    bool BackAndSending(unsigned times, uint64_t bytes) {
        if (!bench.modem.WaitUntil(zsim::Reconnected(times), 30000))
            return false;
        const uint64_t sent = bench.modem.Counters().sent;
        return bench.modem.WaitUntil(zsim::SentAtLeast(sent + bytes), 20000);
    }
    // Waits until the tool has printed `text` `times` times.
    bool WaitForOutput(const std::string& text, int timeoutMs, int times = 1) {
        auto printed = [&] { return zavra_test::CountOf(tool.Stderr(), text) >= times; };
        return zavra_test::WaitUntil([&] { return printed() || !tool.Running(); }, timeoutMs) &&
               printed();
    }
    // What the modem's section of this name holds, decoded.
    std::string Section(const std::string& description) const {
        for (const zsim::CrashSection& section : zsim::BuiltInCrashSections())
            if (section.description == description)
                return section.content;
        ADD_FAILURE() << "no section " << description;
        return "";
    }
    // The bundle zip of the built-in crash information: the modem's own zip with the joined
    // per-core logs, the other sections, the crash log (named after the log) and the dump.
    Entries ExpectedZip(const std::string& crashLogName, bool dump) {
        const std::string modemZip = bench.dir.File("modem-zip.zip");
        zavra_test::WriteFile(modemZip, Section("crash_dump_1.zip"));
        Entries expected = ReadZip(modemZip);
        for (const char* kor : {"0", "1"})
            expected[std::string("logging_kor_thread") + kor + ".zol"] =
                Section(std::string("logging_kor") + kor + "_chunk1.zol") +
                Section(std::string("logging_kor") + kor + "_chunk2.zol");
        expected["logging_kor2_chunk1.zol"] = Section("logging_kor2_chunk1.zol");
        expected["bb_events_dup.txt"] = Section("bb_events.txt");
        expected["crash_summary.txt"] = Section("crash_summary.txt");
        expected[crashLogName] = Text(bench.modem.CrashLogText());
        if (dump)
            expected["extram.bin"] = Text(bench.modem.CoreDumpImage());
        return expected;
    }
};

// The log port is named by a /dev/serial/by-id style link, and the modem comes back from its
// crash with the AT port under another name: the AT port is found from the link all the same,
// and found again after the crash by its USB identity.
TEST(Crash, CaptureEndsWithFiftyAndOneBundleBesideTheLog) {
    CrashRun run;
    run.bench.options.crash.afterBytes = 0;
    const std::string byId = run.Path("usb-Zavra_ZM200_Modem_SN0001-if02");
    ASSERT_EQ(symlink(run.Path(run.bench.options.portName).c_str(), byId.c_str()), 0);
    run.Start({"-v5", run.bench.Out()}, "", "-d" + byId);
    const std::string found =
        "Found modem port " + run.Path("at0") + ", Zavra ZM200 Modem, 1e2d_0061_00_SN0001";
    ASSERT_TRUE(run.WaitForOutput(found, 20000)) << run.tool.Stderr();
    ASSERT_TRUE(run.bench.modem.WaitUntil(zsim::SentAtLeast(256u << 10), 20000));
    run.Renumber(0, "at");
    run.bench.modem.Apply(zsim::Control::Crash());
    ExpectExit(run.tool, 50, 60000);
    const std::string err = run.tool.Stderr();
    EXPECT_FALSE(Contains(err, "cannot find the AT port")) << err;
    EXPECT_FALSE(Contains(err, "\033[K")) << "no progress line where standard error is no terminal";
    for (const char* status : {"Waiting for device to restart (takes about 10 seconds).",
                               "Retrieved crash dump information."})
        EXPECT_TRUE(Contains(err, PortFail(status)));
    EXPECT_TRUE(
        Contains(err, "TARGET-CRASH: Crash ZIP saved to '" + run.Path("out-crash.zip") + "'\n"));
    EXPECT_EQ(run.bench.modem.AtCommands(), kDumpedAndReset);

    // Every byte the modem delivered before it crashed is in the capture.
    const zsim::ModemCounters counters = run.bench.modem.Counters();
    EXPECT_EQ(counters.discarded, 0u);
    EXPECT_GE(counters.streamBytes, run.bench.options.crash.afterBytes);
    ExpectCaptured(run.bench.Out(), run.bench, counters.delivered);

    // The bundle: the crash information as sent, and one zip holding everything else.
    EXPECT_EQ(Names(run.bench.dir.Path(), {"out"}),
              (std::set<std::string>{"out-crash.txt", "out-crash.zip", "out.zom"}));
    EXPECT_TRUE(zavra_test::ReadFile(run.Path("out-crash.txt")) ==
                Text(run.bench.modem.CrashInfoText()));
    ExpectZip(run.Path("out-crash.zip"), run.ExpectedZip("out-crashlog.txt", true));
    EXPECT_EQ(Leftovers(run.bench.dir.Path()), std::set<std::string>());
}

// Capture to a socket client only: no log to name the bundle after, so it goes to the current
// directory under the time of the failure.
TEST(Crash, SocketOnlyCaptureNamesTheBundleByTheTime) {
    CrashRun run;
    run.bench.options.crash.afterBytes = 64u << 10; // within the socket's buffers
    const int port = zavra_test::FreeTcpPort();
    const std::string cwd = run.Path("cwd");
    ASSERT_EQ(mkdir(cwd.c_str(), 0755), 0);
    run.Start({"-p" + std::to_string(port)}, cwd);
    const int client = zavra_test::ConnectTcp(port, 20000);
    ASSERT_GE(client, 0) << run.tool.Stderr();
    ExpectExit(run.tool, 50, 60000);
    close(client);
    const std::set<std::string> names = Names(cwd);
    ASSERT_EQ(names.size(), 2u) << run.tool.Stderr();
    const std::string zip = *names.rbegin(), base = zip.substr(0, zip.rfind("-crash.zip"));
    EXPECT_EQ(*names.begin(), base + "-crash.txt");
    EXPECT_EQ(base.size(), strlen("zavra_log_yy-mm-dd_hh-mm-ss")) << base;
    EXPECT_EQ(base.rfind("zavra_log_", 0), 0u) << base;
    ExpectZip(cwd + "/" + zip, run.ExpectedZip(base + "-crashlog.txt", true));
}

// A modem that keeps its full dump to itself, answers as if it had not crashed, stops its dump
// half-way or sends more than it announced: the crash information and the crash log still make a
// bundle, with no dump or a whole one (all that came, when it came in excess), never part of one.
TEST(Crash, ModemsWithoutAWholeDumpStillGiveABundle) {
    const struct {
        zsim::CrashFault fault;
        const char* dumpTail; // after the image, when a dump is kept
    } cases[] = {{zsim::CrashFault::NoFullDump, nullptr},
                 {zsim::CrashFault::ModemMode, nullptr},
                 {zsim::CrashFault::SilentMidDump, nullptr},
                 {zsim::CrashFault::ExtraAfterHeader, "\r\nOK\r\n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(zsim::CrashFaultName(c.fault));
        CrashRun run;
        run.bench.options.crash.fault = c.fault;
        run.Start({run.bench.Out()});
        ExpectExit(run.tool, 50, 60000);
        EXPECT_FALSE(zavra_test::FileExists(run.Path("out-extram.bin")));
        Entries expected = run.ExpectedZip("out-crashlog.txt", false);
        if (c.dumpTail != nullptr)
            expected["extram.bin"] = Text(run.bench.modem.CoreDumpImage()) + c.dumpTail;
        ExpectZip(run.Path("out-crash.zip"), expected);
        EXPECT_EQ(Leftovers(run.bench.dir.Path()), std::set<std::string>());
        if (c.fault == zsim::CrashFault::SilentMidDump) {
            EXPECT_TRUE(Contains(run.tool.Stderr(), PortFail("The core dump stopped after 150000 "
                                                             "of 300000 bytes; it is not saved.")));
        }
    }
}

// Crash information whose section names and zip entries reach out of the folder they go to, or
// would steer the terminal: nothing is written outside the log's directory, the zip's names are
// made safe, the names are shown escaped.
TEST(Crash, HostileCrashInformationStaysInsideTheLogDirectory) {
    CrashRun run;
    const std::string outside = run.bench.dir.Path() + "-outside.txt";
    const std::string escape = "../../" + outside.substr(outside.rfind('/') + 1);
    const std::string zip = run.Path("hostile.zip");
    ASSERT_TRUE(crash_test::WriteZip(
        zip, {{"../../evil.txt", "a"}, {"/etc/evil", "b"}, {"term\x1b[2J.txt", "c"}}));
    std::string info = "--Zavra debug info\r\nContent-Description: crash_dump_1.zip\r\n"
                       "Content-Transfer-Encoding: x-base64\r\n\r\n" +
                       crash_test::Base64Lines(zavra_test::ReadFile(zip));
    for (const std::string& name : {escape, outside, std::string("term\x1b[2J.txt"),
                                    std::string(300, 'n'), std::string("notes.txt")})
        info += "--Zavra debug info\r\nContent-Description: " + name +
                "\r\nContent-Transfer-Encoding: text/plain\r\n\r\nsection " + name + "\r\n";
    info += "--Zavra debug info--\r\n";
    run.bench.options.crash.crashInfoFile = run.Path("info.txt");
    ASSERT_TRUE(zavra_test::WriteFile(run.bench.options.crash.crashInfoFile, info));
    run.Start({run.bench.Out()});
    ExpectExit(run.tool, 50, 60000);
    const std::string err = run.tool.Stderr();
    EXPECT_TRUE(Contains(err, "Crash section 'term\\x1b[2J.txt' in '"));
    EXPECT_EQ(err.find('\x1b'), std::string::npos) << "a control character reached the terminal";
    EXPECT_FALSE(zavra_test::FileExists(outside));
    ExpectZip(run.Path("out-crash.zip"),
              {{"__/__/evil.txt", "a"},
               {"etc/evil", "b"},
               {"term_[2J.txt", "c"},
               {"notes.txt", "section notes.txt"},
               {"out-crashlog.txt", Text(run.bench.modem.CrashLogText())},
               {"extram.bin", Text(run.bench.modem.CoreDumpImage())}});
    EXPECT_EQ(Leftovers(run.bench.dir.Path()), std::set<std::string>());
}

// Crash information without the modem's zip: nothing to add to, so every file stays, under the
// names of the bundle, and the decoded sections in a folder of their own.
TEST(Crash, CrashInformationWithoutAZipKeepsEveryFile) {
    // Five lines, each the base64 of "0123456789abcdef" three times.
    const std::string events =
        "MDEyMzQ1Njc4OWFiY2RlZjAxMjM0NTY3ODlhYmNkZWYwMTIzNDU2Nzg5YWJjZGVm\r\n";
    std::string info = "--Zavra debug info\r\nContent-Description: bb_events.txt\r\n"
                       "Content-Transfer-Encoding: x-base64\r\n\r\n",
                expectedEvents;
    for (int i = 0; i < 5; ++i)
        info += events, expectedEvents += "0123456789abcdef0123456789abcdef0123456789abcdef";
    info += "--Zavra debug info\r\nContent-Description: crash_summary.txt\r\n"
            "Content-Transfer-Encoding: text/plain\r\n\r\nline one\r\nline two\r\n"
            "--Zavra debug info--\r\n";
    CrashRun run;
    run.bench.options.crash.crashInfoFile = run.Path("info.txt");
    ASSERT_TRUE(zavra_test::WriteFile(run.bench.options.crash.crashInfoFile, info));
    // An earlier crash of the same log left a bundle of another shape: it is replaced, not mixed.
    for (const char* stale : {"out-crash.zip", "out-extram.dmp", "out-crashlog.txt"})
        ASSERT_TRUE(zavra_test::WriteFile(run.Path(stale), "earlier crash"));
    ASSERT_EQ(mkdir(run.Path("out-crash-files").c_str(), 0755), 0);
    ASSERT_TRUE(zavra_test::WriteFile(run.Path("out-crash-files/stale.txt"), "earlier crash"));
    // Another program holds the earlier crash log: it is neither replaced nor removed, and the new
    // one stays with the other crash files.
    const int held = open(run.Path("out-crashlog.txt").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    run.Start({run.bench.Out()});
    ExpectExit(run.tool, 50, 60000);
    const std::string err = run.tool.Stderr();
    EXPECT_TRUE(Contains(
        err, "TARGET-CRASH: Failed to find the crash dump zip file in the crash information.\n"));
    EXPECT_TRUE(Contains(err, "TARGET-CRASH: Crash files saved in '" + run.Path("out-crash-files") +
                                  "'\n"));
    EXPECT_FALSE(zavra_test::FileExists(run.Path("out-crash.zip")));
    EXPECT_FALSE(zavra_test::FileExists(run.Path("out-extram.dmp")));
    close(held);
    EXPECT_TRUE(Contains(err, "TARGET-CRASH: '" + run.Path("out-crashlog.txt") +
                                  "' is in use by another program; kept as '"));
    EXPECT_EQ(zavra_test::ReadFile(run.Path("out-crashlog.txt")), "earlier crash");
    std::set<std::string> folder = Names(run.Path("out-crash-files"));
    const std::set<std::string> logs = Names(run.Path("out-crash-files"), {"clf"});
    ASSERT_EQ(logs.size(), 1u);
    const std::string crashLog = *logs.begin();
    EXPECT_EQ(zavra_test::ReadFile(run.Path("out-crash-files/" + crashLog)),
              Text(run.bench.modem.CrashLogText()));
    folder.erase(crashLog);
    EXPECT_EQ(folder, (std::set<std::string>{"bb_events.txt", "crash_summary.txt"}));
    EXPECT_EQ(zavra_test::ReadFile(run.Path("out-crash.txt")), info);
    // There, and readable like the log beside them, though they began as private temporary files.
    struct stat log, kept;
    ASSERT_EQ(stat(run.bench.Out().c_str(), &log), 0);
    for (const char* name : {"out-crash.txt", "out-extram.bin"}) {
        ASSERT_EQ(stat(run.Path(name).c_str(), &kept), 0);
        EXPECT_EQ(kept.st_mode & 0777, log.st_mode & 0777) << name;
    }
    EXPECT_EQ(zavra_test::ReadFile(run.Path("out-crash-files/bb_events.txt")), expectedEvents);
    EXPECT_EQ(zavra_test::ReadFile(run.Path("out-crash-files/crash_summary.txt")),
              "line one\nline two");
    EXPECT_EQ(Leftovers(run.bench.dir.Path()), std::set<std::string>());
}

// The AT port never comes back: the wait of 35 attempts of 400 ms ends and says why. A signal
// during that wait, or in the middle of the retrieval, ends the run at once with its own status.
// The retrieval's files are all in the check's own folder beside the log, which goes: nothing is
// left there, nor in the current directory.
TEST(Crash, TheWaitEndsOnAPortThatNeverComesBackAndASignalEndsTheCheckLeavingNoFile) {
    const struct {
        const char* what;
        zsim::CrashFault fault;
        const char* signalAfter; // the status line the case waits for before it signals or waits
        int status, timeoutMs;
    } cases[] = {
        {"SIGTERM in the wait", zsim::CrashFault::NeverComesBack,
         "Waiting for device to restart (takes about 10 seconds).", 15, 1000},
        {"the whole wait", zsim::CrashFault::NeverComesBack,
         "Waiting for device to restart (takes about 10 seconds).", 50, 60000},
        // The crash information and the crash log are still to come, each ending on 300 ms of
        // quiet.
        {"SIGTERM in the retrieval", zsim::CrashFault::None, "Reading core dump of 300000 bytes.",
         15, 5000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CrashRun run;
        run.bench.options.crash.fault = c.fault;
        const std::string cwd = run.Path("cwd");
        ASSERT_EQ(mkdir(cwd.c_str(), 0755), 0);
        run.Start({run.bench.Out()}, cwd);
        ASSERT_TRUE(run.WaitForOutput(PortFail(c.signalAfter), 30000)) << run.tool.Stderr();
        const Clock::time_point start = Clock::now();
        if (c.status == 15)
            run.tool.Signal(SIGTERM);
        ExpectExit(run.tool, c.status, c.timeoutMs);
        const std::string err = run.tool.Stderr();
        if (c.status == 50) {
            EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(12000));
            EXPECT_TRUE(Contains(
                err, PortFail("No crash information detected (port could not be opened).")));
            EXPECT_TRUE(Contains(err, "PORT-FAIL: AT port '" + run.Path("at0") +
                                          "': Failed to open AT port ("));
        }
        if (c.fault == zsim::CrashFault::NeverComesBack) {
            EXPECT_EQ(run.bench.modem.AtCommands(), std::vector<std::string>());
        }
        EXPECT_EQ(Names(cwd), std::set<std::string>());
        EXPECT_EQ(Leftovers(run.bench.dir.Path()), std::set<std::string>());
        EXPECT_FALSE(zavra_test::FileExists(run.Path("out-crash.zip")));
    }
}

// With -t nothing is looked for; without it, a port that is no detected modem's is told once.
TEST(Crash, WithoutTheCheckNoAtCommandIsSent) {
    CrashRun run;
    run.Start({"-t", "-v5", run.bench.Out()});
    ExpectExit(run.tool, 50, 60000);
    EXPECT_EQ(run.tool.Stderr().find("Found modem port"), std::string::npos);
    EXPECT_FALSE(Contains(run.tool.Stderr(), "cannot find the AT port"));
    Bench other; // a modem that udev does not know
    other.StartModem();
    zavra_test::Process plain;
    StartTool(plain, {"-d" + other.Port(), "-m300", other.Out()});
    ExpectExit(plain, 0);
    EXPECT_EQ(zavra_test::CountOf(plain.Stderr(),
                                  "Warning: The crash check cannot find the AT port: '" +
                                      other.Port() + "' is not a port of a detected USB modem"),
              1);
    EXPECT_EQ(run.tool.Stderr().find("PORT-FAIL"), std::string::npos);
    // A check runs before the exit: whatever it would have sent has arrived by now.
    EXPECT_EQ(run.bench.modem.AtCommands(), std::vector<std::string>());
    EXPECT_FALSE(zavra_test::FileExists(run.Path("out-crash.txt")));
}

// The ".zom" logs of a daemon directory, by name without the extension.
std::vector<std::string> Logs(const std::string& dir) {
    std::vector<std::string> logs;
    for (const std::string& name : Names(dir))
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".zom") == 0)
            logs.push_back(name.substr(0, name.size() - 4));
    return logs;
}

// The modem comes back with its log port under another name, and the old name leads to its AT
// port: a daemon whose port comes from an interface definition file finds the log port again,
// says so once on standard error and in its journal, and logs on.
TEST(CrashDaemon, ALogPortThatComesBackUnderAnotherNameIsFoundAgain) {
    CrashRun run;
    run.bench.options.crash.afterBytes = 0;
    run.bench.options.gen.bytesPerSecond = 200u << 10;
    const std::string store = run.Path("logs"), ports = run.Path("ports.txt");
    ASSERT_TRUE(zavra_test::WriteFile(ports, "VID=1e2d,PID=0061,MI=02\n"));
    run.Start({"-a" + store, "-t"}, "", ports);
    ASSERT_TRUE(run.bench.modem.WaitUntil(zsim::SentAtLeast(64u << 10), 20000))
        << run.tool.Stderr();
    run.Renumber(1, "log", run.bench.modem.AtPortPath());
    run.bench.modem.Apply(zsim::Control::HangUp(300));
    EXPECT_TRUE(run.BackAndSending(1, 64u << 10)) << run.tool.Stderr();
    run.tool.Signal(SIGTERM);
    ExpectExit(run.tool, 15);
    const std::string now = "The serial logging interface from '" + ports + "' is now '" +
                            run.Path("log1") + "' (it was '" + run.Path("log0") + "').";
    EXPECT_EQ(zavra_test::CountOf(run.tool.Stderr(), "Warning: " + now), 1) << run.tool.Stderr();
    EXPECT_EQ(zavra_test::CountOf(zavra_test::ReadFile(store + "/daemon.log"), now), 1);
    EXPECT_EQ(Logs(store).size(), 2u);
}

// With -x the daemon ends on the port failure, after the check.
TEST(CrashDaemon, ExitOnPortFailureChecksFirst) {
    CrashRun run;
    const std::string store = run.Path("logs");
    run.Start({"-a" + store, "-x"});
    ExpectExit(run.tool, 50, 60000);
    const std::vector<std::string> logs = Logs(store);
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_TRUE(zavra_test::FileExists(store + "/" + logs[0] + "-crash.zip"));
    EXPECT_EQ(run.bench.modem.AtCommands(), kDumpedAndReset);
}

// What a daemon's budget covers: the bytes of its logs and crash bundles (folders by their files).
long long StoreBytes(const std::string& dir) {
    long long bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir))
        if (entry.is_regular_file() && entry.path().filename().string().rfind("daemon.", 0) != 0)
            bytes += static_cast<long long>(entry.file_size());
    return bytes;
}

// A small budget and a modem that crashes again and again, its dumps of 3 MiB: the bundles count
// in the budget, the oldest files go whatever their kind, and the newest bundle stays. A dump
// announced larger than all the room there is is not saved, and logging goes on.
TEST(CrashDaemon, RepeatedCrashesStayWithinTheBudgetAndTheNewestBundleIsKept) {
    CrashRun run;
    run.bench.options.gen.bytesPerSecond = 2u << 20;
    run.bench.options.crash.coreDumpSize = 3u << 20;
    const std::string store = run.Path("logs"), journal = store + "/daemon.log";
    const long long budget = 8 << 20;
    // A check cut short by a kill left its folder: the daemon takes it away.
    ASSERT_EQ(mkdir(store.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((store + "/.zavra-crash-aB3dE6").c_str(), 0700), 0);
    ASSERT_TRUE(zavra_test::WriteFile(store + "/.zavra-crash-aB3dE6/exrQ1w2E3", "half a dump"));
    run.Start({"-a" + store + ",8,1"});
    const int crashes = 4;
    for (int crash = 1; crash <= crashes; ++crash) {
        SCOPED_TRACE(crash);
        if (crash > 1) {
            ASSERT_TRUE(run.BackAndSending(crash - 1, 2u << 20));
            if (crash == crashes)
                run.bench.modem.Apply(zsim::Control::Fault(zsim::CrashFault::OversizeAnnounced));
            run.bench.modem.Apply(zsim::Control::Crash());
        }
        // Counted once it is made, and the store back within its budget.
        ASSERT_TRUE(zavra_test::WaitUntil(
            [&] {
                return zavra_test::CountOf(zavra_test::ReadFile(journal), "-crash.zip' of ") >=
                       crash;
            },
            60000))
            << run.tool.Stderr();
        EXPECT_LE(StoreBytes(store), budget);
    }
    ASSERT_TRUE(run.BackAndSending(crashes, 1u << 20));
    run.tool.Signal(SIGTERM);
    ExpectExit(run.tool, 15);

    const std::string refused =
        "Core dump of 4000000000 bytes does not fit in the room for crash data (";
    EXPECT_TRUE(Contains(run.tool.Stderr(), "PORT-FAIL: " + refused));
    const std::string text = zavra_test::ReadFile(journal);
    EXPECT_TRUE(Contains(text, "Crash check: " + refused));
    EXPECT_TRUE(Contains(text, "Removed the folder '" + store +
                                   "/.zavra-crash-aB3dE6' of an unfinished crash check."));
    bool bundleDeleted = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        bundleDeleted = bundleDeleted || (line.find("Deleting old file '") != std::string::npos &&
                                          line.find("-crash.zip' of ") != std::string::npos);
    EXPECT_TRUE(bundleDeleted) << "no bundle was deleted for the budget";
    EXPECT_LE(StoreBytes(store), budget);
    // The newest bundle is the last crash's, whole and without a dump; a log came after it.
    std::string newest; // the names sort by time
    for (const std::string& name : Names(store))
        if (std::regex_match(name, std::regex(".*-crash\\.zip")))
            newest = name.substr(0, name.size() - 10);
    EXPECT_LT(newest + "_999", Logs(store).back()) << "logging went on after the last crash";
    ExpectZip(store + "/" + newest + "-crash.zip",
              run.ExpectedZip(newest + "-crashlog.txt", false));
    EXPECT_EQ(Leftovers(store), std::set<std::string>());
}

} // namespace
} // namespace apptest
