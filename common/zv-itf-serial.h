// The asynchronous serial interface: a read thread hands every received block to a receive
// handler and reports a dead port once; callers send from any thread.
//
// Threads:
// - OnOpen, OnClose and the setters are called by the owning (controlling) thread. OnClose may
//   also be called from inside a handler on the read thread; it then does not wait for itself,
//   and the read thread ends when the handler returns.
// - The read thread is the only caller of the handler (OnRxData, OnRxFail) and of the port's Read.
//   It waits in the read itself, as long as the terminal's time-out (VTIME), so a block costs one
//   system call however busy or quiet the port is. A handler must return quickly: nothing is read
//   while it runs.
// - OnClose from the owner clears the reading flag and wakes the reader (ZvSerial::
//   InterruptReads), which ends without waiting for its time-out. A block being handled is finished
//   first: OnClose waits up to 200 ms for the reader, terminates it only when that wait fails (a
//   handler that does not return: its block may be cut short and its locks stay held), and closes
//   the port last, so the reader never reads from a closed or reused descriptor.
// - Send may be called from any thread, concurrently with reading; concurrent Sends are not
//   serialised here.
// - The byte totals are each written by one thread (received: the read thread; sent: the sender)
//   and may be read from any thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "zv-serial.h"
#include "zv-string-ascii.h"
#include "zv-thread.h"

// Receives the data of an asynchronous interface, on its read thread.
class ZvItfAsyncRxHandlers {
public:
    // A block of received bytes, valid only during the call.
    virtual void OnRxData(unsigned int count, unsigned char* data) = 0;
    // The port has failed; called at most once per open, after which the read thread ends.
    virtual void OnRxFail() = 0;
    // The modem's side of the port has just opened (its DSR rose), while the owner watches for
    // it (ZvItfAsyncSerial::WatchPeerReady). Called on the read thread.
    virtual void OnRxPeerReady() {}

protected:
    ~ZvItfAsyncRxHandlers() = default;
};

class ZvItfAsyncBase {
public:
    ZvItfAsyncBase() = default;
    ZvItfAsyncBase(const ZvItfAsyncBase&) = delete;
    ZvItfAsyncBase& operator=(const ZvItfAsyncBase&) = delete;

    virtual bool OnOpen() = 0;
    virtual void OnClose() = 0;
    virtual bool IsOpen() = 0;
    // Writes synchronously and whole on the caller's thread; the result may be ignored (failures
    // are silent for the interface's users).
    virtual bool Send(unsigned int count, unsigned char* data) = 0;
    virtual const char* GetTypeString() const = 0;

    // The handler is not owned; set it while closed.
    void SetRxHandler(ZvItfAsyncRxHandlers* handler) { m_rxHandler = handler; }
    ZvItfAsyncRxHandlers* GetRxHandler() const { return m_rxHandler; }

    // Running totals, never reset by open or close; only ResetByteCounts zeroes them.
    uint64_t GetBytesReceived() const { return m_bytesReceived.load(std::memory_order_relaxed); }
    uint64_t GetBytesSent() const { return m_bytesSent.load(std::memory_order_relaxed); }
    void ResetByteCounts() {
        m_bytesReceived.store(0, std::memory_order_relaxed);
        m_bytesSent.store(0, std::memory_order_relaxed);
    }
    bool IsReading() const { return m_reading; }

protected:
    ~ZvItfAsyncBase() = default;

    ZvItfAsyncRxHandlers* m_rxHandler = nullptr;
    std::atomic<uint64_t> m_bytesReceived{0};
    std::atomic<uint64_t> m_bytesSent{0};
    std::atomic<bool> m_reading{false};
};

class ZvItfAsyncSerial : public ZvItfAsyncBase {
public:
    static constexpr unsigned kDefaultSpeed = 115200;
    static constexpr unsigned kDefaultOpenFlags = 5;
    static constexpr unsigned kDefaultTotalTimeoutMs = 200;
    // Size of the read thread's stack buffer: the largest block handed to OnRxData.
    static constexpr unsigned kReadBlockSize = 20000;

    ZvItfAsyncSerial();
    // Closes the interface and the port.
    ~ZvItfAsyncSerial();

    // Opens and configures the port (open, time-out, re-open, time-out) and starts the read
    // thread; true on success, else the interface is closed again. An interface still reading is
    // closed first; without a receive handler nothing is opened.
    bool OnOpen() override;
    // Stops reading and closes the port; nothing is done when not reading.
    void OnClose() override;
    bool IsOpen() override { return m_port.IsOpen(); }
    bool Send(unsigned int count, unsigned char* data) override;
    const char* GetTypeString() const override { return "serial"; }

    void SetPortName(const char* name) { m_portName = name; }
    const ZvAString& GetPortName() const { return m_portName; }
    void SetSpeed(unsigned speed) { m_speed = speed; }
    unsigned GetSpeed() const { return m_speed; }
    void SetOpenFlags(unsigned flags) { m_openFlags = flags; }
    unsigned GetOpenFlags() const { return m_openFlags; }
    void SetTotalTimeout(unsigned ms) { m_totalTimeoutMs = ms; }
    unsigned GetTotalTimeout() const { return m_totalTimeoutMs; }

    // The port's modem lines; false for a port without them (a pseudo-terminal).
    bool GetModemLines(int& lines) const { return m_port.GetModemLines(lines); }
    // A USB ACM port reports through DSR whether the modem's side of the port is open; a modem
    // that opens its side after the host's has missed whatever the host sent before. From this call
    // until the port closes, the read thread looks at DSR about every 200 ms and calls the
    // handler's OnRxPeerReady each time it rises. `readyNow` is the state the caller last acted
    // on, so that a rise just before the call is not lost and an old one not repeated.
    void WatchPeerReady(bool readyNow);

    // The system error number of the port's last failure (after a failed OnOpen).
    int GetLastError() const { return m_port.GetLastError(); }
    int GetHandle() const { return m_port.GetHandle(); }
    // How often OnClose had to terminate a read thread whose handler did not return in time.
    unsigned GetReadThreadTerminations() const { return m_readThreadTerminations; }

private:
    static void ReadThreadFunc(ZvThread* thread, void* self);
    void ReadLoop();
    // While watched: tells the handler when DSR has risen since the last look.
    void CheckPeerReady();

    ZvSerial m_port;
    ZvAString m_portName;
    unsigned m_speed = kDefaultSpeed;
    unsigned m_openFlags = kDefaultOpenFlags;
    unsigned m_totalTimeoutMs = kDefaultTotalTimeoutMs;
    ZvThread m_readThread;
    std::atomic<unsigned> m_readThreadTerminations{0};
    std::atomic<bool> m_watchPeer{false};
    std::atomic<bool> m_peerReady{false};
    unsigned m_lastPeerCheckTick = 0; // read thread only
};
