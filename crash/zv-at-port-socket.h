// ZvAtPortSocket: the AT port over a TCP connection to the modem at a dotted IPv4 address.
#pragma once

#include "zv-at-port.h"
#include "zv-socket.h"

class ZvAtPortSocket : public ZvAtPort {
public:
    ZvAtPortSocket(const char* address, int port, unsigned timeoutMs);
    ~ZvAtPortSocket() { OnClose(); }

    bool OnOpen(unsigned timeoutMs) override;
    void OnClose() override { m_socket.Close(); }
    bool OnIsOpen() override { return m_socket.GetHandle() >= 0; }
    bool OnPortWrite(const unsigned char* data, unsigned length) override;
    bool OnPortReadAll(ZvAString& text) override { return ReadUntilSilent(text); }
    // Waits up to the read time-out for data; a peer that closed the connection is a failure.
    bool OnPortRead(unsigned char* buffer, unsigned size, unsigned& received) override;

private:
    ZvSocket m_socket;
    ZvAString m_address;
    int m_port;
    unsigned m_readTimeoutMs = 0;
};
