// What a simulated modem is asked to be at Start: its port, the log stream it sends, its database
// server, its own port failures and its crash, and the records it keeps of the host's traffic.
#pragma once

#include "zsim-crash.h"
#include "zsim-gadget.h"
#include "zsim-wire.h"

#include <memory>
#include <string>

namespace zsim {

// The log traffic the modem produces while the channel is open.
struct GeneratorOptions {
    bool enabled = true;
    uint32_t seed = 1;
    uint64_t bytesPerSecond = 0;  // 0: as fast as the pty takes
    uint64_t stopAfterBytes = 0;  // 0: no limit; otherwise exactly this many stream bytes, then
                                  // stop (the last record may be cut short)
    bool flowWithoutOpen = false; // true: send even before OS_LOG_CHANNEL_OPEN
    bool layoutA = true;          // layout A records (KOR 0 and 1)
    bool layoutB = true;          // layout B records (KOR 0, 1 and 2)
    unsigned korMask = 7;         // bit k enables KOR k
    unsigned minBody = 4;
    unsigned maxBody = 1024;   // bodies are mostly small, sometimes up to this
    unsigned garbageEvery = 0; // a run of garbage after about every n records (0: never)
    unsigned garbageMaxLen = 64;
    unsigned truncateEvery = 0; // a record cut short after about every n records (0: never)
    std::string playFile;       // non-empty: send this file's bytes once instead of records
};

// Faults of the database server.
enum class DbFault {
    None,
    Silence,          // never answers
    SilenceData,      // answers the hash request only
    HashStatus,       // hash confirm with status 1
    HashZero,         // hash confirm with hash 0
    Oversize,         // announces 2097153 bytes
    DataStatus,       // data confirms with status 1
    ShortData,        // the last data confirm leaves faultBytes missing
    TooMuchData,      // faultBytes more data than announced
    SecondAttemptOnly // ignores the first hash request, answers normally afterwards
};

// "none", "silence", "silence-data", "hash-status", "hash-zero", "oversize", "data-status",
// "short-data", "too-much-data", "second-attempt"
const char* DbFaultName(DbFault fault);
bool DbFaultFromName(const std::string& name, DbFault& fault);

struct DbOptions {
    std::string zxFile;        // empty: requests are only recorded, never answered
    unsigned chunkSize = 2048; // data bytes per data confirm (at most 20472)
    Layout layout = Layout::A; // confirms in layout A, or B (sync word of KOR 1)
    unsigned kor = 1;
    DbFault fault = DbFault::None;
    unsigned faultBytes = 1;
    unsigned interleaveRecords = 0; // unrelated log records before each confirm
    unsigned interleaveGarbage = 0; // garbage bytes before each confirm
    unsigned dataGapMs = 0;         // pause between data confirms
};

// When the port fails on its own. Each trigger fires once per Start.
struct FailureOptions {
    uint64_t afterBytes = 0; // after this many bytes sent on the port (0: off); exact
    unsigned afterMs = 0;    // this long after the port came up (0: off)
    unsigned downMs = 300;   // how long the port stays away
    bool comeBack = true;    // false: the port stays away
};

struct ModemOptions {
    std::string dir; // directory for the port link (required)
    std::string portName = "modem-log";
    unsigned baseId = 0;            // the host's base id (0 means 0x35)
    std::string teeFile;            // every byte written to the port, appended in order
    std::string rxFile;             // every byte received from the host, in order
    std::string transcriptFile;     // one JSON object per received record
    bool keepRawInMemory = true;    // keep the raw receive stream for RawReceived()
    unsigned drainTimeoutMs = 2000; // how long a hang-up waits for the host to read
    GeneratorOptions gen;
    DbOptions db;
    FailureOptions fail;
    CrashOptions crash;
    std::shared_ptr<Gadget> gadget; // set: the ports are served on this USB gadget
};

} // namespace zsim
