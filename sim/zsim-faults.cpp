#include "zsim-faults.h"

#include <algorithm>

namespace zsim {

Faults::Faults(const FailureOptions& fail, const CrashOptions& crash, Clock::time_point start)
    : fail_(fail), crashAfterBytes_(crash.afterBytes), crashAfterMs_(crash.afterMs), start_(start) {
}

void Faults::RequestHangUp(unsigned downMs, bool comeBack) {
    hangUpRequested_ = true;
    requestedDownMs_ = downMs;
    requestedComeBack_ = comeBack;
}

bool Faults::TakeHangUp(unsigned& downMs, bool& comeBack) {
    if (!hangUpRequested_) {
        return false;
    }
    hangUpRequested_ = false;
    downMs = requestedDownMs_;
    comeBack = requestedComeBack_;
    return true;
}

bool Faults::TakeCrash() {
    bool requested = crashRequested_;
    crashRequested_ = false;
    return requested;
}

namespace {

bool TimeDue(unsigned afterMs, bool& fired, Clock::time_point from, Clock::time_point now,
             int& timeout) {
    if (!afterMs || fired) {
        return false;
    }
    auto due = from + std::chrono::milliseconds(afterMs);
    if (now >= due) {
        fired = true;
        return true;
    }
    timeout = std::min(timeout, MsUntil(now, due));
    return false;
}

// A byte trigger at `limit` with `done` bytes out: due now, or `want` cut to what is left.
bool BytesDue(uint64_t limit, bool& fired, uint64_t done, size_t& want) {
    uint64_t left = limit - std::min(done, limit);
    if (left == 0) {
        fired = true;
        return true;
    }
    want = static_cast<size_t>(std::min<uint64_t>(want, left));
    return false;
}

} // namespace

bool Faults::CrashTimeDue(Clock::time_point now, int& timeout) {
    return TimeDue(crashAfterMs_, crashMsFired_, start_, now, timeout);
}

bool Faults::FailTimeDue(Clock::time_point now, Clock::time_point portUp, int& timeout) {
    return TimeDue(fail_.afterMs, failMsFired_, portUp, now, timeout);
}

Faults::Due Faults::BeforeWrite(bool stream, uint64_t streamBytes, uint64_t sentThisPort,
                                size_t& want) {
    // The crash counts stream bytes only; the port failure every byte on this port.
    if (crashAfterBytes_ && !crashBytesFired_ && stream &&
        BytesDue(crashAfterBytes_, crashBytesFired_, streamBytes, want)) {
        return Due::Crash;
    }
    if (fail_.afterBytes && !failBytesFired_ &&
        BytesDue(fail_.afterBytes, failBytesFired_, sentThisPort, want)) {
        return Due::PortFailure;
    }
    return Due::None;
}

Faults::Due Faults::AfterWrites(uint64_t streamBytes, uint64_t sentThisPort) {
    if (crashAfterBytes_ && !crashBytesFired_ && streamBytes >= crashAfterBytes_) {
        crashBytesFired_ = true;
        return Due::Crash;
    }
    if (fail_.afterBytes && !failBytesFired_ && sentThisPort >= fail_.afterBytes) {
        failBytesFired_ = true;
        return Due::PortFailure;
    }
    return Due::None;
}

} // namespace zsim
