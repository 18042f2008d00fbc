// The modem's faults on its logging port: a port failure (a hang-up) on request or by trigger, and
// the crash on request or by trigger. Triggers fire once per Start: the port failure after N bytes
// on the port or T ms after the port came up (FailureOptions), the crash after N stream bytes or
// T ms after the start (CrashOptions). Byte triggers fall exactly between two writes.
#pragma once

#include "zsim-options.h"
#include "zsim-worker.h"

#include <cstddef>

namespace zsim {

class Faults {
public:
    enum class Due { None, Crash, PortFailure };

    Faults(const FailureOptions& fail, const CrashOptions& crash, Clock::time_point start);

    // On request, taken by the worker's next step.
    void RequestHangUp(unsigned downMs, bool comeBack);
    void RequestCrash() { crashRequested_ = true; }
    bool TakeHangUp(unsigned& downMs, bool& comeBack);
    bool TakeCrash();

    // The timed triggers; each lowers `timeout` to the time it is due.
    bool CrashTimeDue(Clock::time_point now, int& timeout);
    bool FailTimeDue(Clock::time_point now, Clock::time_point portUp, int& timeout);
    // Before writing `want` bytes of a stream (or other) chunk: cuts `want` short of the next
    // byte trigger, or says which one is due now.
    Due BeforeWrite(bool stream, uint64_t streamBytes, uint64_t sentThisPort, size_t& want);
    // After a full round of writes: a trigger that the round reached.
    Due AfterWrites(uint64_t streamBytes, uint64_t sentThisPort);

    const FailureOptions& Failure() const { return fail_; }

private:
    FailureOptions fail_;
    uint64_t crashAfterBytes_;
    unsigned crashAfterMs_;
    Clock::time_point start_;
    bool hangUpRequested_ = false;
    unsigned requestedDownMs_ = 0;
    bool requestedComeBack_ = true;
    bool crashRequested_ = false;
    bool failBytesFired_ = false;
    bool failMsFired_ = false;
    bool crashBytesFired_ = false;
    bool crashMsFired_ = false;
};

} // namespace zsim
