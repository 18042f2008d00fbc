// What the simulator's worker threads share: the clock, the poll time-outs they derive from it,
// and the event by which other threads wake a worker from its poll.
#pragma once

#include <chrono>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace zsim {

using Clock = std::chrono::steady_clock;

// Milliseconds from now until then, rounded up, as a poll time-out of at most a second.
inline int MsUntil(Clock::time_point now, Clock::time_point then) {
    if (then <= now) {
        return 0;
    }
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(then - now).count() + 1;
    return ms > 1000 ? 1000 : static_cast<int>(ms);
}

// An eventfd the worker polls beside its ports.
class WakeEvent {
public:
    ~WakeEvent() { Close(); }
    bool Open() {
        fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        return fd_ >= 0;
    }
    void Close() {
        if (fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    int Fd() const { return fd_; }
    void Signal() const {
        uint64_t one = 1;
        if (fd_ >= 0 && write(fd_, &one, sizeof one) < 0) {
            // The counter only fails when full, and then the worker is awake anyway.
        }
    }
    // Called by the worker when its poll saw the event.
    void Clear() const {
        uint64_t value;
        if (read(fd_, &value, sizeof value) < 0) {
            // Nothing to do: the wake-up has been seen either way.
        }
    }

private:
    int fd_ = -1;
};

} // namespace zsim
