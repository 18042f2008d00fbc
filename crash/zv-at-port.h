// ZvAtPort: the command channel to the modem's AT interface. It sends one AT command at a time and
// collects the reply as text lines; the transports (a serial tty, a TCP connection) only move
// bytes. Failures are booleans with a message left in errorText.
//
// Threads: a port is used by one thread at a time; it has no locks.
#pragma once

#include "zv-serial.h"
#include "zv-string-ascii.h"
#include "zv-string-list-ascii.h"

class ZvAtPort {
public:
    // Opens the transport, closing it first so that a second Open reopens.
    bool Open();
    // Writes the command's bytes up to its NUL; nothing is appended (callers pass the "\r").
    // The reply is left for the caller to read.
    bool SendAtCommand(const char* command);
    // Writes the command and collects its reply into lines.
    bool SendAtCommand(const char* command, ZvAStringList& lines);
    // Collects one reply (it ends when the target stays silent for one time-out) and cuts it into
    // lines: CR LF, a lone CR and a lone LF each end one line; empty lines are kept.
    bool GetResponse(ZvAStringList& lines);
    // True when some line is exactly "OK".
    static bool IsAtResponseOk(const ZvAStringList& lines);
    // The command was written, a reply came and it held an "OK" line; the lines are dropped.
    bool SendAtCommandOk(const char* command);

    virtual bool OnOpen(unsigned timeoutMs) = 0;
    virtual void OnClose() = 0;
    virtual bool OnIsOpen() = 0;
    virtual bool OnPortWrite(const unsigned char* data, unsigned length) = 0;
    // Appends everything the target sends until it falls silent. A read failure still returns
    // true: it shows only as errorText and a short reply.
    virtual bool OnPortReadAll(ZvAString& text) = 0;
    // One read of at most size bytes; received 0 with true means a time-out of silence.
    virtual bool OnPortRead(unsigned char* buffer, unsigned size, unsigned& received) = 0;

    ZvAString errorText;

protected:
    explicit ZvAtPort(unsigned timeoutMs) : m_timeoutMs(timeoutMs) {}
    // Ports are created and destroyed as their concrete type, never through this class.
    ~ZvAtPort() = default;
    ZvAtPort(const ZvAtPort&) = delete;
    ZvAtPort& operator=(const ZvAtPort&) = delete;

    // The reading loop both transports share: 5000-byte reads through OnPortRead until one comes
    // back empty.
    bool ReadUntilSilent(ZvAString& text);

    unsigned m_timeoutMs;
};

// The AT port on a serial device node: 115200 baud, raw, the time-out as the total read time-out.
class ZvAtPortSerial : public ZvAtPort {
public:
    ZvAtPortSerial(const char* portName, unsigned timeoutMs);
    ~ZvAtPortSerial() { OnClose(); }

    void SetPortName(const char* portName) { m_portName = portName; }
    const ZvAString& GetPortName() const { return m_portName; }

    bool OnOpen(unsigned timeoutMs) override;
    void OnClose() override { m_serial.Close(); }
    bool OnIsOpen() override { return m_serial.GetHandle() != -1; }
    bool OnPortWrite(const unsigned char* data, unsigned length) override;
    bool OnPortReadAll(ZvAString& text) override { return ReadUntilSilent(text); }
    bool OnPortRead(unsigned char* buffer, unsigned size, unsigned& received) override;

private:
    ZvSerial m_serial;
    ZvAString m_portName;
};
