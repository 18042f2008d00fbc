// The running modem behind Modem: one worker thread steps the logging port's life, the pump that
// writes to it, what the host sends, the faults and the crash, all under one lock.
#pragma once

#include "zsim-crash-mode.h"
#include "zsim-faults.h"
#include "zsim-host-input.h"
#include "zsim-log-port.h"
#include "zsim-pump.h"

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

namespace zsim {

class ModemCore {
public:
    explicit ModemCore(const ModemOptions& options);
    ~ModemCore();
    ModemCore(const ModemCore&) = delete;
    ModemCore& operator=(const ModemCore&) = delete;

    // Opens the files and the ports and starts the worker; false with `error` set.
    bool Start(std::string& error);
    void Stop();
    void Apply(const Control& control);
    bool WaitUntil(Condition condition, unsigned timeoutMs) const;
    void FlushFiles();

    // Reading any of these takes the lock.
    ModemCounters Counters() const;
    std::vector<HostRecord> Records() const;
    Bytes RawReceived() const;
    const std::string& PortPath() const { return port_.LinkPath(); }

    const ModemOptions options;
    const MessageIds ids;
    CrashMode crash;

private:
    void Run();
    void Step(Clock::time_point now, int& timeout, bool& wantWrite);
    void BringUp(Clock::time_point now);
    void FinishHangUp(Clock::time_point now);
    void Crash(Clock::time_point now);
    void OnReset();
    ModemCounters Snapshot() const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::thread worker_;
    WakeEvent wake_;
    Clock::time_point start_;
    ModemCounters counters_;
    LogPort port_;
    Pump pump_;
    HostInput host_;
    Faults faults_;
    FILE* tee_ = nullptr;
    FILE* rx_ = nullptr;
    FILE* transcript_ = nullptr;
    bool stopRequested_ = false;
    bool stopping_ = false;
};

} // namespace zsim
