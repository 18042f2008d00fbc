// The crash check's wait and its core dump reader, without a modem.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

#include "crash_recorder.h"
#include "zavra_test_files.h"
#include "zavra_test_net.h"
#include "zv-at-core-dump.h"
#include "zv-at-port.h"
#include "zv-device-detect.h"
#include "zv-file.h"
#include "zv-time.h"

namespace {

using Strings = std::vector<std::string>;

unsigned Elapsed(unsigned start) {
    return ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime());
}

void RequestStop(int) {
    g_stopRequested = 1;
}

// An AT interface that detection never finds, so the serial wait runs all its attempts.
ZvInterfaceInfo MissingInterface() {
    ZvInterfaceInfo info;
    info.type = ZvInterfaceTypeSerial;
    info.uniqueId = "1234_5678_00_zavra-missing";
    info.portName = "/dev/zavra-missing-tty";
    return info;
}

struct Wait {
    const char* name;
    std::function<bool(ZvAtCrash&, ZvAtCrash::Response&)> run;
    const char* waitStatus;
};

std::vector<Wait> Waits() {
    const int refused = zavra_test::FreeTcpPort();
    return {
        {"serial",
         [](ZvAtCrash& crash, ZvAtCrash::Response& response) {
             const ZvInterfaceInfo info = MissingInterface();
             return crash.CheckForCrash(&info, response);
         },
         "Waiting for device to restart (takes about 10 seconds)."},
        {"socket",
         [refused](ZvAtCrash& crash, ZvAtCrash::Response& response) {
             return crash.CheckForCrashSocket(refused, "127.0.0.1", response);
         },
         "Waiting for device to restart (takes about 30 seconds)."},
    };
}

class CrashWait : public ::testing::Test {
protected:
    void SetUp() override {
        g_stopRequested = 0;
        struct sigaction action {};
        action.sa_handler = RequestStop;
        sigemptyset(&action.sa_mask);
        ASSERT_EQ(0, sigaction(SIGUSR1, &action, &m_previous));
    }
    void TearDown() override {
        sigaction(SIGUSR1, &m_previous, nullptr);
        g_stopRequested = 0;
    }

private:
    struct sigaction m_previous {};
};

} // namespace

TEST_F(CrashWait, ASignalDrivenStopEndsTheWaitWithinOneAttempt) {
    for (const Wait& wait : Waits()) {
        SCOPED_TRACE(wait.name);
        g_stopRequested = 0;
        RecordingCrash crash;
        ZvAtCrash::Response response;
        response.crashFound = true;
        std::atomic<unsigned> signalled{0};
        std::thread stopper([&] {
            ZvTime::Sleep(1000);
            signalled = ZvTime::GetMsTickTime();
            kill(getpid(), SIGUSR1);
        });
        const unsigned start = ZvTime::GetMsTickTime();
        EXPECT_FALSE(wait.run(crash, response));
        const unsigned end = ZvTime::GetMsTickTime();
        stopper.join();
        // One attempt is a 400 ms sleep plus a detection refresh; the whole wait is 14 or 30 s.
        EXPECT_GE(ZvTime::DiffMsTime(start, end), 900u);
        EXPECT_LT(ZvTime::DiffMsTime(signalled.load(), end), 2500u);
        EXPECT_EQ((Strings{"Possible target crash.", wait.waitStatus, "Crash check cancelled."}),
                  crash.statuses);
        EXPECT_EQ("", crash.errorText);
        EXPECT_FALSE(response.crashFound);
    }
}

TEST_F(CrashWait, AStopAlreadyRequestedReportsNothing) {
    for (const Wait& wait : Waits()) {
        SCOPED_TRACE(wait.name);
        g_stopRequested = 1;
        RecordingCrash crash;
        crash.errorText = "stale";
        ZvAtCrash::Response response;
        response.crashFound = true;
        const unsigned start = ZvTime::GetMsTickTime();
        EXPECT_FALSE(wait.run(crash, response));
        EXPECT_LT(Elapsed(start), 300u);
        EXPECT_EQ("Checking for crash information was stopped.", crash.errorText);
        EXPECT_TRUE(crash.statuses.empty());
        EXPECT_FALSE(response.crashFound);
    }
}

TEST_F(CrashWait, APortThatNeverComesBackEndsTheSerialWaitEmptyHanded) {
    RecordingCrash crash;
    ZvAtCrash::Response response;
    const ZvInterfaceInfo info = MissingInterface();
    const unsigned start = ZvTime::GetMsTickTime();
    EXPECT_FALSE(crash.CheckForCrash(&info, response));
    EXPECT_GE(Elapsed(start), 35u * 400u);
    EXPECT_LT(Elapsed(start), 60000u);
    EXPECT_EQ((Strings{"Possible target crash.",
                       "Waiting for device to restart (takes about 10 seconds).",
                       "No crash information detected (port could not be opened)."}),
              crash.statuses);
    // The interface was never detected, so no open was tried and there is no open error.
    EXPECT_EQ("", crash.errorText);
    EXPECT_EQ("", response.coreDumpFile);
}

TEST(CrashRetrieval, APortThatIsNotThereGivesItsOwnError) {
    RecordingCrash crash;
    ZvAtCrash::Response response;
    EXPECT_FALSE(crash.GetCrash(nullptr, response));
    EXPECT_EQ("Serial port name not configured.", crash.errorText);
    EXPECT_FALSE(crash.GetCrash("/dev/zavra-missing-tty", response));
    EXPECT_EQ("Failed to open AT port (2).", crash.errorText);
    ZvAtPortSerial closed("/dev/zavra-missing-tty", 300);
    EXPECT_FALSE(crash.RetrieveCrash(closed, response));
    EXPECT_TRUE(crash.statuses.empty());
    EXPECT_FALSE(ZvAtIsModemInLoaderMode(static_cast<const char*>(nullptr)));
    EXPECT_FALSE(ZvAtIsModemInLoaderMode(static_cast<const ZvInterfaceInfo*>(nullptr)));
    EXPECT_FALSE(ZvAtIsModemInLoaderMode("/dev/zavra-missing-tty"));
}

namespace {

const std::string kHeader = "start of external ram content, start address=0x80000000, size in "
                            "bytes=";

struct DumpRun {
    std::string file;
    Strings statuses;
    bool raw = true;
    ZvAtCoreDumpReader::State state = ZvAtCoreDumpReader::State::Searching;
    ZvAtCoreDumpReader::Outcome outcome = ZvAtCoreDumpReader::Outcome::None;
};

DumpRun ReadDump(const Strings& chunks) {
    zavra_test::TempDir dir;
    const std::string path = dir.File("exr");
    DumpRun run;
    {
        ZvFile file;
        EXPECT_TRUE(file.Open(path.c_str(), "wb"));
        ZvAtCoreDumpReader reader(file);
        ZvAString status;
        for (const std::string& chunk : chunks) {
            reader.OnChunk(reinterpret_cast<const unsigned char*>(chunk.data()),
                           static_cast<unsigned>(chunk.size()), status);
            if (!status.empty())
                run.statuses.push_back(status);
        }
        run.raw = reader.IsRaw();
        run.state = reader.GetState();
        run.outcome = reader.GetOutcome();
    }
    run.file = zavra_test::ReadFile(path);
    return run;
}

} // namespace

TEST(CoreDumpReader, TheHeaderCutsTheImageOutOrTheMarkersEndTheSearch) {
    using namespace std::string_literals;
    using State = ZvAtCoreDumpReader::State;
    using Outcome = ZvAtCoreDumpReader::Outcome;
    const char* const kNoSize = "Failed to find byte size, dumping all received data.";
    const struct {
        const char* name;
        Strings chunks;
        std::string file;
        Strings statuses;
        bool raw;
        State state;
        Outcome outcome;
    } cases[] = {
        {"exact in one chunk, later bytes dropped",
         {"\r\nat%debug=2,1\r\n" + kHeader + "8:\r\nABCDEFGH", "more"},
         "ABCDEFGH",
         {"Reading core dump of 8 bytes."},
         false,
         State::Draining,
         Outcome::None},
        {"binary image over chunks, NULs kept",
         {kHeader + "6:\r\n\0\1"s, "\2\0\4"s, "\5tail"},
         "\0\1\2\0\4\5"s,
         {"Reading core dump of 6 bytes."},
         false,
         State::Draining,
         Outcome::None},
        {"marker split before the size: found once whole",
         {kHeader.substr(0, 20), kHeader.substr(20) + "3:\r\nXYZ"},
         "XYZ",
         {"Reading core dump of 3 bytes."},
         false,
         State::Draining,
         Outcome::None},
        {"size split from its colon: raw from the header on",
         {kHeader, "4:\r\nABCD", "EF"},
         kHeader + "4:\r\nABCDEF",
         {kNoSize},
         true,
         State::Copying,
         Outcome::None},
        {"more after the header than announced: the count wraps, all is kept",
         {kHeader + "4:\r\nABCDEFGH", "IJ"},
         "ABCDEFGHIJ",
         {"Reading core dump of 4 bytes."},
         false,
         State::Copying,
         Outcome::None},
        {"error reply, split across chunks",
         {"\r\nERR", "OR\r\n"},
         "",
         {"Full core dump not supported trying alternate method."},
         true,
         State::Ended,
         Outcome::DumpError},
        {"no dump",
         {"\r\nNo Full Core Dump Available\r\n"},
         "",
         {"No full core dump available."},
         true,
         State::Ended,
         Outcome::NoDumpAvailable},
        {"no new dump",
         {"\r\nNo new fullcoredump available\r\n"},
         "",
         {"No new full core dump available."},
         true,
         State::Ended,
         Outcome::NoNewDumpAvailable},
        {"nothing recognised yet", {"\r\nbusy\r\n"}, "", {}, true, State::Searching, Outcome::None},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const DumpRun run = ReadDump(c.chunks);
        EXPECT_EQ(c.file, run.file);
        EXPECT_EQ(c.statuses, run.statuses);
        EXPECT_EQ(c.raw, run.raw);
        EXPECT_EQ(c.state, run.state);
        EXPECT_EQ(c.outcome, run.outcome);
    }
}

TEST(CoreDumpReader, TextWithoutAMarkerStaysBoundedAndAMarkerAcrossTheCutIsFound) {
    zavra_test::TempDir dir;
    ZvFile file;
    ASSERT_TRUE(file.Open(dir.File("exr").c_str(), "wb"));
    ZvAtCoreDumpReader reader(file);
    ZvAString status;
    const std::string noise(50000, 'x');
    size_t largest = 0;
    for (int i = 0; i < 400; ++i) { // 20 MB of text that never names a marker
        reader.OnChunk(reinterpret_cast<const unsigned char*>(noise.data()), 50000, status);
        largest = std::max(largest, reader.SearchTextSize());
    }
    EXPECT_LE(largest, ZvAtCoreDumpReader::kSearchLimit + noise.size());
    const std::string head = noise + "\r\nNo Full Core";
    reader.OnChunk(reinterpret_cast<const unsigned char*>(head.data()),
                   static_cast<unsigned>(head.size()), status);
    EXPECT_EQ(ZvAtCoreDumpReader::State::Searching, reader.GetState());
    const std::string tail = " Dump Available\r\n";
    reader.OnChunk(reinterpret_cast<const unsigned char*>(tail.data()),
                   static_cast<unsigned>(tail.size()), status);
    EXPECT_EQ(ZvAtCoreDumpReader::Outcome::NoDumpAvailable, reader.GetOutcome());
    EXPECT_EQ("No full core dump available.", status);
}
