// The AT dialogue rules over both transports: replies are literal bytes the test writes into a
// real pty or a real loopback TCP connection.
#include <gtest/gtest.h>

#include <vector>

#include "at_peer.h"

namespace {

const Transport kTransports[] = {Transport::Pty, Transport::Tcp};

std::vector<std::string> Lines(const ZvAStringList& list) {
    std::vector<std::string> out;
    for (unsigned i = 0; i < list.Count(); ++i)
        out.push_back(list[i]);
    return out;
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
        AtPeer peer(transport, 200);
        SCOPED_TRACE(peer.Name());
        ASSERT_TRUE(peer.Connect());
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::PrintToString(c.reply));
            ASSERT_TRUE(peer.Send(c.reply));
            ZvAStringList lines;
            EXPECT_TRUE(peer.Port().SendAtCommand("at%mode?\r", lines));
            EXPECT_EQ(c.lines, Lines(lines));
            EXPECT_EQ(c.ok, ZvAtPort::IsAtResponseOk(lines));
            EXPECT_EQ("", peer.Port().errorText);
            EXPECT_EQ("at%mode?\r", peer.Received(9));
        }
        ASSERT_TRUE(peer.Send("\r\nERROR\r\n"));
        EXPECT_FALSE(peer.Port().SendAtCommandOk("at%zreset\r"));
        EXPECT_EQ("AT command failed.", peer.Port().errorText);
        EXPECT_EQ("at%zreset\r", peer.Received(10));

        // A second open replaces the first: over TCP the first connection is closed.
        const int first = dup(peer.Fd());
        ASSERT_TRUE(peer.Connect());
        EXPECT_EQ("", peer.Port().errorText);
        char byte;
        if (transport == Transport::Tcp) {
            EXPECT_EQ(0, read(first, &byte, 1)) << "the first connection was left open";
        }
        close(first);
        ASSERT_TRUE(peer.Send("\r\nOK\r\n"));
        EXPECT_TRUE(peer.Port().SendAtCommandOk("at\r"));
        EXPECT_EQ("at\r", peer.Received(3));
    }
}
