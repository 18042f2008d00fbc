// The AT dialogue rules over both transports: replies are literal bytes the test writes into a
// real pty or a real loopback TCP connection.
#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <vector>

#include "at_peer.h"
#include "zavra_test_net.h"
#include "zv-time.h"

namespace {

const Transport kTransports[] = {Transport::Pty, Transport::Tcp};

std::vector<std::string> Lines(const ZvAStringList& list) {
    std::vector<std::string> out;
    for (unsigned i = 0; i < list.Count(); ++i)
        out.push_back(list[i]);
    return out;
}

unsigned Elapsed(unsigned start) {
    return ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime());
}

} // namespace

TEST(AtPort, RepliesAreCutIntoLinesAndJudgedByAWholeOkLine) {
    using namespace std::string_literals;
    const struct {
        std::string reply;
        std::vector<std::string> lines;
        bool ok;
    } cases[] = {
        {"\r\nOK\r\n", {"", "OK"}, true},
        {"OK", {"OK"}, true},
        {"\r\n%MODE: 1\r\n\r\nOK\r\n", {"", "%MODE: 1", "", "OK"}, true},
        {" OK\r\n", {" OK"}, false},
        {"OK \r\n", {"OK "}, false},
        {"ok\r\nOKAY\r\n", {"ok", "OKAY"}, false},
        {"\r\nERROR\r\n", {"", "ERROR"}, false},
        {"A\n\rB", {"A", "", "B"}, false},              // LF CR ends two lines
        {"A\rB\nC\r\nOK", {"A", "B", "C", "OK"}, true}, // CR, LF and CR LF end one each
        {"\r\n\r\n\r\n", {"", "", ""}, false},
        {"AB\0CD\r\nOK\r\n"s, {"AB"}, false}, // a NUL cuts off the rest of its chunk
    };
    for (Transport transport : kTransports) {
        SCOPED_TRACE(TransportName(transport));
        auto peer = MakePeer(transport, 200);
        ASSERT_TRUE(peer->Connect());
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::PrintToString(c.reply));
            peer->Send(c.reply);
            ZvAStringList lines;
            EXPECT_TRUE(peer->Port().SendAtCommand("at%mode?\r", lines));
            EXPECT_EQ(c.lines, Lines(lines));
            EXPECT_EQ(c.ok, ZvAtPort::IsAtResponseOk(lines));
            EXPECT_EQ("", peer->Port().errorText);
            EXPECT_EQ("at%mode?\r", peer->Received(9));
        }
        // SendAtCommandOk keeps only the verdict.
        peer->Send("\r\nOK\r\n");
        EXPECT_TRUE(peer->Port().SendAtCommandOk("at%zreset\r"));
        peer->Send("\r\nERROR\r\n");
        EXPECT_FALSE(peer->Port().SendAtCommandOk("at%zreset\r"));
        EXPECT_EQ("AT command failed.", peer->Port().errorText);
        EXPECT_EQ("at%zreset\rat%zreset\r", peer->Received(20));
    }
}

TEST(AtPort, AReplyEndsOnlyAfterOneTimeOutOfSilence) {
    for (Transport transport : kTransports) {
        SCOPED_TRACE(TransportName(transport));
        auto peer = MakePeer(transport, 600);
        ASSERT_TRUE(peer->Connect());
        // A pause well inside the time-out does not end the reply, even after an "OK".
        peer->Send("\r\nOK\r\n");
        std::thread late([&] {
            ZvTime::Sleep(100);
            peer->Send("+LATE\r\n");
        });
        ZvAStringList lines;
        EXPECT_TRUE(peer->Port().GetResponse(lines));
        late.join();
        EXPECT_EQ((std::vector<std::string>{"", "OK", "+LATE"}), Lines(lines));

        // Nothing at all: one time-out later the reply is empty.
        const unsigned start = ZvTime::GetMsTickTime();
        EXPECT_FALSE(peer->Port().SendAtCommand("at\r", lines));
        EXPECT_GE(Elapsed(start), 500u);
        EXPECT_LT(Elapsed(start), 5000u);
        EXPECT_EQ("No response received on AT port.", peer->Port().errorText);
        EXPECT_TRUE(lines.Empty());
    }
}

TEST(AtPort, APeerThatGoesAwayKeepsWhatArrivedAndFailsItsWrites) {
    // Over TCP the bytes sent before the close are still read and the close is a read failure.
    // A pty's hang-up discards the unread bytes and reads then return nothing at once, which the
    // serial transport cannot tell from silence.
    const struct {
        Transport transport;
        bool gotReply;
        std::vector<std::string> lines;
        const char* error;
        const char* writeError;
    } cases[] = {
        {Transport::Tcp,
         true,
         {"", "OK", "PAR"},
         "Failed to read from AT port.",
         "Failed to write to AT port."},
        {Transport::Pty,
         false,
         {},
         "No response received on AT port.",
         "Failed to write to AT port (error = 5)."}, // EIO
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(TransportName(c.transport));
        auto peer = MakePeer(c.transport, 2000);
        ASSERT_TRUE(peer->Connect());
        peer->Send("\r\nOK\r\nPAR");
        peer->HangUp();
        ZvAStringList lines;
        const unsigned start = ZvTime::GetMsTickTime();
        EXPECT_EQ(c.gotReply, peer->Port().GetResponse(lines));
        EXPECT_LT(Elapsed(start), 1500u) << "a closed peer is not waited for";
        EXPECT_EQ(c.lines, Lines(lines));
        EXPECT_EQ(c.error, peer->Port().errorText);

        // Writes to the vanished peer fail (a socket may take a few before it notices) and never
        // raise SIGPIPE. The reply-reading form reports the plain message and empties the lines.
        bool written = true;
        for (int i = 0; i < 100 && written; ++i)
            written = peer->Port().SendAtCommand("at%mode?\r");
        EXPECT_FALSE(written);
        EXPECT_EQ(c.writeError, peer->Port().errorText);
        lines.Add("stale");
        EXPECT_FALSE(peer->Port().SendAtCommand("at%mode?\r", lines));
        EXPECT_EQ("Failed to write to AT port.", peer->Port().errorText);
        EXPECT_TRUE(lines.Empty());
    }
}

TEST(AtPort, OpenFailuresNameTheirCause) {
    const int refused = zavra_test::FreeTcpPort();
    const struct {
        const char* name;
        std::function<bool(ZvAString&)> open;
        const char* error;
    } cases[] = {
        {"serial, empty name",
         [](ZvAString& error) {
             ZvAtPortSerial port("", 300);
             bool ok = port.Open();
             error = port.errorText;
             return ok;
         },
         "Serial port name not configured."},
        {"serial, missing device",
         [](ZvAString& error) {
             ZvAtPortSerial port("/dev/zavra-no-such-tty", 300);
             bool ok = port.Open();
             error = port.errorText;
             return ok;
         },
         "Failed to open AT port (2)."},
        {"serial, not a terminal",
         [](ZvAString& error) {
             ZvAtPortSerial port("/dev/null", 300);
             bool ok = port.Open();
             error = port.errorText;
             return ok;
         },
         "Failed to open AT port (25)."},
        {"socket, null address",
         [](ZvAString& error) {
             ZvAtPortSocket port(nullptr, 5000, 500);
             bool ok = port.Open();
             error = port.errorText;
             return ok;
         },
         "Socket AT port name not configured."},
        {"socket, port 0",
         [](ZvAString& error) {
             ZvAtPortSocket port("127.0.0.1", 0, 500);
             bool ok = port.Open();
             error = port.errorText;
             return ok;
         },
         "Socket AT port name not configured."},
        {"socket, nobody listening",
         [refused](ZvAString& error) {
             ZvAtPortSocket port("127.0.0.1", refused, 500);
             bool ok = port.Open();
             error = port.errorText;
             return ok;
         },
         "Failed to open socket AT port."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ZvAString error;
        EXPECT_FALSE(c.open(error));
        EXPECT_EQ(c.error, error);
    }
}

TEST(AtPort, OpenTwiceReopensWithAClearedError) {
    for (Transport transport : kTransports) {
        SCOPED_TRACE(TransportName(transport));
        auto peer = MakePeer(transport, 200);
        ASSERT_TRUE(peer->Connect());
        ZvAStringList lines;
        EXPECT_FALSE(peer->Port().GetResponse(lines));
        ASSERT_FALSE(peer->Port().errorText.empty());
        if (transport == Transport::Tcp) {
            auto& tcp = static_cast<TcpPeer&>(*peer);
            const int first = dup(tcp.Fd());
            ASSERT_TRUE(peer->Connect());
            char byte;
            EXPECT_EQ(0, read(first, &byte, 1)) << "the first connection was closed";
            close(first);
        } else {
            ASSERT_TRUE(peer->Connect());
        }
        EXPECT_EQ("", peer->Port().errorText);
        peer->Send("\r\nOK\r\n");
        EXPECT_TRUE(peer->Port().SendAtCommandOk("at\r"));
        EXPECT_EQ("at\r", peer->Received(3));
    }
}
