// The crash check's wait and the bound on its searching text, without a modem.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "crash_recorder.h"
#include "zavra_test_at.h"
#include "zavra_test_files.h"
#include "zv-at-core-dump.h"
#include "zv-device-detect.h"
#include "zv-file.h"
#include "zv-time.h"

namespace {

void RequestStop(int) {
    g_stopRequested = 1;
}

// The serial wait on an interface that detection never finds, or the socket wait on a port
// nobody listens on: both wait their full time unless stopped.
bool RunWait(bool socket, int refused, ZvAtCrash& crash, ZvAtCrash::Response& response) {
    if (socket)
        return crash.CheckForCrashSocket(refused, "127.0.0.1", response);
    ZvInterfaceInfo info;
    info.type = ZvInterfaceTypeSerial;
    info.uniqueId = "1234_5678_00_zavra-missing";
    info.portName = "/dev/zavra-missing-tty";
    return crash.CheckForCrash(&info, response);
}

class CrashWait : public ::testing::Test {
protected:
    void SetUp() override {
        struct sigaction action {};
        action.sa_handler = RequestStop;
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

// Each wait stopped by a signal after a second, and stopped before it began.
TEST_F(CrashWait, AStopEndsTheWaitWithinOneAttemptOrBeforeIt) {
    zavra_test::HeldPort refusing;
    for (bool socket : {false, true}) {
        for (bool early : {false, true}) {
            SCOPED_TRACE(std::string(socket ? "socket" : "serial") +
                         (early ? ", stopped before" : ", signalled"));
            g_stopRequested = early;
            RecordingCrash crash;
            crash.errorText = "stale";
            ZvAtCrash::Response response;
            response.crashFound = true;
            std::atomic<unsigned> signalled{0};
            std::thread stopper([&] {
                if (early)
                    return;
                ZvTime::Sleep(1000);
                signalled = ZvTime::GetMsTickTime();
                kill(getpid(), SIGUSR1);
            });
            const unsigned start = ZvTime::GetMsTickTime();
            EXPECT_FALSE(RunWait(socket, refusing.Port(), crash, response));
            const unsigned end = ZvTime::GetMsTickTime();
            stopper.join();
            EXPECT_FALSE(response.crashFound);
            if (early) {
                EXPECT_LT(ZvTime::DiffMsTime(start, end), 300u);
                EXPECT_EQ("Checking for crash information was stopped.", crash.errorText);
                EXPECT_TRUE(crash.statuses.empty());
                continue;
            }
            // One attempt is a 400 ms sleep plus a detection refresh; the whole wait is 14 or
            // 30 s.
            EXPECT_GE(ZvTime::DiffMsTime(start, end), 900u);
            EXPECT_LT(ZvTime::DiffMsTime(signalled.load(), end), 2500u);
            const std::string waiting = std::string("Waiting for device to restart (takes about ") +
                                        (socket ? "30" : "10") + " seconds).";
            EXPECT_EQ((std::vector<std::string>{"Possible target crash.", waiting,
                                                "Crash check cancelled."}),
                      crash.statuses);
            EXPECT_EQ("", crash.errorText);
        }
    }
}

TEST(CoreDumpReader, TextWithoutAMarkerStaysBoundedAndAMarkerAcrossTheCutIsFound) {
    zavra_test::TempDir dir;
    ZvFile file;
    ASSERT_TRUE(file.Open(dir.File("exr").c_str(), "wb"));
    ZvAtCoreDumpReader reader(file);
    ZvAString status;
    const auto feed = [&](const std::string& chunk) {
        reader.OnChunk(reinterpret_cast<const unsigned char*>(chunk.data()),
                       static_cast<unsigned>(chunk.size()), status);
    };
    const std::string noise(50000, 'x');
    size_t largest = 0;
    for (int i = 0; i < 400; ++i) { // 20 MB of text that never names a marker
        feed(noise);
        largest = std::max(largest, reader.SearchTextSize());
    }
    EXPECT_LE(largest, ZvAtCoreDumpReader::kSearchLimit + noise.size());
    feed(noise + "\r\nNo Full Core");
    EXPECT_EQ(ZvAtCoreDumpReader::State::Searching, reader.GetState());
    feed(" Dump Available\r\n");
    EXPECT_EQ(ZvAtCoreDumpReader::Outcome::NoDumpAvailable, reader.GetOutcome());
    EXPECT_EQ("No full core dump available.", status);
    file.Close();
    EXPECT_EQ(0, zavra_test::FileSize(dir.File("exr")));
}
