// The simulated modem's crash: what it does when it crashes, the AT port it answers on while in
// its loader, and the faults a test can ask of that dialogue. Written from the modem's side of the
// AT dialogue; it shares no code with the tool's crash retrieval.
//
// A crash (on command, after N stream bytes, after T ms, or on SIGUSR2 in zavra_modem_sim):
//   - the logging port stops sending, drains and hangs up, and stays down;
//   - the AT port (a second pty, link dir + "/" + atPortName, and the optional loopback TCP AT
//     port, always on the same port number) goes away at once, and comes back in loader mode
//     restartMs after the logging port hung up: "at%mode?\r" answers "\r\n%MODE: 1\r\n\r\nOK\r\n";
//   - the AT port then serves the crash dialogue (capability query, full core dump with its size
//     header, crash information, crash log, history, "at%mode=0\r", "at%zreset\r");
//   - after "at%mode=0\r" or "at%zreset\r" (once the host has read the OK) the AT port returns
//     to modem mode ("%MODE: 0") and the logging port comes back after resetDownMs, as a new
//     connection with the generator running again; a later crash starts it all again.
// Before any crash the AT port is in modem mode: "at%mode?\r" answers "%MODE: 0", the other
// commands it knows "\r\nOK\r\n", anything else "\r\nERROR\r\n". Commands end with "\r" (a line
// feed or blanks before one are skipped; letter case does not matter). Each reply goes back on
// the port the command came in on.
//
// The replies in the loader:
//   "at%debug=?\r"   "\r\n%DEBUG: (0,1,2,3)\r\n\r\nOK\r\n"
//   "at%debug=2,1\r" "\r\nstart of external ram content, start address=0x80000000, size in
//                    bytes=<coreDumpSize>:\r\n", the image, "\r\nOK\r\n" (one write after
//                    the other, without pauses)
//   "at%debug=0,0\r", "at%debug=1,0\r"  the crash information text, nothing more
//   "at%debug\r"     the crash log, nothing more
//   "at%debug=99\r", "at%mode=0\r", "at%zreset\r", "at\r"  "\r\nOK\r\n"
//
// Typical test use:
//   options.crash.atPort = true;               // and/or atSocket; see AtPortPath, AtSocketPort
//   options.crash.coreDumpSize = 4096;
//   modem.Start(options);                      // the tool captures from modem.PortPath()
//   modem.Apply(zsim::Control::Crash());       // or crash.afterBytes, crash.afterMs
//   modem.WaitUntil(zsim::Crashed(), ms);      // the crash fired
//   modem.WaitUntil(zsim::PortUp(false), ms);  // the logging port drained and hung up
//   modem.WaitUntil(zsim::AtMode(1), ms);      // the AT port is back in the loader
//   modem.WaitUntil(zsim::Reconnected(1), ms); // reset: the logging port is back
//   modem.AtCommands();                        // everything the host sent, in order
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zsim {

enum class CrashFault {
    None,
    NoFullDump,          // the capability reply lists exactly "%DEBUG: (0,1,2)"
    DumpError,           // "\r\nERROR\r\n" to the full dump request "at%debug=2,1\r"
    NoFullDumpAvailable, // "\r\nNo Full Core Dump Available\r\n" to the full dump request
    SplitHeader,         // the core dump header in two writes, 50 ms apart, cut just before
                         // "size in bytes="
    ExtraAfterHeader,    // the header announces min(coreDumpSize / 2, 64) bytes; the whole
                         // image follows, its start in the same write as the header
    SilentMidDump,       // the dump stops half-way (no "OK"); the rest is never sent, and the
                         // next command is answered as usual
    NeverComesBack,      // after the crash the AT port (and the logging port) never come back
    Info200,             // the crash information reply is exactly 200 bytes
    Info201,             // the crash information reply is exactly 201 bytes
    ModemMode,           // in the loader all the same, but every "at%mode?" answers "%MODE: 0",
                         // so the host neither dumps nor resets but still reads the crash
                         // information; the logging port comes back by itself resetDownMs after
                         // the AT port is back
    OversizeAnnounced,   // the header announces 4000000000 bytes; the image of coreDumpSize
                         // bytes and "\r\nOK\r\n" follow as usual
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
// and "crash_summary.txt" (text/plain): the sections that carry data, in the order of the text,
// so exactly the files a decoder should write. BuiltInCrashInfoText() is its text form, with two
// lines before the first boundary, base64 bodies wrapped at 76 columns, CR LF line ends, one more
// section "logging_kor2_chunk2.zol" marked "Content-Comment: No valid log data available" (after
// the KOR 2 chunk 1), and a closing boundary "--Zavra debug info--". The zip holds
// "bb_events.txt" and "registers.txt". The same bytes on every call.
std::vector<CrashSection> BuiltInCrashSections();
std::string BuiltInCrashInfoText();

// "none", "no-full-dump", "dump-error", "no-dump-available", "split-header",
// "extra-after-header", "silent-mid-dump", "never-comes-back", "info-200", "info-201",
// "modem-mode", "oversize-announced"
const char* CrashFaultName(CrashFault fault);
bool CrashFaultFromName(const std::string& name, CrashFault& fault);

// The value whose name in `names` (indexed by value) is `name`; false when there is none.
template <class Value, size_t Count>
bool FindName(const char* const (&names)[Count], const std::string& name, Value& value) {
    for (size_t i = 0; i < Count; ++i) {
        if (name == names[i]) {
            value = static_cast<Value>(i);
            return true;
        }
    }
    return false;
}

struct CrashOptions {
    bool atPort = false; // create the AT pty at Start (required for any crash dialogue)
    std::string atPortName = "modem-at";
    bool atSocket = false;      // also listen on a loopback TCP AT port (ephemeral port number)
    uint64_t afterBytes = 0;    // crash after this many stream bytes were sent (0: off)
    unsigned afterMs = 0;       // crash this long after the port first came up (0: off)
    unsigned restartMs = 500;   // how long the AT port stays away after the logging port hung up
    unsigned resetDownMs = 300; // after "at%zreset\r": how long until the logging port is back
    uint64_t coreDumpSize = 1 << 20; // bytes of the external RAM image
    uint32_t coreDumpSeed = 7;       // the image is a fixed function of seed and size
    std::string crashInfoFile;       // empty: the built-in example crash information; else this
                                     // file's bytes as they are (Info200/Info201 cut or pad them)
    std::string crashLogText;        // empty: a built-in crash log of a few hundred bytes
    CrashFault fault = CrashFault::None;
};

} // namespace zsim
