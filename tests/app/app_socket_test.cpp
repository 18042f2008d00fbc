// The TCP client of -p: it gets the stream, its bytes reach the modem only after the start-of-log
// exchange, and whatever it does (leave, stop reading) the file stays complete and the tool runs.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "app_test_tool.h"
#include "zavra_test_expect.h"
#include "zavra_test_net.h"

namespace apptest {
namespace {

struct SocketRun {
    Bench bench;
    zavra_test::Process tool;
    int port = zavra_test::FreeTcpPort();
    int client = -1;
    // Served on every address, or on this loopback address alone with the client coming from
    // 127.0.0.3.
    std::string address;

    ~SocketRun() { close(client); }
    // Starts the modem and the tool with -p, and connects the client.
    void Start(const std::vector<std::string>& extra = {}) {
        bench.StartModem();
        const std::string where = (address.empty() ? "" : address + ":") + std::to_string(port);
        std::vector<std::string> args = {"-d" + bench.Port(), "-t", "-p" + where};
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back(bench.Out());
        StartTool(tool, args);
        client = address.empty() ? zavra_test::ConnectTcp(port, 10000)
                                 : zavra_test::ConnectTcp(address, port, 10000, "127.0.0.3");
        ASSERT_GE(client, 0) << tool.Stderr();
    }
};

// A client leaving with unread data (the tool's next sends meet a reset connection), or one that
// never reads (its buffers fill after a few MiB and the rest is dropped for it): neither stalls
// the capture nor ends the run. The leaving one is served on a loopback address of its own, and
// said by its address.
TEST(SocketClient, ClientLeavingOrNotReadingDisturbsNothing) {
    for (bool leave : {true, false}) {
        SCOPED_TRACE(leave ? "leaving" : "not reading");
        SocketRun run;
        run.address = leave ? "127.0.0.2" : "";
        run.bench.options.gen.enabled = true;
        run.bench.options.gen.bytesPerSecond = leave ? 8u << 20 : 0;
        run.bench.options.gen.stopAfterBytes = leave ? 6u << 20 : 24u << 20;
        ASSERT_NO_FATAL_FAILURE(run.Start({"-v5"}));
        if (leave) {
            EXPECT_EQ(zavra_test::ReadExactly(run.client, 100000, 20000).size(), 100000u);
            close(run.client);
            run.client = -1;
        }
        ASSERT_TRUE(run.bench.modem.WaitUntil(zsim::GeneratorDone(), 120000)) << run.tool.Stderr();
        ASSERT_TRUE(run.bench.modem.WaitUntil(zsim::Drained(), 20000));
        EXPECT_TRUE(run.tool.Running()) << zavra_test::Describe(run.tool);
        run.tool.Signal(SIGTERM);
        ExpectExit(run.tool, 15);
        ExpectCaptured(run.bench.Out(), run.bench, run.bench.modem.Counters().sent);
        const std::string err = run.tool.Stderr();
        EXPECT_TRUE(
            zavra_test::Contains(err, std::string("Status: Socket client connected from 127.0.0.") +
                                          (leave ? "3" : "1") + ".\n"));
        if (!leave) {
            EXPECT_TRUE(zavra_test::Contains(err, "Socket client is not keeping up"));
            // Whatever the client did not get is accounted for: what reached its socket and
            // what was dropped for it make up the whole stream.
            const size_t at = err.find("Socket client missed ");
            ASSERT_NE(at, std::string::npos) << err;
            const std::string got = zavra_test::ReadExactly(run.client, 64u << 20, 20000);
            EXPECT_EQ(got.size() + std::stoull(err.substr(at + 21)),
                      zavra_test::FileSize(run.bench.Out()))
                << err;
        }
    }
}

// A client whose link stalls for 500 ms every 2 s while the modem sends 2 MB/s keeps up on
// average: the tool holds each stall's backlog for it, and it gets every byte. It also sends a
// record every 100 ms from the moment it connects, before the port is open: they wait for the
// start-of-log exchange, and though they come far more often than the 600 ms quiet period, they
// cannot hold off the exit.
TEST(SocketClient, AStallingChattyClientGetsEveryByteItsRecordsWaitForTheOpenAndTheExitComes) {
    SocketRun run;
    run.bench.options.gen.enabled = true;
    run.bench.options.gen.bytesPerSecond = 2000000;
    run.bench.options.gen.stopAfterBytes = 10000000;
    ASSERT_NO_FATAL_FAILURE(run.Start({"-v5"}));
    // A record the client sends down: id 0x123 to KOR 0 with the body "CLNT".
    const Bytes record = Hex("7F 80 7F 80 00 00 00 00 04 00 23 01 43 4C 4E 54");
    struct Chatter {
        std::atomic<bool> stop{false};
        std::thread thread;
        ~Chatter() {
            stop = true;
            thread.join();
        }
    } chatter;
    chatter.thread = std::thread([&] {
        while (!chatter.stop &&
               zavra_test::WriteAll(run.client, std::string(record.begin(), record.end())))
            usleep(100000);
    });
    zavra_test::PausingReader reader(run.client, 2000, 500);
    ASSERT_TRUE(run.bench.modem.WaitUntil(zsim::RecordSeen(0x123, 2), 10000)) << run.tool.Stderr();
    // Nothing of it arrived before the start messages (closes, flushes, time, opens: 124 bytes).
    Bytes raw = run.bench.modem.RawReceived();
    ASSERT_GE(raw.size(), 124u + record.size());
    EXPECT_EQ(ToHex(Bytes(raw.begin() + 124, raw.begin() + 124 + record.size())), ToHex(record));

    ASSERT_TRUE(run.bench.modem.WaitUntil(zsim::GeneratorDone(), 60000)) << run.tool.Stderr();
    ASSERT_TRUE(run.bench.modem.WaitUntil(zsim::Drained(), 20000));
    const uint64_t sent = run.bench.modem.Counters().sent;
    zavra_test::WaitUntil([&] { return reader.Size() >= sent; }, 20000);
    run.tool.Signal(SIGTERM);
    ExpectExit(run.tool, 15);
    reader.Stop();
    run.bench.modem.WaitUntil(zsim::HostQuiet(150), 3000);
    EXPECT_EQ(run.bench.modem.RecordsWithId(0x36).size(), 4u) << "the channel is closed at exit";
    EXPECT_GE(reader.Pauses(), 2u);
    ExpectCaptured(run.bench.Out(), run.bench, sent);
    const std::string err = run.tool.Stderr();
    EXPECT_TRUE(reader.Bytes() == zavra_test::ReadFile(run.bench.Out()))
        << "the client got " << reader.Size() << " of " << sent << " bytes\n"
        << err;
    EXPECT_EQ(err.find("Socket client is not keeping up"), std::string::npos) << err;
    EXPECT_EQ(err.find("Socket client missed "), std::string::npos) << err;
}

} // namespace
} // namespace apptest
