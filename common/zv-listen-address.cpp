#include "zv-listen-address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

const char kForms[] = "expected <IPv4 address>:<port> or [<IPv6 address>]:<port>";

// A port number as the rest of the option reads it (a C number), wholly used and in range.
bool ParsePort(const ZvAString& text, int& port) {
    if (text.empty() || text[0] == '-' || text[0] == '+')
        return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(text.c_str(), &end, 0);
    if (errno != 0 || end == nullptr || *end != 0 || value > 65535)
        return false;
    port = static_cast<int>(value);
    return true;
}

} // namespace

bool ZvListenAddress::IsAddressForm(const char* text) {
    return text != nullptr && strpbrk(text, ":.[") != nullptr;
}

bool ZvListenAddress::Parse(const char* text, ZvAString& reason) {
    const ZvAString whole(text != nullptr ? text : "");
    ZvAString host, port;
    const bool ipv6 = !whole.empty() && whole[0] == '[';
    const size_t separator = ipv6 ? whole.find("]:") : whole.rfind(':');
    if (separator == ZvAString::npos || (ipv6 && whole.find(']') != separator)) {
        reason = kForms;
        return false;
    }
    host = ipv6 ? whole.substr(1, separator - 1) : whole.substr(0, separator);
    port = whole.substr(separator + (ipv6 ? 2 : 1));
    unsigned char binary[sizeof(in6_addr)];
    if (host.empty()) {
        reason = kForms;
        return false;
    }
    if (!ipv6 && host.find(':') != ZvAString::npos) {
        reason = "an IPv6 address goes in brackets: [<IPv6 address>]:<port>";
        return false;
    }
    if (inet_pton(ipv6 ? AF_INET6 : AF_INET, host.c_str(), binary) != 1) {
        reason.Printf("'%s' is not an %s address", host.c_str(), ipv6 ? "IPv6" : "IPv4");
        return false;
    }
    int number = 0;
    if (port.empty()) {
        reason = "the port number is missing after the address";
        return false;
    }
    if (!ParsePort(port, number)) {
        reason.Printf("'%s' is not a port number (0 to 65535)", port.c_str());
        return false;
    }
    m_host = host;
    m_ipv6 = ipv6;
    m_port = number;
    return true;
}

ZvAString ZvListenAddress::Describe() const {
    ZvAString text;
    if (m_host.empty())
        text.Printf("*:%d", m_port);
    else
        text.Printf(m_ipv6 ? "[%s]:%d" : "%s:%d", m_host.c_str(), m_port);
    return text;
}

socklen_t ZvListenAddress::ToSockaddr(sockaddr_storage& address) const {
    memset(&address, 0, sizeof(address));
    const uint16_t port = htons(static_cast<uint16_t>(m_port));
    if (m_ipv6) {
        sockaddr_in6& v6 = reinterpret_cast<sockaddr_in6&>(address);
        v6.sin6_family = AF_INET6;
        v6.sin6_port = port;
        return inet_pton(AF_INET6, m_host.c_str(), &v6.sin6_addr) == 1 ? sizeof(v6) : 0;
    }
    sockaddr_in& v4 = reinterpret_cast<sockaddr_in&>(address);
    v4.sin_family = AF_INET;
    v4.sin_port = port;
    if (m_host.empty()) {
        v4.sin_addr.s_addr = htonl(INADDR_ANY);
        return sizeof(v4);
    }
    return inet_pton(AF_INET, m_host.c_str(), &v4.sin_addr) == 1 ? sizeof(v4) : 0;
}
