// The modem's end of an AT port in the crash tests, driven byte by byte by the test: a real
// pseudo-terminal (the port opens the slave) or a real loopback TCP listener (the port connects).
#pragma once

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <memory>
#include <netinet/in.h>
#include <pty.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "zavra_test_net.h"
#include "zv-at-port-socket.h"
#include "zv-at-port.h"

class AtPeer {
public:
    virtual ~AtPeer() = default;
    virtual ZvAtPort& Port() = 0;
    // Opens the port and, over TCP, accepts its connection.
    virtual bool Connect() = 0;
    // Writes literal reply bytes to the port.
    virtual void Send(const std::string& bytes) = 0;
    // The modem's end goes away.
    virtual void HangUp() = 0;
    // What the port wrote, up to count bytes.
    std::string Received(size_t count, int timeoutMs = 3000) {
        return zavra_test::ReadExactly(m_fd, count, timeoutMs);
    }

protected:
    int m_fd = -1;
};

// Only the master stays open here: the port takes the terminal exclusively.
class PtyPeer : public AtPeer {
public:
    explicit PtyPeer(unsigned timeoutMs) {
        int slave = -1;
        char name[128] = "";
        EXPECT_EQ(0, openpty(&m_fd, &slave, name, nullptr, nullptr));
        close(slave);
        m_port = std::make_unique<ZvAtPortSerial>(name, timeoutMs);
    }
    ~PtyPeer() override {
        m_port.reset();
        HangUp();
    }
    ZvAtPort& Port() override { return *m_port; }
    bool Connect() override { return m_port->Open(); }
    void Send(const std::string& bytes) override {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(m_fd, bytes.data(), bytes.size()));
    }
    void HangUp() override {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = -1;
    }

private:
    std::unique_ptr<ZvAtPortSerial> m_port;
};

class TcpPeer : public AtPeer {
public:
    explicit TcpPeer(unsigned timeoutMs) {
        m_listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(0, bind(m_listener, reinterpret_cast<sockaddr*>(&address), length));
        EXPECT_EQ(0, listen(m_listener, 4));
        EXPECT_EQ(0, getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length));
        m_portNumber = ntohs(address.sin_port);
        m_port = std::make_unique<ZvAtPortSocket>("127.0.0.1", m_portNumber, timeoutMs);
    }
    ~TcpPeer() override {
        m_port.reset();
        HangUp();
        close(m_listener);
    }
    ZvAtPort& Port() override { return *m_port; }
    bool Connect() override {
        if (!m_port->Open())
            return false;
        HangUp();
        m_fd = accept(m_listener, nullptr, nullptr);
        return m_fd >= 0;
    }
    void Send(const std::string& bytes) override { ASSERT_TRUE(zavra_test::WriteAll(m_fd, bytes)); }
    void HangUp() override {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = -1;
    }
    int Fd() const { return m_fd; }
    int PortNumber() const { return m_portNumber; }

private:
    int m_listener = -1;
    int m_portNumber = 0;
    std::unique_ptr<ZvAtPortSocket> m_port;
};

enum class Transport { Pty, Tcp };

inline std::unique_ptr<AtPeer> MakePeer(Transport transport, unsigned timeoutMs) {
    if (transport == Transport::Pty)
        return std::make_unique<PtyPeer>(timeoutMs);
    return std::make_unique<TcpPeer>(timeoutMs);
}

inline const char* TransportName(Transport transport) {
    return transport == Transport::Pty ? "pty" : "tcp";
}
