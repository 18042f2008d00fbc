// The simulated modem (library for the tests and benchmarks, zavra_modem_sim for people): a
// pseudo-terminal that answers like the modem's logging port, with its AT port and its crash.
//
// Typical test use:
//   zsim::ModemOptions opt;
//   opt.dir = tempDir;                       // the port appears as tempDir + "/modem-log"
//   opt.teeFile = tempDir + "/sent.bin";     // every byte written to the port, in order
//   zsim::Modem modem;
//   ASSERT_TRUE(modem.Start(opt)) << modem.Error();
//   ... run "zavra_log_serial -d" + modem.PortPath() + " ..." ...
//   ASSERT_TRUE(modem.WaitUntil(zsim::RecordSeen(0x35), 5000)); // OS_LOG_CHANNEL_OPEN arrived
//   modem.Stop();                            // drains, hangs up, flushes the tee file
//   // the host read exactly the first modem.Counters().delivered bytes of sent.bin
//
// What a test can ask of the running modem and wait for is in zsim-control.h; the options in
// zsim-options.h; the crash and its AT dialogue in zsim-crash.h. All public operations are
// thread-safe. One worker thread per modem serves the logging port, one more its AT port.
#pragma once

#include "zsim-control.h"

#include <memory>
#include <string>
#include <vector>

namespace zsim {

class ModemCore;

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

    std::string PortPath() const;   // the stable link path
    std::string AtPortPath() const; // the AT port's stable link path, empty without crash.atPort
    int AtSocketPort() const;       // the loopback TCP AT port, 0 when there is none
    MessageIds Ids() const;

    // Hands one control to the modem's worker and returns at once.
    void Apply(const Control& control);
    // True when the condition holds before timeoutMs.
    bool WaitUntil(Condition condition, unsigned timeoutMs) const;
    // Makes everything written so far visible in the tee, rx and transcript files.
    void FlushFiles();

    // Snapshots.
    ModemCounters Counters() const;
    std::vector<HostRecord> Records() const;
    std::vector<HostRecord> RecordsWithId(unsigned id) const;
    Bytes RawReceived() const;
    // Every AT command received (serial and TCP), in order, each with its terminating "\r".
    std::vector<std::string> AtCommands() const;
    // What the modem serves for the current options: the external RAM image (exactly
    // coreDumpSize bytes), the crash information text and the crash log, byte for byte.
    Bytes CoreDumpImage() const;
    Bytes CrashInfoText() const;
    Bytes CrashLogText() const;

private:
    std::unique_ptr<ModemCore> core_;
    std::string error_;
};

} // namespace zsim
