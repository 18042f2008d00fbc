#include "zv-at-port.h"

#include <cstring>

namespace {

constexpr unsigned kReplyChunkSize = 5000;
constexpr unsigned kSerialSpeed = 115200;
constexpr unsigned kSerialOpenFlags = 1; // no hardware flow control

// Cuts a reply into lines. After a line, one CR and then one LF are skipped, so CR LF, CR and LF
// each end one line while LF CR ends two.
void CutLines(const ZvAString& text, ZvAStringList& lines) {
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find_first_of("\r\n", pos);
        if (end == ZvAString::npos)
            end = text.size();
        lines.Add(text.substr(pos, end - pos));
        pos = end;
        if (pos < text.size() && text[pos] == '\r')
            ++pos;
        if (pos < text.size() && text[pos] == '\n')
            ++pos;
    }
}

} // namespace

bool ZvAtPort::Open() {
    OnClose();
    errorText.clear();
    return OnOpen(m_timeoutMs);
}

bool ZvAtPort::SendAtCommand(const char* command) {
    errorText.clear();
    if (command == nullptr)
        command = "";
    return OnPortWrite(reinterpret_cast<const unsigned char*>(command),
                       static_cast<unsigned>(strlen(command)));
}

bool ZvAtPort::SendAtCommand(const char* command, ZvAStringList& lines) {
    if (!SendAtCommand(command)) {
        // The transport's detailed message gives way to the plain one callers report.
        errorText = "Failed to write to AT port.";
        lines.Clear();
        return false;
    }
    return GetResponse(lines);
}

bool ZvAtPort::GetResponse(ZvAStringList& lines) {
    errorText.clear();
    lines.Clear();
    ZvAString reply;
    const bool readOk = OnPortReadAll(reply);
    if (reply.empty()) {
        if (readOk && errorText.empty())
            errorText = "No response received on AT port.";
        return false;
    }
    CutLines(reply, lines);
    if (lines.Empty()) {
        errorText = "No response received on AT port.";
        return false;
    }
    return true;
}

bool ZvAtPort::IsAtResponseOk(const ZvAStringList& lines) {
    for (unsigned i = 0; i < lines.Count(); ++i) {
        if (lines[i] == "OK")
            return true;
    }
    return false;
}

bool ZvAtPort::SendAtCommandOk(const char* command) {
    ZvAStringList lines;
    if (!SendAtCommand(command, lines))
        return false;
    if (!IsAtResponseOk(lines)) {
        errorText = "AT command failed.";
        return false;
    }
    return true;
}

bool ZvAtPort::ReadUntilSilent(ZvAString& text) {
    unsigned char chunk[kReplyChunkSize + 1];
    for (;;) {
        unsigned received = 0;
        if (!OnPortRead(chunk, kReplyChunkSize, received)) {
            errorText = "Failed to read from AT port.";
            return true;
        }
        if (received == 0)
            return true;
        // Appended as a C string: a NUL inside the chunk cuts off the rest of that chunk.
        chunk[received] = 0;
        text += reinterpret_cast<const char*>(chunk);
    }
}

ZvAtPortSerial::ZvAtPortSerial(const char* portName, unsigned timeoutMs)
    : ZvAtPort(timeoutMs), m_portName(portName) {}

bool ZvAtPortSerial::OnOpen(unsigned timeoutMs) {
    if (m_portName.empty()) {
        errorText = "Serial port name not configured.";
        return false;
    }
    if (!m_serial.Open(m_portName.c_str(), kSerialSpeed, kSerialOpenFlags)) {
        errorText.Printf("Failed to open AT port (%d).", m_serial.GetLastError());
        return false;
    }
    if (!m_serial.SetTotalTimeout(timeoutMs)) {
        errorText.Printf("Failed to configure AT port (%d).", m_serial.GetLastError());
        return false;
    }
    return true;
}

bool ZvAtPortSerial::OnPortWrite(const unsigned char* data, unsigned length) {
    if (!m_serial.Write(data, length)) {
        errorText.Printf("Failed to write to AT port (error = %d).", m_serial.GetLastError());
        return false;
    }
    return true;
}

bool ZvAtPortSerial::OnPortRead(unsigned char* buffer, unsigned size, unsigned& received) {
    return m_serial.Read(buffer, size, received);
}
