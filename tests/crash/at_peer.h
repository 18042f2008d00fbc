// The modem's end of an AT port in the crash tests, driven byte by byte by the test: a real
// pseudo-terminal whose slave the port opens, or a real loopback TCP listener it connects to.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <pty.h>

#include "zavra_test_at.h"
#include "zv-at-port-socket.h"
#include "zv-at-port.h"

enum class Transport { Pty, Tcp };

class AtPeer : public zavra_test::AtEnd {
public:
    AtPeer(Transport transport, unsigned timeoutMs) : m_tcp(transport == Transport::Tcp) {
        if (!m_tcp) {
            // Only the master stays open: the port takes the terminal exclusively.
            int master = -1, slave = -1;
            char name[128] = "";
            EXPECT_EQ(0, openpty(&master, &slave, name, nullptr, nullptr));
            close(slave);
            Adopt(master);
            m_serial = std::make_unique<ZvAtPortSerial>(name, timeoutMs);
            return;
        }
        m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        EXPECT_EQ(0, bind(m_listener, reinterpret_cast<sockaddr*>(&address), length));
        EXPECT_EQ(0, listen(m_listener, 4));
        EXPECT_EQ(0, getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length));
        m_socket =
            std::make_unique<ZvAtPortSocket>("127.0.0.1", ntohs(address.sin_port), timeoutMs);
    }
    ~AtPeer() {
        m_serial.reset(); // the port closes before its peer
        m_socket.reset();
        Close();
        close(m_listener);
    }
    const char* Name() const { return m_tcp ? "tcp" : "pty"; }
    ZvAtPort& Port() { return m_tcp ? static_cast<ZvAtPort&>(*m_socket) : *m_serial; }
    // Opens the port and, over TCP, accepts its connection (a reopen replaces the old one).
    bool Connect() {
        if (!Port().Open())
            return false;
        if (m_tcp)
            Adopt(accept(m_listener, nullptr, nullptr));
        return Fd() >= 0;
    }
    // What the port wrote, up to count bytes.
    std::string Received(size_t count) const { return Read(count, 3000); }

private:
    bool m_tcp;
    int m_listener = -1;
    std::unique_ptr<ZvAtPortSerial> m_serial;
    std::unique_ptr<ZvAtPortSocket> m_socket;
};
