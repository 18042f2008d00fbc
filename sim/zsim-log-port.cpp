#include "zsim-log-port.h"

#include <algorithm>

namespace zsim {

bool LogPort::BringUp(Clock::time_point now, std::string* error) {
    if (!pty_.Open(linkPath_, error)) {
        comeBackAt_ = now + std::chrono::milliseconds(100);
        return false;
    }
    state_ = State::Up;
    upSince_ = now;
    return true;
}

void LogPort::BeginDrain(Clock::time_point now, unsigned downMs, bool comeBack) {
    state_ = State::Draining;
    downMs_ = downMs;
    comeBack_ = comeBack;
    emptyChecks_ = 0;
    drainDeadline_ = now + std::chrono::milliseconds(drainTimeoutMs_);
    nextHostCheck_ = now + std::chrono::milliseconds(20);
}

bool LogPort::Drained(Clock::time_point now, int& timeout) {
    emptyChecks_ = pty_.Unread() == 0 ? emptyChecks_ + 1 : 0;
    bool done = emptyChecks_ >= 3 || now >= drainDeadline_;
    if (!done && now >= nextHostCheck_) {
        // Nobody has the port open: what is queued will never be read.
        nextHostCheck_ = now + std::chrono::milliseconds(50);
        done = !pty_.HostHasOpen();
    }
    if (!done) {
        timeout = std::min(timeout, 5);
    }
    return done;
}

uint64_t LogPort::HangUp(Clock::time_point now) {
    uint64_t discarded = pty_.HangUp();
    state_ = State::Down;
    comeBackAt_ = now + std::chrono::milliseconds(downMs_);
    return discarded;
}

bool LogPort::ComeBackDue(Clock::time_point now, int& timeout) const {
    if (!comeBack_) {
        return false;
    }
    if (now >= comeBackAt_) {
        return true;
    }
    timeout = std::min(timeout, MsUntil(now, comeBackAt_));
    return false;
}

void LogPort::ComeBackAfter(Clock::time_point now, unsigned ms) {
    comeBack_ = true;
    if (state_ == State::Draining) {
        downMs_ = ms;
    } else {
        comeBackAt_ = now + std::chrono::milliseconds(ms);
    }
}

void LogPort::Close() {
    pty_.Close();
    state_ = State::Stopped;
}

} // namespace zsim
