// What the tool does when its logging port fails: ask the modem on its AT port whether it
// crashed, and turn what it sends into a crash bundle named after the current log.
#pragma once

#include <atomic>

#include "zv-at-port-util.h"

// The tool's observer of a crash check: progress goes to standard error for the person at the
// bench, and the end of the run (a signal) stops the wait for the modem to come back.
class ZluAtCrash : public ZvAtCrash {
public:
    explicit ZluAtCrash(const std::atomic<bool>* exiting) : m_exiting(exiting) {}
    void OnStatus(const char* text) override;
    bool StopCheck() override;

private:
    const std::atomic<bool>* m_exiting;
};

// The private folder of one crash check, beside the crash files: it holds the retrieval's
// temporary files and the decoded sections until they get their names. OnExit removes it, so a
// run ended by a signal in the middle of a check leaves nothing behind.
// True while the main thread is inside a crash check (waiting in device detection, talking to
// the modem, or writing the bundle).
bool ZlbsCrashCheckRunning();
bool ZlbsCrashWorkDirCreate(const char* crashDir, ZvAString& workDir);
void ZlbsCrashWorkDirRemove();
