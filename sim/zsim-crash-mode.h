// The crash as the logging port lives it (see zsim-crash.h): the port drains, hangs up and stays
// away; the AT port goes away at once and comes back in the loader once the logging port has hung
// up; when the host resets the modem through the AT port, the logging port comes back as a new
// connection. Also what the crashed modem serves, for tests to compare with what the host got.
#pragma once

#include "zsim-at-server.h"
#include "zsim-control.h"
#include "zsim-log-port.h"
#include "zsim-worker.h"

#include <functional>
#include <memory>

namespace zsim {

class CrashMode {
public:
    explicit CrashMode(const CrashOptions& options) : options_(options) {}

    // Starts the AT port when the options ask for one (on the gadget's AT tty when `gadget` is
    // set); `onBack` runs when the host has reset the modem, on the AT server's thread.
    bool Start(const std::string& linkPath, FILE* transcript, Clock::time_point start,
               std::function<void()> onBack, std::shared_ptr<Gadget> gadget, std::string& error);
    void Stop();

    // Crashes now, unless the modem is still crashed.
    void Fire(Clock::time_point now, LogPort& port, ModemCounters& counters);
    // The logging port has hung up: the AT port returns in the loader if a crash is waiting
    // for that.
    void OnHungUp();
    // The host reset the modem: a crashed one brings its logging port back after resetDownMs, as
    // a new connection.
    void Reset(Clock::time_point now, LogPort& port, ModemCounters& counters, bool stopping);

    void SetFault(CrashFault fault);
    int AtMode() const; // as in ModemCounters::atMode
    int SocketPort() const { return at_ ? at_->SocketPort() : 0; }
    std::vector<std::string> AtCommands() const;
    Bytes CoreDumpImage() const;
    Bytes CrashInfoText() const;
    Bytes CrashLogText() const;

private:
    void ReturnAtPort();

    CrashOptions options_;
    std::unique_ptr<AtServer> at_;
    bool returnAfterHangUp_ = false;
};

} // namespace zsim
