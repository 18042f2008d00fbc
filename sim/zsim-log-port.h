// The life of the modem's logging port: up; draining before a hang-up (the host may read what is
// queued, up to drainTimeoutMs); down, and back as a new pty at the same path after downMs unless
// it is to stay away; stopped.
#pragma once

#include "zsim-pty-port.h"
#include "zsim-worker.h"

#include <memory>
#include <string>

namespace zsim {

class LogPort {
public:
    enum class State { Up, Draining, Down, Stopped };

    LogPort(const std::string& linkPath, unsigned drainTimeoutMs)
        : linkPath_(linkPath), drainTimeoutMs_(drainTimeoutMs) {}

    // Creates the pty; on failure tries again 100 ms later.
    bool BringUp(Clock::time_point now, std::string* error = nullptr);
    void BeginDrain(Clock::time_point now, unsigned downMs, bool comeBack);
    // Draining: whether the host has read what was queued (or never will); lowers `timeout`.
    bool Drained(Clock::time_point now, int& timeout);
    // Hangs up; returns the bytes the host never read.
    uint64_t HangUp(Clock::time_point now);
    // Down: whether it is time to come back; lowers `timeout`.
    bool ComeBackDue(Clock::time_point now, int& timeout) const;
    // The port stays away when it is down, or once its hang-up is over.
    void StayAway() { comeBack_ = false; }
    // Down (or about to be): comes back `ms` after now, or after its hang-up.
    void ComeBackAfter(Clock::time_point now, unsigned ms);
    void Close();
    // From the next BringUp on, the port is the gadget's logging tty (zsim-gadget.h).
    void ServeOnGadget(std::shared_ptr<Gadget> gadget) {
        pty_.ServeOnGadget(std::move(gadget), Gadget::Role::Log);
    }

    State GetState() const { return state_; }
    bool Is(State state) const { return state_ == state; }
    // Up or draining: the host may be reading.
    bool Active() const { return state_ == State::Up || state_ == State::Draining; }
    int MasterFd() const { return pty_.MasterFd(); }
    int Unread() const { return pty_.Unread(); }
    Clock::time_point UpSince() const { return upSince_; }
    const std::string& LinkPath() const { return linkPath_; }

private:
    std::string linkPath_;
    unsigned drainTimeoutMs_;
    PtyPort pty_;
    State state_ = State::Down;
    Clock::time_point drainDeadline_, nextHostCheck_, comeBackAt_, upSince_;
    int emptyChecks_ = 0;
    unsigned downMs_ = 0;
    bool comeBack_ = true;
};

} // namespace zsim
