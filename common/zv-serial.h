// ZvSerial: a raw, blocking serial port on a POSIX terminal: 8 data bits, no parity, 1 stop bit,
// no translation, optional RTS/CTS, and an inter-read time-out.
//
// Threads: Open and SetTotalTimeout are called by the owner while no other thread uses the port.
// An open port also holds an exclusive advisory lock (flock) on the device: a second program
// using the same convention (a second capture, as root, which the terminal's exclusive mode does
// not stop) is refused instead of splitting the stream.
//
// Closing gives the terminal back with the settings it had before Open (speed, raw mode, VMIN and
// VTIME), as the next program on the port expects: a `cat` started after the tool would otherwise
// find VMIN 0 and VTIME 2 and see end-of-file after 0.2 s of quiet.
//
// Read is called by one reader thread; Write may be called from other threads at the same time
// (writes are not serialised here). Close may be called from another thread while a Read is in
// progress: the descriptor is swapped to -1 before it is closed, so later calls fail cleanly; a
// Read already blocked in the system returns at the latest when the time-out passes, or at once
// after InterruptReads.
#pragma once

#include <atomic>
#include <string>
#include <termios.h>

class ZvSerial {
public:
    // Open flag bit: RTS/CTS hardware flow control. Other bits are accepted and ignored.
    static constexpr unsigned kFlagHardwareFlowControl = 2;

    ZvSerial();
    ~ZvSerial();
    ZvSerial(const ZvSerial&) = delete;
    ZvSerial& operator=(const ZvSerial&) = delete;

    // Opens (closing any earlier descriptor), locks and configures the port; false with the system
    // error number kept in GetLastError() on failure, the descriptor then closed. A port locked by
    // another process fails with EWOULDBLOCK before anything on it is changed or flushed.
    bool Open(const char* name, unsigned speed, unsigned flags);
    // VTIME = ms / 100 (deciseconds, truncated, wraps in one byte), VMIN = 0. False when closed.
    bool SetTotalTimeout(unsigned ms);
    // One read of at most size bytes; got is 0 when the time-out passed without data. False when
    // closed or on a read error.
    bool Read(unsigned char* buffer, unsigned size, unsigned& got);
    // Read, telling why nothing came: Data (got > 0); Empty (the time-out passed, or the device
    // has gone: a hung-up terminal returns at once); Interrupted (a signal, or InterruptReads);
    // Failed (closed, or a read error kept in GetLastError()).
    enum class ReadStatus { Data, Empty, Interrupted, Failed };
    ReadStatus ReadOnce(unsigned char* buffer, unsigned size, unsigned& got);
    // One write; true only when the whole count was written. Nothing is retried.
    bool Write(const unsigned char* data, unsigned count);
    // For closing from another thread: a Read or Write waiting in the terminal returns at once,
    // and later ones do not wait. The descriptor is made non-blocking and the terminal's settings
    // are applied again unchanged, which wakes whatever waits in it.
    void InterruptReads();
    void Close();

    // The modem lines (TIOCM_ bits) of a port that has them, such as a USB ACM port, whose DSR
    // tells whether the modem's side of the port is open. False for a port without modem lines
    // (a pseudo-terminal) or when closed.
    bool GetModemLines(int& lines) const;

    bool IsOpen() const { return m_fd.load() != -1; }
    int GetHandle() const { return m_fd.load(); }
    int GetLastError() const { return m_lastError; }

    // Whether another process holds the port open and locked. Opens the port for a moment without
    // changing it; a port that cannot be opened at all is not reported as held.
    static bool IsHeldByAnother(const char* name);
    // Whether two names reach the same port. Links are followed and the device numbers compared,
    // so that a /dev/serial/by-id link and the kernel's name for it are one port, whatever their
    // text. A name that does not exist reaches no port; two such names are taken as one only when
    // they are equal (a node that has gone can be known by its name alone).
    static bool IsSamePort(const char* a, const char* b);
    // The node a name leads to now (its links followed), or the name itself when it cannot be
    // followed (the node has gone).
    static std::string ResolvePortName(const char* name);

    // Why an open failed, as a sentence fragment for messages: the system's text, or plain words
    // for a port held by another program.
    static const char* DescribeOpenError(int error);

    // The terminal speed constant for a speed in bits per second; false when not in the table.
    static bool SpeedToConstant(unsigned speed, speed_t& constant);

private:
    // Closes fd; the terminal's exclusive mode is given up only when this open had set it.
    bool Fail(int fd, bool clearExclusive = true);
    // Gives the terminal its settings from before Open, when this open had read them.
    void RestoreSettings(int fd);

    std::atomic<bool> m_haveSaved;
    termios m_saved;

    std::atomic<int> m_fd;
    std::atomic<int> m_lastError;
};
