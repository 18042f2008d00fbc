#include "zsim-control.h"

namespace zsim {

using Clock = std::chrono::steady_clock;

namespace {

Control Make(Control::Kind kind, uint64_t count = 0, bool on = true) {
    Control control;
    control.kind = kind;
    control.count = count;
    control.on = on;
    return control;
}

} // namespace

Control Control::HangUp(unsigned downMs, bool comeBack) {
    return Make(Kind::HangUp, downMs, comeBack);
}

Control Control::Crash() {
    return Make(Kind::Crash);
}

Control Control::Inject(const Bytes& bytes) {
    Control control = Make(Kind::Inject);
    control.bytes = bytes;
    return control;
}

Control Control::InjectGarbage(size_t count) {
    return Make(Kind::InjectGarbage, count);
}

Control Control::InjectTruncated() {
    return Make(Kind::InjectTruncated);
}

Control Control::StreamOn(bool on) {
    return Make(Kind::StreamOn, 0, on);
}

Control Control::Rate(uint64_t bytesPerSecond) {
    return Make(Kind::Rate, bytesPerSecond);
}

Control Control::Fault(zsim::DbFault fault) {
    Control control = Make(Kind::DbFault);
    control.dbFault = fault;
    return control;
}

Control Control::Fault(zsim::CrashFault fault) {
    Control control = Make(Kind::CrashFault);
    control.crashFault = fault;
    return control;
}

size_t HostRecord::BodySize() const {
    return RecordBodySize(layout, bytes.data(), bytes.size());
}

Condition RecordSeen(unsigned id, uint64_t count) {
    return [=](const ModemCounters& c) {
        auto seen = c.hostRecordsById.find(id);
        return (seen == c.hostRecordsById.end() ? 0 : seen->second) >= count;
    };
}

Condition SentAtLeast(uint64_t bytes) {
    return [=](const ModemCounters& c) { return c.sent >= bytes; };
}

Condition ChannelOpen(bool open) {
    return [=](const ModemCounters& c) { return c.channelOpen == open; };
}

Condition PortUp(bool up) {
    return [=](const ModemCounters& c) { return c.portUp == up; };
}

Condition Reconnected(unsigned connection) {
    return [=](const ModemCounters& c) { return c.connection >= connection && c.portUp; };
}

Condition GeneratorDone() {
    return [](const ModemCounters& c) { return c.generatorDone; };
}

Condition Drained() {
    bool empty = false;
    Clock::time_point since;
    return [=](const ModemCounters& c) mutable {
        const auto now = Clock::now();
        if (c.unread != 0 || !empty) {
            empty = c.unread == 0;
            since = now;
        }
        return empty && now - since >= std::chrono::milliseconds(10);
    };
}

Condition HostQuiet(unsigned quietMs) {
    bool started = false;
    uint64_t last = 0;
    Clock::time_point since;
    return [=](const ModemCounters& c) mutable {
        const auto now = Clock::now();
        if (!started || c.received != last) {
            started = true;
            last = c.received;
            since = now;
        }
        return now - since >= std::chrono::milliseconds(quietMs);
    };
}

Condition Crashed(unsigned crashes) {
    return [=](const ModemCounters& c) { return c.crashes >= crashes; };
}

Condition AtMode(int mode) {
    return [=](const ModemCounters& c) { return c.atMode == mode; };
}

} // namespace zsim
