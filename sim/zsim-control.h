// The control surface of a running simulated modem, as tests and zavra_modem_sim drive it:
// - a Control is one thing asked of the modem; Modem::Apply hands it to the modem's worker and
//   returns at once;
// - ModemCounters and HostRecord are what the modem has done and seen, as snapshots;
// - a Condition is what Modem::WaitUntil waits for: a test of successive counter snapshots.
//
//   modem.Apply(zsim::Control::HangUp(1500));              // the port fails, back after 1.5 s
//   ASSERT_TRUE(modem.WaitUntil(zsim::Reconnected(1), 8000));
//   modem.Apply(zsim::Control::StreamOn(false));           // the log stream stops
//   ASSERT_TRUE(modem.WaitUntil(zsim::Drained(), 5000));   // and the host has read it all
#pragma once

#include "zsim-options.h"

#include <chrono>
#include <functional>
#include <map>

namespace zsim {

struct Control {
    enum class Kind {
        HangUp,          // the port fails: stops sending, drains, hangs up, and after `count` ms
                         // (when `on`) a new pty comes up at the same path
        Crash,           // crashes now (see zsim-crash.h); ignored while the modem is still crashed
        Inject,          // `bytes` as they are, at the next record boundary
        InjectGarbage,   // `count` bytes that never form a sync word, at the next record boundary
        InjectTruncated, // one record cut short, at the next record boundary
        StreamOn,        // the generated stream on or off (`on`)
        Rate,            // the generated stream's rate: `count` bytes a second (0: unlimited)
        DbFault,         // the database server's fault from now on
        CrashFault,      // the crash dialogue's fault from now on
    };
    Kind kind = Kind::Crash;
    uint64_t count = 0;
    bool on = true;
    Bytes bytes;
    zsim::DbFault dbFault = zsim::DbFault::None;
    zsim::CrashFault crashFault = zsim::CrashFault::None;

    static Control HangUp(unsigned downMs, bool comeBack = true);
    static Control Crash();
    static Control Inject(const Bytes& bytes);
    static Control InjectGarbage(size_t count);
    static Control InjectTruncated();
    static Control StreamOn(bool on);
    static Control Rate(uint64_t bytesPerSecond);
    static Control Fault(zsim::DbFault fault);
    static Control Fault(zsim::CrashFault fault);
};

// One record that the host sent, as cut by the simulator's own parser.
struct HostRecord {
    unsigned id = 0;
    unsigned kor = 0;
    Layout layout = Layout::A;
    uint64_t time = 0;
    Bytes bytes;             // the whole record as received
    uint64_t offset = 0;     // position of its first byte in the raw receive stream
    unsigned connection = 0; // port instance: 0 at start, +1 each time the port comes back
    std::chrono::steady_clock::time_point arrival;
    double arrivalMs = 0; // milliseconds since Start
    const uint8_t* Body() const { return bytes.data() + 12; }
    size_t BodySize() const; // without padding
};

struct ModemCounters {
    uint64_t sent = 0;        // bytes written to the port, all connections (= tee file size)
    uint64_t streamBytes = 0; // of these, generated log stream (records, garbage, play file)
    uint64_t dbBytes = 0;     // of these, database confirms and what is interleaved with them
    uint64_t discarded = 0;   // bytes the host never read, collected at hang-ups and Stop
    uint64_t dropped = 0;     // bytes the modem had ready but never sent, lost at hang-ups
    uint64_t unread = 0;      // bytes the host has not read yet on the current port
    uint64_t delivered = 0;   // sent - discarded - unread: what the host has read
                              // (bytes the host flushes itself when opening are not seen)
    uint64_t records = 0;     // whole generated records
    uint64_t recordsByLayoutKor[3][3] = {}; // [layout A=0, B=1, C=2][kor]
    uint64_t garbageBytes = 0;
    uint64_t truncatedRecords = 0;
    uint64_t received = 0;    // bytes received from the host
    uint64_t hostRecords = 0; // records parsed from them
    std::map<unsigned, uint64_t> hostRecordsById;
    uint64_t rxSkipped = 0; // received bytes that were not part of a record
    uint64_t hangUps = 0;
    unsigned connection = 0;
    bool portUp = false;
    bool channelOpen = false;
    bool generatorDone = false; // stopAfterBytes reached or play file finished
    unsigned hashRequests = 0, dataRequests = 0;
    unsigned crashes = 0; // crashes since Start
    bool crashed = false; // crashed and not yet set back to modem mode by the host
    int atMode = -1;      // the AT port: 0 modem mode, 1 loader, 2 away; -1 without one
};

// Checked on every change of the modem and at least every 5 ms, under the modem's lock (so it
// must not call the modem); it may keep state from one check to the next.
using Condition = std::function<bool(const ModemCounters&)>;

Condition RecordSeen(unsigned id, uint64_t count = 1); // the host sent `count` records of `id`
Condition SentAtLeast(uint64_t bytes);
Condition ChannelOpen(bool open = true);
Condition PortUp(bool up = true);
Condition Reconnected(unsigned connection); // the port came back that many times and is up
Condition GeneratorDone();
// The host has read every byte sent so far. Bytes on their way through the pty show up in the
// count a moment later, so the count must stay 0 for 10 ms.
Condition Drained();
// No byte has come from the host for quietMs: what a host wrote just before it exited has been
// read and parsed.
Condition HostQuiet(unsigned quietMs);
Condition Crashed(unsigned crashes = 1); // that many crashes since Start (they need not be over)
Condition AtMode(int mode);              // the AT port is up in modem mode (0) or the loader (1)

} // namespace zsim
