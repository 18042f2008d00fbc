// What the tool does when its logging port fails: ask the modem on its AT port whether it
// crashed, and turn what it sends into a crash bundle named after the current log.
#pragma once

#include <atomic>
#include <memory>

#include "zv-at-port-util.h"
#include "zv-progress.h"

// The tool's observer of a crash check: progress goes to standard error for the person at the
// bench, and the end of the run (a signal) stops the wait for the modem to come back.
// In daemon mode its lines also go to the journal, and the store makes room for a core dump.
class ZluAtCrash : public ZvAtCrash {
public:
    explicit ZluAtCrash(const std::atomic<bool>* exiting, bool daemon = false)
        : m_exiting(exiting), m_daemon(daemon) {}
    void OnStatus(const char* text) override;
    bool StopCheck() override;
    void OnDumpSize(unsigned long long size) override;
    void OnDumpProgress(unsigned long long written, unsigned long long announced,
                        bool done) override;

private:
    const std::atomic<bool>* m_exiting;
    bool m_daemon;
    // The progress of the core dump being read, from its first byte to its end.
    std::unique_ptr<ZvProgress> m_dumpProgress;
};

// The private folder of one crash check, beside the crash files: it holds the retrieval's
// temporary files and the decoded sections until they get their names. OnExit removes it, so a
// run ended by a signal in the middle of a check leaves nothing behind.
// True while the main thread is inside a crash check (waiting in device detection, talking to
// the modem, or writing the bundle).
bool ZlbsCrashCheckRunning();
bool ZlbsCrashWorkDirCreate(const char* crashDir, ZvAString& workDir);
void ZlbsCrashWorkDirRemove();
// Removes the check folders that a run ended by force left in `dir` (only for a directory that
// is this process's alone); the paths removed are added to `removed`.
void ZlbsCrashRemoveStaleWorkDirs(const char* dir, ZvAStringList& removed);
