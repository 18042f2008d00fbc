// The simulated modem's crash: what it does when it crashes, the AT port it answers on while in
// its loader, and the faults a test can ask of that dialogue. Written from the modem's side of the
// AT dialogue; it shares no code with the tool's crash retrieval.
//
// A crash (on command, after N stream bytes, after T ms, or on SIGUSR2 in zavra_modem_sim):
//   - the logging port stops sending, drains and hangs up, and stays down;
//   - the AT port (a second pty, link dir + "/" + atPortName, and the optional loopback TCP AT
//     port) goes away for restartMs, then comes back in loader mode: "at%mode?\r" answers
//     "\r\n%MODE: 1\r\n\r\nOK\r\n";
//   - the AT port then serves the crash dialogue (capability query, full core dump with its size
//     header, crash information, crash log, history, "at%mode=0\r", "at%zreset\r");
//   - after "at%zreset\r" (or, when the fault says so, never) the AT port returns to modem mode
//     ("%MODE: 0") and the logging port comes back after resetDownMs, as a new connection.
// Before any crash the AT port answers "at%mode?\r" with "%MODE: 0" (modem mode).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zsim {

enum class CrashFault {
    None,
    NoFullDump,          // the capability reply lists exactly "%DEBUG: (0,1,2)"
    DumpError,           // "\r\nERROR\r\n" to the full dump request "at%debug=2,1\r"
    NoFullDumpAvailable, // "No Full Core Dump Available" to the full dump request
    SplitHeader,         // the core dump header split across two writes, with a pause between
    ExtraAfterHeader,    // more dump bytes after the header than it announces
    SilentMidDump,       // the port goes silent half-way through the dump, then answers again
    NeverComesBack,      // after the crash the AT port (and the logging port) never come back
    Info200,             // the crash information reply is exactly 200 bytes
    Info201,             // the crash information reply is exactly 201 bytes
    ModemMode,           // in loader mode all the same, but "at%mode?" after the first one
                         // answers "%MODE: 0" (so the tool neither dumps nor resets)
};

// One section of the crash information text, as the modem means it (decoded).
struct CrashSection {
    std::string description; // the file name the section stands for
    std::string encoding;    // "x-base64" or "text/plain"
    std::string content;     // the decoded bytes
};

// The built-in example crash information, section by section: a crash dump zip
// "crash_dump_1.zip" made with minizip (holding at least "bb_events.txt" and one more entry),
// "logging_kor0_chunk1.zol", "logging_kor0_chunk2.zol", "logging_kor1_chunk1.zol",
// "logging_kor1_chunk2.zol", "logging_kor2_chunk1.zol" (no chunk 2), "bb_events.txt" (base64)
// and "crash_summary.txt" (text/plain), plus one section marked
// "Content-Comment: No valid log data available". BuiltInCrashInfoText() is its text form, with
// base64 bodies wrapped at 76 columns, CR LF line ends and a closing boundary.
std::vector<CrashSection> BuiltInCrashSections();
std::string BuiltInCrashInfoText();

const char* CrashFaultName(CrashFault fault); // "none", "no-full-dump", "dump-error", ...
bool CrashFaultFromName(const std::string& name, CrashFault& fault);

struct CrashOptions {
    bool atPort = false;         // create the AT pty at Start (required for any crash dialogue)
    std::string atPortName = "modem-at";
    bool atSocket = false;       // also listen on a loopback TCP AT port (ephemeral port number)
    uint64_t afterBytes = 0;     // crash after this many stream bytes were sent (0: off)
    unsigned afterMs = 0;        // crash this long after the port first came up (0: off)
    unsigned restartMs = 500;    // how long both ports are away after the crash
    unsigned resetDownMs = 300;  // after "at%zreset\r": how long until the logging port is back
    uint64_t coreDumpSize = 1 << 20; // bytes of the external RAM image
    uint32_t coreDumpSeed = 7;       // the image is a fixed function of seed and size
    std::string crashInfoFile;   // empty: the built-in example crash information
    std::string crashLogText;    // empty: a built-in crash log of a few hundred bytes
    CrashFault fault = CrashFault::None;
};

} // namespace zsim
