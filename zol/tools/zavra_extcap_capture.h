// One capture of the extcap program: the real zavra_log_serial on the modem's log port, its
// output file a FIFO that this process reads, the stream exported as pcapng into Wireshark's FIFO.
#pragma once

#include <string>

struct ExtcapCaptureOptions {
    std::string port;                      // the modem's log port (-d)
    std::string wiresharkFifo;             // where Wireshark reads the pcapng stream
    std::string tool = "zavra_log_serial"; // the program, found through PATH unless a path
    bool flush = true;                     // false: -b, no OS_LOG_FLUSH_LOG_BUFFER
    std::string deferred = "0";            // -r
    unsigned channelId = 0;                // -c (0: 0x35)
    std::string crashDir;                  // where the tool runs: its crash bundles land here
};

// Runs until the tool ends: on SIGTERM or SIGINT (Wireshark stopping the capture) the tool gets
// SIGTERM and ends its run as on any stop, closing the modem's log channel; its last bytes are
// still exported. Returns the process exit status: 0 for a capture that was stopped, 1 when the
// tool failed or could not start (its messages are on standard error).
int RunExtcapCapture(const ExtcapCaptureOptions& options);
