// What the modem writes to its logging port: first whatever is queued (injected bytes, database
// answers), then the generated log stream while the channel is open, at the configured rate and
// up to the stream's byte limit. Every byte written is counted and copied to the tee file.
#pragma once

#include "zsim-control.h"
#include "zsim-faults.h"
#include "zsim-generator.h"
#include "zsim-worker.h"

#include <cstdio>
#include <deque>

namespace zsim {

class Pump {
public:
    Pump(const GeneratorOptions& options, const MessageIds& ids, ModemCounters& counters);

    // Writes what may go out now on `fd`, stopping short of a byte trigger; returns the trigger
    // due. `full` tells whether the pty is full with more to send.
    Faults::Due Write(int fd, Clock::time_point now, int& timeout, Faults& faults, bool& full);
    // A new port: rate and pauses count from now.
    void Restart(Clock::time_point now);
    // The modem restarts: whatever it was about to say is gone. Returns how many bytes that was.
    uint64_t Drop();

    std::deque<Chunk>& Queue() { return queue_; }
    Generator& Stream() { return generator_; }
    void SetStreamOn(bool on) { streamOn_ = on; }
    void SetRate(uint64_t bytesPerSecond) { rate_ = bytesPerSecond; }
    void SetTee(FILE* tee) { tee_ = tee; }
    uint64_t SentThisPort() const { return sentThisPort_; }

private:
    bool NextChunk(Clock::time_point now, int& timeout);
    // Cuts `want` to the stream's byte limit; false when the limit is reached.
    bool WithinLimit(size_t& want);
    // Cuts `want` to the rate; false (with `timeout` set) when it must wait.
    bool WithinRate(Clock::time_point now, int& timeout, size_t& want);
    void Account(size_t count);

    GeneratorOptions options_;
    ModemCounters& counters_;
    Generator generator_;
    std::deque<Chunk> queue_; // injected bytes and database answers go before generated ones
    Chunk current_;
    bool haveCurrent_ = false;
    bool streamOn_ = true;
    uint64_t rate_;
    double tokens_ = 0;
    Clock::time_point lastRefill_, lastChunkEnd_;
    uint64_t sentThisPort_ = 0;
    FILE* tee_ = nullptr;
};

} // namespace zsim
