// The modem's AT command port: a pseudo-terminal under a stable link and, on request, a loopback
// TCP port serving the same dialogue, one client at a time. One worker thread answers both.
// Before a crash the port is in modem mode; the crash takes it away, and it comes back in loader
// mode to serve the crash data (core dump, crash information, crash log) until the host sets the
// modem mode again or resets the modem.
#pragma once

#include "zsim-at-dialogue.h"
#include "zsim-at-link.h"
#include "zsim-crash.h"
#include "zsim-pty-port.h"
#include "zsim-wire.h"
#include "zsim-worker.h"

#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zsim {

class AtServer {
public:
    enum class Mode { Modem = 0, Loader = 1, Away = 2 };

    struct Setup {
        CrashOptions crash;
        std::string linkPath;       // where the pty is published (when crash.atPort)
        FILE* transcript = nullptr; // one JSON line per command; not owned
        std::chrono::steady_clock::time_point startTime;
        std::function<void()> onBack;   // the modem is back in modem mode after a crash
        std::shared_ptr<Gadget> gadget; // set: the AT pty is served on this USB gadget
    };

    AtServer() = default;
    ~AtServer(); // Stop()
    AtServer(const AtServer&) = delete;
    AtServer& operator=(const AtServer&) = delete;

    // Reads the crash information file (if any), opens the ports and starts the worker.
    bool Start(const Setup& setup, std::string& error);
    void Stop();

    // The crash: both ports go away now; ReturnInLoader brings them back after `ms`.
    void GoAway();
    void ReturnInLoader(unsigned ms);

    void SetFault(CrashFault fault);
    CrashFault Fault() const;
    int SocketPort() const { return socketPort_; }
    std::vector<std::string> Commands() const;
    Mode GetMode() const;
    Bytes CrashInfoText() const;
    Bytes CrashLogText() const;

private:
    void Run();
    int Step(std::chrono::steady_clock::time_point now, bool& callBack);
    void OpenPorts(std::string* error);
    void ClosePorts();
    bool Listen(std::string* error);
    void Accept();
    void TakeCommand(AtLink& link, const std::string& command);
    void Answer(AtLink& link, const std::string& lower);

    Setup setup_;
    std::string crashInfo_;
    std::string crashLog_;
    int socketPort_ = 0;

    mutable std::mutex mutex_;
    std::thread worker_;
    WakeEvent wake_; // signalled under the lock, so that Stop cannot close it meanwhile
    bool stopRequested_ = false;

    CrashFault fault_ = CrashFault::None;
    Mode mode_ = Mode::Modem;
    bool returnPending_ = false;
    bool backPending_ = false; // the logging port may come back (fault ModemMode)
    std::chrono::steady_clock::time_point returnAt_;
    PtyPort pty_;
    AtLink ptyLink_;
    int listenFd_ = -1;
    AtLink client_{true};
    std::vector<std::string> commands_;
};

} // namespace zsim
