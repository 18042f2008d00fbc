// The run options of zavra_log_serial and the command-line parser that fills them.
#pragma once

#include <cstdint>
#include <vector>

#include "zv-string-ascii.h"

class ZluSendMessages;
class ZvDeviceDetect;

// Codes of the tool's fatal faults, printed by error() behind the exit status.
enum Local_Errors {
    ZLBS_ERROR_FILE = 12,         // a file could not be opened or prepared
    ZLBS_ERROR_SOCKET = 13,       // the socket server or its client
    ZLBS_ERROR_COMMAND_LINE = 14, // every command-line fault
    ZLBS_ERROR_MEMORY = 15,       // an allocation failed
    ZLBS_ERROR_PORT = 19,         // the serial port could not be opened
};

// Reports a fatal fault as "Error <info>(<code>):<message>" on standard error and ends the process
// with status `info`. Command-line faults pass info 0, so they end with status 0.
[[noreturn]] void error(Local_Errors code, int info, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// Prints the banner and the usage text on standard error and ends with status 0.
[[noreturn]] void usage();

// Verbosity: statistics and completion lines above 1, progress lines above 4.
extern int noisiness;

// One line of an interface definition file: the USB identity of the port to use.
struct ZlbsPortDefinition {
    ZvAString vid, pid, mi;
};

// How the port was named. Every open finds it again the same way: a -d path is followed as a path
// (a /dev/serial/by-id link leads to the modem's node of the moment), while an interface
// definition file and device detection are matched against a fresh detection, because a modem
// that comes back may come back under other kernel names.
enum class ZlbsPortSource { Option, DefinitionFile, Detection };

struct ZlbsArgData {
    static const unsigned kDefaultSocketPort = 32768;
    static const unsigned kMinDaemonTotalMBytes = 8;

    bool socketServer;
    ZvAString devicePath;
    uint32_t socketPort;
    // The address the socket server listens on (-p<address>:<port>); empty: every address.
    ZvAString socketAddress;
    ZvAString scriptFile;
    ZvAString filenameRoot;
    uint32_t openChannelId;
    bool flushTargetBuffers;
    bool keepFirstSegment;
    bool exitOnPortFailure;
    int32_t timeLimitMs;
    bool daemonMode;
    ZvAString daemonDirectory;
    uint64_t daemonTotalSize;
    uint64_t daemonFileSize;
    bool portConfigOnly;
    bool crashCheckDisabled;
    ZvAString databaseFile;
    ZlbsPortSource portSource;
    ZvAString definitionFile;                    // the file the port was matched from
    std::vector<ZlbsPortDefinition> definitions; // its lines, in order

    ZlbsArgData() { Clear(); }
    // Defaults of every option; the daemon directory and database file are left as they are.
    void Clear();
};

// Parses and validates the whole command line into `args`: options, the checks after the option
// loop, and the serial port from -d, an interface definition file or detection (`detect` is
// refreshed). The deferred-logging settings and the message ids go to `sender`. Every fault ends
// the process through error(); no arguments at all prints the usage.
void ZlbsParseArguments(int argc, char** argv, ZlbsArgData& args, ZluSendMessages& sender,
                        ZvDeviceDetect& detect);
