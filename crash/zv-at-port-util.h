// ZvAtCrash: the crash check over a modem's AT port. When the logging port fails the target may
// have crashed and restarted into its loader; the check waits for its AT port to come back, asks
// whether crash data is available and pulls the core dump, the crash information and the crash
// log into temporary files, then puts the target back into modem mode and resets it.
#pragma once

#include "zv-string-ascii.h"

class ZvAtPort;
class ZvDeviceDetect;
struct ZvInterfaceInfo;

class ZvAtCrash {
public:
    // What a check found. Paths are empty for items that were not retrieved or stayed empty.
    struct Response {
        bool crashFound = false;
        ZvAString coreDumpFile;  // full core dump of the target's external RAM (prefix "exr")
        ZvAString crashInfoFile; // crash information text (prefix "crh")
        ZvAString crashLogFile;  // crash log (prefix "clf")
        bool coreDumpRaw = true; // false only when the dump was cut out by its size header
    };

    explicit ZvAtCrash(bool retrieveHistory = false) : retrieveHistory(retrieveHistory) {}
    virtual ~ZvAtCrash() = default;

    // Progress and diagnostic messages, one sentence per call.
    virtual void OnStatus(const char* text);
    // Polled once per wait attempt; true cancels the wait.
    virtual bool StopCheck();

    bool CheckForCrash(const ZvInterfaceInfo* atInterface, Response& response);
    bool CheckForCrashSocket(int port, const char* address, Response& response);
    bool GetCrash(const char* portName, Response& response);
    bool RetrieveCrash(ZvAtPort& port, Response& response);

    ZvAString errorText;
    bool retrieveHistory = false;
};

bool ZvAtIsModemInLoaderMode(const char* portName);
bool ZvAtIsModemInLoaderMode(const ZvInterfaceInfo* atInterface);
ZvInterfaceInfo* ZvAtCheckForCrashedTarget(const ZvDeviceDetect& detect);
bool ZvAtCheckForCrash(const ZvDeviceDetect& detect, ZvAtCrash::Response& response,
                       ZvAtCrash& crash);
