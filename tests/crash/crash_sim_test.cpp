// The crash retrieval against the simulated modem's crash dialogue, over its AT pty (GetCrash) and
// its loopback TCP AT port (CheckForCrashSocket): the files, the reports, the errors and the AT
// commands the modem received.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "zavra_test_at.h"
#include "zavra_test_files.h"
#include "zsim-modem.h"
#include "zv-at-port-util.h"
#include "zv-file-util.h"
#include "zv-time.h"

using zsim::CrashFault;

namespace {

using Strings = std::vector<std::string>;

const char kChecking[] = "Checking if target crash information is available.";
const char kRetrievedInfo[] = "Retrieved crash dump information.";
const char kHeaderStart[] = "\r\nstart of external ram content, start address=0x80000000, ";

// The dialogue of a target that is dumped and reset.
const Strings kFullDialogue = {"at%debug=?\r", "at%mode?\r",  "at%debug=2,1\r", "at%debug=0,0\r",
                               "at%debug\r",   "at%mode=0\r", "at%zreset\r"};

// A crash check that records what it reports.
class RecordingCrash : public ZvAtCrash {
public:
    using ZvAtCrash::ZvAtCrash;
    void OnStatus(const char* text) override { statuses.push_back(text); }
    std::vector<std::string> statuses;
};

std::string Text(const zsim::Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

// A crashed simulated modem in its loader, and a crash check whose temporary files go to a scratch
// directory.
class SimCrash : public ::testing::Test {
protected:
    void SetUp() override { ZvFileUtil::SetWritableDir(m_files.Path().c_str()); }
    // A new modem for each start, so a test can run several dialogues one after the other.
    void Start(CrashFault fault) {
        modem_.reset();
        modem_ = std::make_unique<zsim::Modem>();
        options.dir = m_dir.Path();
        options.crash.atPort = true;
        options.crash.atSocket = true;
        options.crash.restartMs = 100;
        options.crash.coreDumpSize = 300000; // not a whole number of reads
        options.crash.fault = fault;
        ASSERT_TRUE(modem().Start(options)) << modem().Error();
        commandsBefore = modem().AtCommands().size();
    }
    zsim::Modem& modem() const { return *modem_; }
    std::string Scratch() const { return m_dir.Path(); }
    void CrashAndWaitForLoader() {
        modem().Apply(zsim::Control::Crash());
        ASSERT_TRUE(modem().WaitUntil(zsim::Crashed(), 10000));
        ASSERT_TRUE(modem().WaitUntil(zsim::AtMode(1), 10000));
    }
    // The AT commands received since Start.
    Strings Commands() const {
        const Strings all = modem().AtCommands();
        return Strings(all.begin() + static_cast<long>(commandsBefore), all.end());
    }
    // The prefixes of the files the response names, checked against what is in the scratch
    // directory: a response never names an empty file and no other file is left behind.
    std::string Kept(const ZvAtCrash::Response& response) const {
        std::string kept;
        ZvAStringList left;
        ZvFileUtil::GetDirFiles(m_files.Path().c_str(), left, "*", false);
        unsigned named = 0;
        const std::pair<const ZvAString*, const char*> files[] = {{&response.coreDumpFile, "exr"},
                                                                  {&response.crashInfoFile, "crh"},
                                                                  {&response.crashLogFile, "clf"}};
        for (const auto& [path, prefix] : files) {
            if (path->empty())
                continue;
            ++named;
            EXPECT_EQ(0u, path->find(m_files.Path() + "/" + prefix)) << *path;
            EXPECT_GT(zavra_test::FileSize(*path), 0);
            kept += (kept.empty() ? "" : " ") + std::string(prefix);
        }
        EXPECT_EQ(named, left.Count());
        return kept;
    }

    // Deletes the files a response names, before the next run in the same test.
    static void Forget(const ZvAtCrash::Response& response) {
        for (const ZvAString* path :
             {&response.coreDumpFile, &response.crashInfoFile, &response.crashLogFile})
            ZvFileUtil::DelFile(path->c_str());
    }

    zsim::ModemOptions options;
    size_t commandsBefore = 0;

private:
    zavra_test::TempDir m_dir, m_files;
    std::unique_ptr<zsim::Modem> modem_;
};

} // namespace

// Over the modem's loopback TCP AT port, which goes away at the crash and comes back in the loader
// (over its pty the same retrieval runs end to end in the crash tests).
TEST_F(SimCrash, TheThreeFilesHoldWhatTheModemServedOverTcp) {
    RecordingCrash crash(true); // with the history command
    ZvAtCrash::Response response;
    options.crash.restartMs = 1200; // a few refused attempts before the loader
    Start(CrashFault::None);
    modem().Apply(zsim::Control::Crash());
    ASSERT_TRUE(modem().WaitUntil(zsim::Crashed(), 10000));
    const unsigned start = ZvTime::GetMsTickTime();
    EXPECT_TRUE(crash.CheckForCrashSocket(modem().AtSocketPort(), "127.0.0.1", response));
    EXPECT_GE(ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()), 1000u);
    EXPECT_EQ("", crash.errorText);
    EXPECT_EQ((Strings{"Possible target crash.",
                       "Waiting for device to restart (takes about 30 seconds).", kChecking,
                       "Reading core dump of 300000 bytes.", kRetrievedInfo}),
              crash.statuses);
    EXPECT_FALSE(response.coreDumpRaw);
    EXPECT_EQ("exr crh clf", Kept(response));
    EXPECT_TRUE(Text(modem().CoreDumpImage()) == zavra_test::ReadFile(response.coreDumpFile))
        << "the core dump is not the image byte for byte";
    EXPECT_EQ(Text(modem().CrashInfoText()), zavra_test::ReadFile(response.crashInfoFile));
    EXPECT_EQ(Text(modem().CrashLogText()), zavra_test::ReadFile(response.crashLogFile));
    EXPECT_EQ((Strings{"at%debug=?\r", "at%mode?\r", "at%debug=2,1\r", "at%debug=0,0\r",
                       "at%debug\r", "at%debug=99\r", "at%mode=0\r", "at%zreset\r"}),
              Commands());
    EXPECT_TRUE(modem().WaitUntil(zsim::AtMode(0), 10000)) << "the modem was reset";
}

TEST_F(SimCrash, EachFaultOfTheDialogueGivesItsReportsFilesAndCommands) {
    const Strings noDump = {"at%debug=?\r", "at%mode?\r", "at%debug=0,0\r", "at%debug\r"};
    Strings noDumpReset = noDump;
    noDumpReset.insert(noDumpReset.end(), {"at%mode=0\r", "at%zreset\r"});
    const Strings dumpError = {"at%debug=?\r", "at%mode?\r", "at%debug=2,1\r", "at%debug=1,0\r",
                               "at%debug\r"};
    // reading: the dump's announced size is said; status: what is said after it, before the crash
    // information, which is said to be retrieved when it is kept; files: those kept, by prefix.
    const struct {
        CrashFault fault;
        bool reading;
        const char* status;
        Strings commands;
        std::string files;
        bool raw;
    } cases[] = {
        {CrashFault::NoFullDump, false, nullptr, noDumpReset, "crh clf", true},
        {CrashFault::DumpError, false, "Full core dump not supported trying alternate method.",
         dumpError, "crh clf", true},
        {CrashFault::NoFullDumpAvailable, false, "No full core dump available.", kFullDialogue,
         "crh clf", true},
        {CrashFault::SplitHeader, false, "Failed to find byte size, dumping all received data.",
         kFullDialogue, "exr crh clf", true},
        {CrashFault::ExtraAfterHeader, false, "Reading core dump of 64 bytes.", kFullDialogue,
         "exr crh clf", false},
        {CrashFault::SilentMidDump, true,
         "The core dump stopped after 150000 of 300000 bytes; it is not saved.", kFullDialogue,
         "crh clf", false},
        {CrashFault::Info200, true, nullptr, kFullDialogue, "exr clf", false},
        {CrashFault::Info201, true, nullptr, kFullDialogue, "exr crh clf", false},
        {CrashFault::ModemMode, false, nullptr, noDump, "crh clf", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(zsim::CrashFaultName(c.fault));
        RecordingCrash crash;
        ZvAtCrash::Response response;
        Start(c.fault);
        CrashAndWaitForLoader();
        EXPECT_TRUE(crash.GetCrash(modem().AtPortPath().c_str(), response));
        EXPECT_EQ("", crash.errorText);
        Strings statuses = {kChecking};
        if (c.reading)
            statuses.push_back("Reading core dump of 300000 bytes.");
        if (c.status != nullptr)
            statuses.push_back(c.status);
        if (c.files.find("crh") != std::string::npos)
            statuses.push_back(kRetrievedInfo);
        EXPECT_EQ(statuses, crash.statuses);
        EXPECT_EQ(c.commands, Commands());
        EXPECT_EQ(c.files, Kept(response));
        EXPECT_EQ(c.raw, response.coreDumpRaw);

        const std::string image = Text(modem().CoreDumpImage());
        const std::string dump = zavra_test::ReadFile(response.coreDumpFile);
        const std::string info = Text(modem().CrashInfoText());
        if (!response.crashInfoFile.empty()) {
            EXPECT_EQ(info, zavra_test::ReadFile(response.crashInfoFile));
        }
        switch (c.fault) {
        case CrashFault::SplitHeader: // everything from the first part of the header on
            EXPECT_TRUE(kHeaderStart + ("size in bytes=300000:\r\n" + image) + "\r\nOK\r\n" ==
                        dump);
            break;
        case CrashFault::ExtraAfterHeader: // the count wrapped: all up to the silence is kept
            EXPECT_TRUE(image + "\r\nOK\r\n" == dump);
            break;
        case CrashFault::Info200:
        case CrashFault::Info201:
            EXPECT_EQ(c.fault == CrashFault::Info200 ? 200u : 201u, info.size());
            EXPECT_TRUE(image == dump);
            break;
        default:
            break;
        }
        Forget(response);
    }
}

TEST_F(SimCrash, SmallCrashInformationAndLogAreDroppedAndALogAloneIsNoCrash) {
    const std::string infoPath = Scratch() + "/info.txt";
    ASSERT_TRUE(zavra_test::WriteFile(infoPath, std::string(200, 'i')));
    options.crash.crashInfoFile = infoPath;
    options.crash.crashLogText = std::string(201, 'l');
    RecordingCrash crash;
    ZvAtCrash::Response response;
    Start(CrashFault::NoFullDump);
    CrashAndWaitForLoader();
    EXPECT_FALSE(crash.GetCrash(modem().AtPortPath().c_str(), response));
    EXPECT_EQ((Strings{kChecking, "No crash information detected."}), crash.statuses);
    EXPECT_EQ("clf", Kept(response));
    EXPECT_EQ(std::string(201, 'l'), zavra_test::ReadFile(response.crashLogFile));
}

TEST_F(SimCrash, APortThatNeverComesBackLeavesItsOpenError) {
    RecordingCrash crash;
    ZvAtCrash::Response response;
    Start(CrashFault::NeverComesBack);
    modem().Apply(zsim::Control::Crash());
    ASSERT_TRUE(modem().WaitUntil(zsim::Crashed(), 10000));
    // The port number the modem gave up is held, bound but not listening, for the 30 s wait:
    // otherwise another program's listener may be handed it and answer in the modem's place.
    zavra_test::HeldPort held(modem().AtSocketPort());
    ASSERT_EQ(modem().AtSocketPort(), held.Port());
    EXPECT_FALSE(crash.CheckForCrashSocket(modem().AtSocketPort(), "127.0.0.1", response));
    EXPECT_EQ("Failed to open socket AT port.", crash.errorText);
    EXPECT_EQ((Strings{"Possible target crash.",
                       "Waiting for device to restart (takes about 30 seconds).",
                       "No crash information detected (port could not be opened)."}),
              crash.statuses);
    EXPECT_EQ("", Kept(response));
    EXPECT_FALSE(crash.GetCrash(modem().AtPortPath().c_str(), response));
    EXPECT_EQ("Failed to open AT port (2).", crash.errorText);
}
