// zavra_log_serial -a when things go wrong, end to end: a file system that fills up, a directory
// that is not one or cannot be written, a second instance on the same port or directory, and a
// port that is not there yet. The real binary, a simulated modem on a pty.
#include <chrono>
#include <regex>
#include <thread>
#include <unistd.h>

#include "daemon_run.h"
#include "zavra_test_expect.h"

using namespace daemon_test;

namespace {

// The sum of the numbers caught by the first group of `pattern` over every match in `text`.
long long SumOf(const std::string& text, const std::string& pattern, int& matches) {
    const std::regex re(pattern);
    long long sum = 0;
    matches = 0;
    for (std::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it, ++matches)
        sum += std::stoll((*it)[1].str());
    return sum;
}

} // namespace

// 4 MiB of tmpfs, a quarter taken by a file the store may not touch, 2 MiB segments with -f:
// segment 000 stays, so each later segment fills what is left, loses the rest of its 2 MiB, and
// the next one makes room by deleting it.
TEST(DaemonFaults, AFullFileSystemKeepsTheNewestDataAndReportsEveryLostByte) {
    DaemonRun run;
    SmallFileSystem fs(run.store, "size=4m");
    if (!fs.mounted)
        GTEST_SKIP() << "cannot mount a small tmpfs here (errno " << errno << ")";
    ASSERT_TRUE(zavra_test::WriteFile(run.store + "/filler.bin", std::string(kMiB, 'f')));

    const long long flood = 6 * kMiB + kMiB / 2;
    run.StartModem(flood, 0);
    run.StartTool("64,2", {"-f"});
    run.DrainWatchingBudget(60000);
    run.Terminate();
    const std::string err = run.tool.Stderr();

    const long long delivered = static_cast<long long>(run.modem.Counters().delivered);
    ASSERT_EQ(delivered, flood);
    const std::vector<std::string> names = ZomFiles(run.store);
    ASSERT_GE(names.size(), 2u) << err;
    EXPECT_EQ(names.front().substr(25, 3), "000");
    EXPECT_EQ(zavra_test::FileSize(run.store + "/" + names.front()), 2 * kMiB) << "kept by -f";
    EXPECT_EQ(zavra_test::FileSize(run.store + "/filler.bin"), kMiB) << "not the store's to delete";
    // The newest data is on disk, up to the last byte sent.
    const std::string sent = run.Sent();
    const std::string newest = zavra_test::ReadFile(run.store + "/" + names.back());
    ASSERT_GE(newest.size(), static_cast<size_t>(kMiB / 2));
    EXPECT_TRUE(newest.substr(newest.size() - kMiB / 2) == sent.substr(sent.size() - kMiB / 2));

    // Every byte that is not on disk was either in a deleted file or reported lost, exactly.
    const int stops =
        zavra_test::CountOf(err, "Warning: Writing to the log directory '" + run.store +
                                     "' stopped (No space left on device): nothing is left to "
                                     "delete, log data is being lost.\n");
    int ends = 0, deletions = 0;
    const long long lost = SumOf(err, "; ([0-9]+) bytes of log data were lost\\.", ends);
    const long long deleted = SumOf(zavra_test::ReadFile(run.store + "/daemon.log"),
                                    "Deleting old file '[^']*' of ([0-9]+) bytes", deletions);
    const long long onDisk = ZomBytes(run.store);
    printf("flood %lld bytes: on disk %lld, deleted %lld in %d files, reported lost %lld in %d "
           "episodes\n",
           delivered, onDisk, deleted, deletions, lost, ends);
    EXPECT_GE(stops, 2) << err;
    EXPECT_EQ(ends, stops) << "each stop has its resume line\n" << err;
    EXPECT_EQ(zavra_test::CountOf(err, "resumed; "), stops) << err;
    EXPECT_GT(lost, 0);
    EXPECT_GE(deletions, 2);
    EXPECT_EQ(delivered - onDisk, deleted + lost) << err;
    EXPECT_LE(onDisk, 3 * kMiB);

    // The journal shares the full disk: lines may be missing, but none is torn.
    for (const std::string& line : JournalLines(run.store))
        EXPECT_TRUE(std::regex_match(line, std::regex("../../.... ..:..:..: [ -~]+"))) << line;
    EXPECT_EQ(JournalCount(run.store, "Shut down"), 1);
}

TEST(DaemonFaults, ADirectoryThatIsAFileOrCannotBeWrittenIsRefusedAtStart) {
    DaemonRun run;
    const std::string file = run.scratch.File("plain-file");
    ASSERT_TRUE(zavra_test::WriteFile(file, "keep me"));
    const std::string readOnly = run.scratch.File("read-only");
    mkdir(readOnly.c_str(), 0755);
    SmallFileSystem fs(readOnly, "size=1m", MS_RDONLY);
    struct Case {
        std::string dir;
        std::string message;
    };
    std::vector<Case> cases = {
        {file, "Error 0(14):The output directory '" + file +
                   "' given in the -a (daemon mode) option could not be created.\n"},
        {readOnly, "Error 0(14):The output directory '" + readOnly +
                       "' given in the -a (daemon mode) option cannot be written to (Read-only "
                       "file system).\n"},
    };
    if (!fs.mounted) {
        printf("cannot mount a read-only tmpfs here (errno %d): the unwritable case is skipped\n",
               errno);
        cases.pop_back();
    }
    for (const Case& c : cases) {
        zavra_test::Process tool;
        DaemonRun::Start(tool, {"-d/dev/null", "-a" + c.dir + ",16,2", "-t"});
        zavra_test::ExpectExit(tool, 0, 10000);
        EXPECT_TRUE(zavra_test::Contains(tool.Stderr(), c.message));
    }
    EXPECT_EQ(zavra_test::ReadFile(file), "keep me");
}

TEST(DaemonFaults, ASecondInstanceOnThePortOrTheDirectoryIsRefusedAtOnceAndTheFirstKeepsEveryByte) {
    DaemonRun run;
    run.StartModem(3 * kMiB, 600000);
    const std::string port = run.modem.PortPath();
    run.StartTool("");
    ASSERT_TRUE(run.WaitForJournal("ConnectThread: Port opened.", 10000));

    const std::string other = run.scratch.File("other");
    mkdir(other.c_str(), 0755);
    const std::string portInUse =
        "Error: The serial logging interface '" + port +
        "' cannot be opened: it is in use by another program.\nError 11(19):Failed to open the "
        "serial logging interface '" +
        port + "'.\n";
    const struct {
        const char* what;
        std::vector<std::string> args;
        std::string message;
    } seconds[] = {
        {"capture", {"-d" + port, "-t", "-m5000", run.scratch.File("second.zom")}, portInUse},
        {"daemon on the port", {"-d" + port, "-a" + other, "-t"}, portInUse},
        {"daemon on the directory",
         {"-d" + port, "-a" + run.store, "-t"},
         "Error 11(12):Another daemon is already logging to the directory '" + run.store +
             "' (process "},
    };
    for (const auto& second : seconds) {
        zavra_test::Process tool;
        const auto start = std::chrono::steady_clock::now();
        DaemonRun::Start(tool, second.args);
        zavra_test::ExpectExit(tool, 11, 10000);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << second.what;
        EXPECT_TRUE(zavra_test::Contains(tool.Stderr(), second.message)) << second.what;
        ASSERT_TRUE(run.tool.Running()) << second.what;
    }
    EXPECT_EQ(zavra_test::FileSize(run.scratch.File("second.zom")), 0) << "nothing captured";
    EXPECT_FALSE(zavra_test::FileExists(other + "/daemon.log"));

    run.DrainWatchingBudget(60000);
    run.Terminate();
    EXPECT_EQ(run.modem.Counters().discarded, 0u);
    EXPECT_TRUE(ZomConcat(run.store) == run.Sent()) << "the first daemon kept the whole stream";
    EXPECT_EQ(JournalCount(run.store, "Initialising started."), 1) << "its journal untouched";
    const std::string lock = run.StoreFile("daemon.lock");
    EXPECT_FALSE(zavra_test::FileExists(lock)) << "removed at the orderly exit";

    // Killed outright, a daemon leaves its lock file behind; the next one takes it over unaided.
    // (Each journal is put aside when its daemon has ended, so that the next one is told apart.)
    zavra_test::Process killed, restarted;
    const auto putJournalAside = [&](const char* name) {
        ASSERT_EQ(rename(run.StoreFile("daemon.log").c_str(), run.StoreFile(name).c_str()), 0);
    };
    putJournalAside("first.log");
    DaemonRun::Start(killed, {"-d" + port, "-a" + run.store, "-t"});
    ASSERT_TRUE(run.WaitForJournal("ConnectThread: Port opened.", 10000));
    killed.Kill();
    ASSERT_TRUE(zavra_test::FileExists(lock));
    putJournalAside("killed.log");
    DaemonRun::Start(restarted, {"-d" + port, "-a" + run.store, "-t"});
    EXPECT_TRUE(run.WaitForJournal("ConnectThread: Port opened.", 10000)) << restarted.Stderr();
    restarted.Signal(SIGTERM);
    zavra_test::ExpectExit(restarted, 15);
    EXPECT_FALSE(zavra_test::Contains(restarted.Stderr(), "Error"));
    EXPECT_FALSE(zavra_test::FileExists(lock));
}

TEST(DaemonFaults, APortThatCannotBeOpenedIsExplainedOnceAndItsOpeningIsSaid) {
    DaemonRun run;
    run.StartModem(0, 100000);
    const std::string later = run.scratch.File("modem-later");
    DaemonRun::Start(run.tool, {"-d" + later, "-a" + run.store, "-t"});
    const std::string reason = "Failed to open the serial logging interface '" + later +
                               "' (No such file or directory). Retrying every second.";
    ASSERT_TRUE(run.WaitForJournal(reason, 10000));
    // Several retries go by before the port appears.
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    ASSERT_EQ(symlink(run.modem.PortPath().c_str(), later.c_str()), 0);
    ASSERT_TRUE(run.WaitForJournal("ConnectThread: Port opened.", 10000));
    ASSERT_TRUE(run.modem.WaitUntil(zsim::ChannelOpen(), 5000));
    run.modem.Apply(zsim::Control::StreamOn(false));
    run.Terminate();

    EXPECT_EQ(JournalCount(run.store, reason), 1);
    EXPECT_EQ(JournalCount(run.store, "ConnectThread: Connect request."), 1);
    const std::string err = run.tool.Stderr();
    EXPECT_EQ(zavra_test::CountOf(err, "Warning: " + reason + "\n"), 1) << err;
    int opened = 0;
    const long long attempts = SumOf(
        err, "Warning: The port '" + later + "' opened after ([0-9]+) failed attempts\\.", opened);
    EXPECT_EQ(opened, 1) << err;
    EXPECT_GE(attempts, 3);
    EXPECT_EQ(JournalCount(run.store, "opened after " + std::to_string(attempts) + " failed"), 1);
}
