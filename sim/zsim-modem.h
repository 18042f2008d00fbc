// A simulated modem on a pseudo-terminal, for end-to-end tests, benchmarks and demos.
//
// Typical test use:
//   zsim::ModemOptions opt;
//   opt.dir = tempDir;                       // the port appears as tempDir + "/modem-log"
//   opt.teeFile = tempDir + "/sent.bin";     // every byte written to the port, in order
//   zsim::Modem modem;
//   ASSERT_TRUE(modem.Start(opt)) << modem.Error();
//   ... run "zavra_log_serial -d" + modem.PortPath() + " ..." ...
//   ASSERT_TRUE(modem.WaitForRecordId(0x35, 5000));   // OS_LOG_CHANNEL_OPEN arrived
//   modem.Stop();                            // drains, hangs up, flushes the tee file
//   // the host read exactly the first modem.Counters().delivered bytes of sent.bin
//
// All public operations are thread-safe. One worker thread per modem serves the port.
#pragma once

#include "zsim-crash.h"
#include "zsim-pty-port.h"
#include "zsim-wire.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zsim {

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

struct ModemCounters {
    uint64_t sent = 0;        // bytes written to the port, all connections (= tee file size)
    uint64_t streamBytes = 0; // of these, generated log stream (records, garbage, play file)
    uint64_t dbBytes = 0;     // of these, database confirms and what is interleaved with them
    uint64_t discarded = 0;   // bytes the host never read, collected at hang-ups and Stop
    uint64_t delivered = 0;   // sent - discarded - still unread: what the host has read
                              // (bytes the host flushes itself when opening are not seen)
    uint64_t records = 0;     // whole generated records
    uint64_t recordsByLayoutKor[3][3] = {}; // [layout A=0, B=1, C=2][kor]
    uint64_t garbageBytes = 0;
    uint64_t truncatedRecords = 0;
    uint64_t received = 0;    // bytes received from the host
    uint64_t hostRecords = 0; // records parsed from them
    uint64_t rxSkipped = 0;   // received bytes that were not part of a record
    uint64_t hangUps = 0;
    unsigned connection = 0;
    bool portUp = false;
    bool channelOpen = false;
    bool generatorDone = false; // stopAfterBytes reached or play file finished
    unsigned hashRequests = 0, dataRequests = 0;
    unsigned crashes = 0; // crashes since Start
    bool crashed = false; // crashed and not yet set back to modem mode by the host
};

class Modem {
public:
    Modem();
    ~Modem(); // Stop()
    Modem(const Modem&) = delete;
    Modem& operator=(const Modem&) = delete;

    // Creates the port and starts serving it. False with Error() on failure.
    bool Start(const ModemOptions& options);
    // Stops sending, drains (up to drainTimeoutMs; at once when nobody has the port open),
    // collects what is left unread, hangs up, removes the link and flushes the files. A host
    // still attached sees a port failure. Safe to call twice; snapshots stay readable after.
    void Stop();
    const std::string& Error() const { return error_; }

    std::string PortPath() const; // the stable link path
    MessageIds Ids() const;

    // Port failure on demand: stops sending, drains, hangs up, and after downMs (if comeBack)
    // creates a new pty at the same path. Returns at once; see WaitForPortUp/Down.
    void HangUp(unsigned downMs, bool comeBack = true);
    // Streams garbage (bytes that never form a sync word) or a truncated record next,
    // at the next record boundary, whether or not the channel is open.
    void InjectGarbage(size_t count);
    void InjectTruncatedRecord();
    // Sends these bytes as they are, at the next record boundary.
    void InjectBytes(const Bytes& bytes);
    // Switches the generator on or off, and changes its rate, while running.
    void SetGeneratorEnabled(bool enabled);
    void SetRate(uint64_t bytesPerSecond);
    void SetDbFault(DbFault fault);
    // Crashes now (see zsim-crash.h); needs crash.atPort or crash.atSocket for the dialogue.
    // Returns at once; ignored while the modem is still crashed.
    void Crash();
    void SetCrashFault(CrashFault fault);
    std::string AtPortPath() const; // the AT port's stable link path, empty without crash.atPort
    int AtSocketPort() const;       // the loopback TCP AT port, 0 when there is none
    // Every AT command received (serial and TCP), in order, each with its terminating "\r".
    std::vector<std::string> AtCommands() const;
    // The command has been received `count` times (exact bytes, "\r" included).
    bool WaitForAtCommand(const std::string& command, unsigned timeoutMs, size_t count = 1) const;
    // The AT port is up and in modem mode (0) or in the loader (1).
    bool WaitForAtMode(unsigned mode, unsigned timeoutMs) const;
    // A crash has happened since Start (the logging port began its hang-up); for a later crash
    // wait for Counters().crashes instead.
    bool WaitForCrashed(unsigned timeoutMs) const;
    // What the modem serves for the current options: the external RAM image (exactly
    // coreDumpSize bytes), the crash information text and the crash log, byte for byte.
    Bytes CoreDumpImage() const;
    Bytes CrashInfoText() const;
    Bytes CrashLogText() const;
    // Makes everything written so far visible in the tee, rx and transcript files.
    void FlushFiles();

    // Snapshots.
    ModemCounters Counters() const;
    std::vector<HostRecord> Records() const;
    std::vector<HostRecord> RecordsWithId(unsigned id) const;
    Bytes RawReceived() const;
    int Unread() const; // bytes the host has not read yet on the current port

    // Waits; each returns true when the condition holds before timeoutMs.
    bool WaitForRecords(size_t count, unsigned timeoutMs) const;
    bool WaitForRecordId(unsigned id, unsigned timeoutMs, size_t count = 1) const;
    bool WaitForRawBytes(size_t count, unsigned timeoutMs) const;
    bool WaitForSent(uint64_t bytes, unsigned timeoutMs) const;
    bool WaitForChannelOpen(bool open, unsigned timeoutMs) const;
    bool WaitForPortUp(bool up, unsigned timeoutMs) const;
    bool WaitForConnection(unsigned connection, unsigned timeoutMs) const; // port came back n times
    bool WaitForGeneratorDone(unsigned timeoutMs) const;
    bool WaitForDrained(unsigned timeoutMs) const; // host has read all bytes sent so far
    // No byte has come from the host for quietMs: what a host wrote just before it exited has
    // been read and parsed.
    bool WaitForHostQuiet(unsigned quietMs, unsigned timeoutMs) const;
    // Generic form: the predicate sees a counters snapshot; re-checked on every change. It runs
    // under the modem's lock, so it must not call the modem.
    bool WaitUntil(const std::function<bool(const ModemCounters&)>& predicate,
                   unsigned timeoutMs) const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
    std::string error_;
};

const char* DbFaultName(DbFault fault);
bool DbFaultFromName(const std::string& name, DbFault& fault);

} // namespace zsim
