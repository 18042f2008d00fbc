// ZvListenAddress: where a TCP server listens. By default a port on every IPv4 address of the
// host; given an address, only there, so that a server can be kept to the loopback interface or
// one network. IPv4 and IPv6 addresses are taken as numbers, never as host names.
#pragma once

#include <sys/socket.h>

#include "zv-string-ascii.h"

class ZvListenAddress {
public:
    ZvListenAddress() = default;
    explicit ZvListenAddress(int port) : m_port(port) {}
    // A host as Parse keeps it (an IPv6 address without brackets); empty for every address.
    ZvListenAddress(const ZvAString& host, int port)
        : m_host(host), m_ipv6(host.find(':') != ZvAString::npos), m_port(port) {}

    // True when `text` is meant as an address with its port rather than a plain port number: it
    // holds a ':', a '.' or a '['.
    static bool IsAddressForm(const char* text);
    // Reads "<IPv4 address>:<port>" or "[<IPv6 address>]:<port>" (the port as a C number, 0 to
    // 65535). False with the reason as a sentence fragment in `reason`; this object is then
    // unchanged.
    bool Parse(const char* text, ZvAString& reason);

    void SetPort(int port) { m_port = port; }
    int Port() const { return m_port; }
    // The address as given, without brackets; empty for every IPv4 address.
    const ZvAString& Host() const { return m_host; }
    // "127.0.0.1:32768", "[::1]:32768", or "*:32768" for every address.
    ZvAString Describe() const;
    // The socket address to bind; its length, 0 when the host is not a valid address.
    socklen_t ToSockaddr(sockaddr_storage& address) const;

private:
    ZvAString m_host;
    bool m_ipv6 = false;
    int m_port = 0;
};
