// Sockets over real loopback connections on ephemeral ports.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "zv-socket.h"
#include "zv-time.h"

namespace {

const in_addr_t kLoopback = htonl(INADDR_LOOPBACK);

unsigned Elapsed(unsigned start) {
    return ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime());
}

// A listening socket on a free port; Accept runs OpenServer on a thread while a client connects.
struct Server {
    int fd = -1;
    int port = -1;
    Server() {
        EXPECT_TRUE(ZvSocket::OpenSocketServer(0, fd, 16384, 262144));
        port = ZvSocket::GetLocalPort(fd);
    }
    ~Server() { ZvSocket::CloseSocketServer(fd); }

    // Connects `connect` (which returns true once connected) and accepts into `accepted`.
    template <typename Connect>
    void Accept(ZvSocket& accepted, Connect connect) {
        std::atomic<bool> ok{false};
        std::thread acceptor([&] { ok = accepted.OpenServer(fd, 16384, 262144); });
        const unsigned start = ZvTime::GetMsTickTime();
        while (!connect() && Elapsed(start) < 3000)
            ZvTime::Sleep(2); // refused until the acceptor listens
        acceptor.join();
        ASSERT_TRUE(ok.load());
    }
};

struct Pair {
    Server server;
    ZvSocket near, far;
    Pair() {
        server.Accept(far, [&] { return near.OpenClient(server.port, kLoopback); });
    }
};

} // namespace

TEST(Socket, AcceptGivesThePeerAddressAndOpenFailures) {
    Server server;
    ZvSocket accepted, sock;
    int raw = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in from{AF_INET, 0, {inet_addr("127.0.0.7")}, {}}; // unlike its byte-swapped form
    ASSERT_EQ(0, bind(raw, reinterpret_cast<sockaddr*>(&from), sizeof(from)));
    sockaddr_in to{AF_INET, htons(static_cast<uint16_t>(server.port)), {kLoopback}, {}};
    server.Accept(accepted,
                  [&] { return connect(raw, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 0; });
    EXPECT_EQ("127.0.0.7", accepted.GetPeerAddress());
    close(raw);

    EXPECT_FALSE(sock.OpenServer(-1));
    // Closing the listening socket releases a thread blocked in accept.
    std::atomic<int> result{-1};
    std::thread acceptor([&] { result = sock.OpenServer(server.fd) ? 1 : 0; });
    ZvTime::Sleep(50);
    ZvSocket::CloseSocketServer(server.fd);
    acceptor.join();
    EXPECT_EQ(0, result.load());

    // Bound but not listening: connections are refused.
    int bound = -1;
    ASSERT_TRUE(ZvSocket::OpenSocketServer(0, bound, 0, 0));
    EXPECT_FALSE(sock.OpenClient(ZvSocket::GetLocalPort(bound), kLoopback));
    EXPECT_EQ("Failed to connect to socket (111).", sock.GetLastMessage());
    ZvSocket::CloseSocketServer(bound);
}

TEST(Socket, WaitsAndSplitWaits) {
    ZvSocket closed;
    EXPECT_EQ(-1, closed.Wait(ZvSocket::kWaitRead, 0));
    EXPECT_EQ("Wait failed as socket not open.", closed.GetLastMessage());

    Pair pair;
    unsigned start = ZvTime::GetMsTickTime();
    EXPECT_EQ(0, pair.far.Wait(ZvSocket::kWaitRead, 0));
    EXPECT_LT(Elapsed(start), 1000u); // zero means no wait, not forever
    EXPECT_EQ("Wait on socket timed out (0ms).", pair.far.GetLastMessage());
    EXPECT_EQ(3, pair.near.Write("abc", 3));
    EXPECT_EQ(3, pair.far.Wait(ZvSocket::kWaitRead | ZvSocket::kWaitWrite, 1000));
    EXPECT_EQ("", pair.far.GetLastMessage());

    char buffer[8];
    EXPECT_EQ(3, pair.far.Read(buffer, sizeof(buffer)));

    // The split wait: times out, aborts on a flag set meanwhile, and sees data.
    bool abort = false;
    start = ZvTime::GetMsTickTime();
    EXPECT_EQ(0, pair.far.SplitWait(ZvSocket::kWaitRead, 400, abort, 150));
    EXPECT_GE(Elapsed(start), 380u);
    EXPECT_EQ("Wait on socket timed out (400ms).", pair.far.GetLastMessage());

    start = ZvTime::GetMsTickTime();
    std::thread aborter([&] {
        ZvTime::Sleep(100);
        __atomic_store_n(&abort, true, __ATOMIC_RELEASE); // a plain flag, as callers use it
    });
    EXPECT_EQ(-2, pair.far.SplitWait(ZvSocket::kWaitRead, 10000, abort, 50));
    aborter.join();
    EXPECT_LT(Elapsed(start), 3000u);

    abort = false;
    pair.near.Write("z", 1);
    EXPECT_EQ(1, pair.far.SplitWait(ZvSocket::kWaitRead, 10000, abort, 50));
}

// One peer leaves during a read; another connection is closed while a second thread writes.
TEST(Socket, PeerLeavingAndCloseDuringWrites) {
    Pair gone, live;
    std::atomic<int> result{99};
    std::thread reader([&] {
        char buffer[16];
        result = gone.far.Read(buffer, sizeof(buffer));
    });
    ZvTime::Sleep(50);
    gone.near.Close();
    reader.join();
    EXPECT_EQ(0, result.load()); // end of stream

    // Writes to the vanished peer fail without SIGPIPE (which would end this process).
    char block[4096] = {};
    int last = 0;
    for (int i = 0; i < 100 && last >= 0; ++i)
        last = (i % 2) ? gone.far.Write(block, sizeof(block))
                       : gone.far.WriteNonBlocking(block, sizeof(block));
    EXPECT_EQ(-1, last);
    EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << errno;

    std::atomic<bool> stop{false};
    std::thread drain([&] {
        while (live.near.Read(block, sizeof(block)) > 0) {
        }
    });
    std::thread writer([&] {
        const char chunk[512] = {};
        while (!stop)
            live.far.WriteNonBlocking(chunk, sizeof(chunk));
    });
    ZvTime::Sleep(30);
    live.far.Close();
    EXPECT_EQ(0, live.far.Write("x", 1));
    stop = true;
    writer.join();
    drain.join(); // the shutdown ended the peer's stream
}
