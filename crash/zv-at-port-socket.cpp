#include "zv-at-port-socket.h"

#include <arpa/inet.h>

ZvAtPortSocket::ZvAtPortSocket(const char* address, int port, unsigned timeoutMs)
    : ZvAtPort(timeoutMs), m_address(address), m_port(port) {}

bool ZvAtPortSocket::OnOpen(unsigned timeoutMs) {
    if (m_address.empty() || m_port == 0) {
        errorText = "Socket AT port name not configured.";
        return false;
    }
    if (!m_socket.OpenClient(m_port, inet_addr(m_address.c_str()), 0, 0)) {
        errorText = "Failed to open socket AT port.";
        return false;
    }
    m_readTimeoutMs = timeoutMs;
    return true;
}

bool ZvAtPortSocket::OnPortWrite(const unsigned char* data, unsigned length) {
    if (m_socket.Write(data, length) != static_cast<int>(length)) {
        errorText = "Failed to write to AT port.";
        return false;
    }
    return true;
}

bool ZvAtPortSocket::OnPortRead(unsigned char* buffer, unsigned size, unsigned& received) {
    received = 0;
    const int ready = m_socket.Wait(ZvSocket::kWaitRead, m_readTimeoutMs);
    if (ready < 0)
        return false;
    if (ready == 0)
        return true;
    const int got = m_socket.Read(buffer, size);
    if (got <= 0)
        return false;
    received = static_cast<unsigned>(got);
    return true;
}
