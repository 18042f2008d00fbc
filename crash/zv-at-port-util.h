// ZvAtCrash: the crash check over a modem's AT port. When the logging port fails the target may
// have crashed and restarted into its loader; the check waits for its AT port to come back, asks
// whether crash data is available and pulls the core dump, the crash information and the crash
// log into temporary files, then puts the target back into modem mode and resets it.
#pragma once

#include <vector>

#include "zv-string-ascii.h"
#include "zv-string-list-ascii.h"

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
    // A core dump of `size` bytes that fits in diskLimit is about to be written: the owner may
    // make room for it. Does nothing here.
    virtual void OnDumpSize(unsigned long long size);
    // The core dump's progress after each chunk: bytes written, the announced size (0 for a dump
    // without one), and a last call with `done` when its reading has ended. Does nothing here.
    virtual void OnDumpProgress(unsigned long long written, unsigned long long announced,
                                bool done);

    bool CheckForCrash(const ZvInterfaceInfo* atInterface, Response& response);
    bool CheckForCrashSocket(int port, const char* address, Response& response);
    bool GetCrash(const char* portName, Response& response);
    bool RetrieveCrash(ZvAtPort& port, Response& response);

    ZvAString errorText;
    bool retrieveHistory = false;
    // The most bytes a retrieval may write to disk, its three files together; 0 for no limit.
    // Whatever comes from the target is input from outside: a core dump announced larger than
    // what is left of it is not written, and a dump or reply that grows past it is cut off; such
    // a file is dropped whole, as is a core dump that stops before its announced size.
    unsigned long long diskLimit = 0;

private:
    // The start of both waits: clears the last result; false (and no report) when a stop was
    // asked for already, else reports the crash and the wait ahead (`waitText`).
    bool StartCheck(Response& response, const char* waitText);
    // The end of both waits: cancelled, no port, or the retrieval on the open port.
    bool FinishCheck(ZvAtPort& port, bool stopped, Response& response);
    // The capability query: true when a full core dump is to be asked for.
    bool QueryFullDump(ZvAtPort& port);
    void ReadCoreDump(ZvAtPort& port, Response& response, ZvAStringList& infoCommands,
                      std::vector<unsigned char>& buffer, bool& reset);
    void ReadCrashInfo(ZvAtPort& port, Response& response, const ZvAStringList& infoCommands,
                       std::vector<unsigned char>& buffer);
    void ReadCrashLog(ZvAtPort& port, Response& response, std::vector<unsigned char>& buffer);
    // Sends `command` and copies its reply into `path` until the port falls silent, deleting a
    // reply too short to be of use, or too large (`what` names it then). The bytes written, or -1
    // when nothing was asked or opened.
    long long SaveReply(ZvAtPort& port, const char* command, const ZvAString& path,
                        std::vector<unsigned char>& buffer, const char* what);
    // What is left of diskLimit (all ones when there is none).
    unsigned long long DiskLeft() const;
    // Reports a failed step and, when the port has no message of its own, that empty message.
    void ReportPortFailure(ZvAtPort& port, const char* text);
    // Deletes an empty file and forgets a missing or empty one; a kept one may mark the crash.
    static void KeepIfNotEmpty(ZvAString& path, bool* crashFound);

    // The bytes written by the retrieval in progress.
    unsigned long long m_diskUsed = 0;
};

bool ZvAtIsModemInLoaderMode(const char* portName);
bool ZvAtIsModemInLoaderMode(const ZvInterfaceInfo* atInterface);
ZvInterfaceInfo* ZvAtCheckForCrashedTarget(const ZvDeviceDetect& detect);
bool ZvAtCheckForCrash(const ZvDeviceDetect& detect, ZvAtCrash::Response& response,
                       ZvAtCrash& crash);
