// The crash check after a port failure and the crash bundle: "<base>-crash.txt" (the crash
// information as the modem sent it) and "<base>-crash.zip" (the modem's own crash zip with the
// joined per-core logs, the crash log and the external RAM dump added), where <base> is the
// current log without its extension.
#include "zavra_log_serial_crash.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "zavra_log_serial_app.h"
#include "zavra_log_serial_daemon.h"
#include "zv-crash-decode-zip.h"
#include "zv-crash-decode.h"
#include "zv-file-find.h"
#include "zv-file-util.h"
#include "zv-file.h"
#include "zv-time.h"

namespace {

std::mutex g_workDirLock;
std::string g_workDir;
std::atomic<bool> g_checkRunning{false};
// The files of the bundle being made, held locked until it is complete: another run whose crash
// files have the same names neither replaces nor removes them meanwhile. Main thread only.
std::vector<int> g_heldFiles;

// Marks the main thread as inside a crash check for the life of the object.
class CheckRunning {
public:
    CheckRunning() { g_checkRunning = true; }
    ~CheckRunning() { g_checkRunning = false; }
};

// Names of the bundle, each the base name followed by the suffix.
const char* const kCrashLogSuffix = "-crashlog.txt";
const char* const kDumpSuffix = "-extram.bin";
const char* const kRawDumpSuffix = "-extram.dmp";
const char* const kCrashInfoSuffix = "-crash.txt";
const char* const kZipSuffix = "-crash.zip";
// Decoded sections that found no place in a zip (no crash dump zip in the crash information).
const char* const kLeftoverSuffix = "-crash-files";

ZvAString BundleName(const ZvAString& baseName, const char* suffix) {
    ZvAString name(baseName);
    name += suffix;
    return name;
}

// The process's file mode creation mask, read without changing it (umask() would, for a moment,
// for every thread).
mode_t CreationMask() {
    mode_t mask = 022;
    if (FILE* status = fopen("/proc/self/status", "r")) {
        char line[128];
        while (fgets(line, sizeof line, status) != nullptr)
            if (strncmp(line, "Umask:", 6) == 0)
                mask = static_cast<mode_t>(strtoul(line + 6, nullptr, 8));
        fclose(status);
    }
    return mask;
}

// Locks the file or folder at `path` for the rest of the bundle; the lock goes with it when it is
// renamed.
void HoldFile(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    flock(fd, LOCK_EX | LOCK_NB);
    g_heldFiles.push_back(fd);
}

void ReleaseHeldFiles() {
    for (int fd : g_heldFiles)
        close(fd);
    g_heldFiles.clear();
}

// Gives `path` the name `target`, replacing what is there, unless another run holds that file
// while it makes its own bundle: then `path` keeps its name and the reason is said. True when
// renamed.
bool TakeName(ZvAString& path, const ZvAString& target) {
    HoldFile(path.c_str());
    if (ZvFile::IsLockedByAnother(target.c_str())) {
        fprintf(stderr, "TARGET-CRASH: '%s' is in use by another program; kept as '%s'.\n",
                target.c_str(), path.c_str());
        return false;
    }
    ZvFileUtil::DelFile(target.c_str());
    if (!ZvFile::Rename(path.c_str(), target.c_str()))
        return false;
    path = target;
    return true;
}

// Gives a retrieved file its name in the bundle; when the rename fails the file stays usable
// under the name it has. Temporary files are private to their owner; the bundle is for whoever
// reads the logs beside it, so it gets the mode of a newly created file.
void NameCrashFile(ZvAString& path, const ZvAString& baseName, const char* suffix) {
    TakeName(path, BundleName(baseName, suffix));
    chmod(path.c_str(), 0666 & ~CreationMask());
}

// A new crash of the same log replaces the whole earlier bundle: a part the new crash lacks
// (no core dump this time) must not pass for part of it.
void RemoveEarlierBundle(const ZvAString& baseName) {
    for (const char* suffix :
         {kCrashLogSuffix, kDumpSuffix, kRawDumpSuffix, kCrashInfoSuffix, kZipSuffix}) {
        const ZvAString name = BundleName(baseName, suffix);
        if (!ZvFile::IsLockedByAnother(name.c_str()))
            ZvFileUtil::DelFile(name.c_str());
    }
    const ZvAString leftovers = BundleName(baseName, kLeftoverSuffix);
    if (ZvFileUtil::IsDir(leftovers.c_str()) && !ZvFile::IsLockedByAnother(leftovers.c_str()))
        ZvFileUtil::DeleteDir(leftovers.c_str(), true);
}

bool IsEmptyDir(const char* dir) {
    ZvFileFind find;
    ZvFindFileData entry;
    for (bool more = find.FindFirst(dir, "*", entry); more; more = find.FindNext(entry))
        if (entry.name != "." && entry.name != "..")
            return false;
    return true;
}

// Ends the check's folder: removed when empty, else kept whole under `keepAs` so that nothing
// the modem sent is lost.
void FinishWorkDir(const ZvAString& keepAs) {
    std::lock_guard<std::mutex> lock(g_workDirLock);
    if (g_workDir.empty())
        return;
    if (IsEmptyDir(g_workDir.c_str())) {
        ZvFileUtil::DeleteDir(g_workDir.c_str(), false);
    } else if (ZvFile::IsLockedByAnother(keepAs.c_str())) {
        fprintf(stderr,
                "TARGET-CRASH: '%s' is in use by another program; crash files kept in '%s'.\n",
                keepAs.c_str(), g_workDir.c_str());
    } else if (rename(g_workDir.c_str(), keepAs.c_str()) != 0) {
        ZvLog::Error("Failed to rename '%s' to '%s' (%s).", g_workDir.c_str(), keepAs.c_str(),
                     strerror(errno));
    } else {
        chmod(keepAs.c_str(), 0777 & ~CreationMask());
        fprintf(stderr, "TARGET-CRASH: Crash files saved in '%s'\n", keepAs.c_str());
    }
    g_workDir.clear();
}

} // namespace

void ZluAtCrash::OnStatus(const char* text) {
    // A message in the middle of a dump takes a line of its own, not the end of the progress line.
    if (m_dumpProgress)
        m_dumpProgress->Clear();
    fprintf(stderr, "PORT-FAIL: %-60s\n", text);
    if (m_daemon)
        ZlbsDaemonJournal(ZlbsApp(), text);
}

bool ZluAtCrash::StopCheck() {
    return m_exiting != nullptr && *m_exiting;
}

void ZluAtCrash::OnDumpSize(unsigned long long size) {
    if (m_daemon)
        ZlbsDaemonMakeRoomForCrash(ZlbsApp(), size);
}

void ZluAtCrash::OnDumpProgress(unsigned long long written, unsigned long long announced,
                                bool done) {
    if (done) {
        m_dumpProgress.reset();
        return;
    }
    if (!m_dumpProgress) {
        ZvProgress::Journal journal;
        if (m_daemon)
            journal = [](const char* text) { ZlbsDaemonJournal(ZlbsApp(), text); };
        m_dumpProgress = std::make_unique<ZvProgress>(
            "Core dump", announced, ZvProgress::TerminalOrNull(noisiness), journal);
    }
    m_dumpProgress->Update(written);
}

bool ZlbsCrashWorkDirCreate(const char* crashDir, ZvAString& workDir) {
    ZvAString pattern(crashDir);
    ZvFileUtil::AppendToPath(pattern, ".zavra-crash-XXXXXX");
    std::lock_guard<std::mutex> lock(g_workDirLock);
    if (mkdtemp(&pattern[0]) == nullptr)
        return false;
    g_workDir = pattern;
    workDir = pattern;
    return true;
}

void ZlbsCrashRemoveStaleWorkDirs(const char* dir, ZvAStringList& removed) {
    ZvFileFind find;
    ZvFindFileData entry;
    for (bool more = find.FindFirst(dir, ".zavra-crash-*", entry); more;
         more = find.FindNext(entry)) {
        ZvAString path(dir);
        ZvFileUtil::AppendToPath(path, entry.name.c_str());
        if (entry.type == ZvFindFileData::TypeDirectory &&
            ZvFileUtil::DeleteDir(path.c_str(), true))
            removed.Add(path);
    }
}

bool ZlbsCrashCheckRunning() {
    return g_checkRunning;
}

void ZlbsCrashWorkDirRemove() {
    std::lock_guard<std::mutex> lock(g_workDirLock);
    if (!g_workDir.empty())
        ZvFileUtil::DeleteDir(g_workDir.c_str(), true);
    g_workDir.clear();
}

void Zlbs::CrashFileBaseName(ZvAString& name) {
    if (args.daemonMode) {
        ZlbsDaemonCrashFileName(*this, name);
    } else if (args.filenameRoot.empty()) {
        // Capture to a socket client only: the bundle goes to the current directory, named
        // after the time of the failure.
        name.Printf("zavra_log_%s", ZvTime::GetReverseTimeString());
    } else {
        name = args.filenameRoot;
        ZvFileUtil::StripExt(name);
    }
}

void Zlbs::CheckForTargetCrash() {
    if (args.crashCheckDisabled || atInterface.portName.empty())
        return;
    // Marked before the exiting flag is read: OnExit, which sets the flag first, then sees the
    // mark whenever the check goes ahead.
    CheckRunning running;
    if (exiting)
        return;
    ZvAString baseName, crashDir, workDir, savedTempDir;
    CrashFileBaseName(baseName);
    ZvFileUtil::GetFullDir(baseName.c_str(), crashDir);
    if (crashDir.empty())
        crashDir = ".";
    // The retrieval's temporary files live beside the bundle, so that naming them is a rename
    // within one file system and nothing is left in the working directory.
    ZvFileUtil::GetTempDir(savedTempDir);
    if (ZlbsCrashWorkDirCreate(crashDir.c_str(), workDir))
        ZvFileUtil::SetWritableDir(workDir.c_str());
    else
        ZvLog::Error("Failed to create a folder for crash files in '%s' (%s).", crashDir.c_str(),
                     strerror(errno));

    // The statistics line rewrites itself in place: end it, so the check's lines stand alone.
    if (statsOn)
        fputc('\n', stderr);
    ZluAtCrash crash(&exiting, args.daemonMode);
    crash.diskLimit = RoomForCrashData(crashDir);
    ZvAtCrash::Response response;
    crash.CheckForCrash(&atInterface, response);
    if (!crash.errorText.empty() && !exiting) {
        ZvAString line;
        line.Printf("AT port '%s': %s", atInterface.portName.c_str(), crash.errorText.c_str());
        crash.OnStatus(line.c_str());
    }
    // A crash log alone is no crash, but it is kept all the same.
    if (!exiting && (response.crashFound || !response.crashLogFile.empty())) {
        RemoveEarlierBundle(baseName);
        ProcessTargetCrashResponse(response, baseName);
    }
    ZvFileUtil::SetWritableDir(savedTempDir.c_str());
    if (!exiting)
        FinishWorkDir(BundleName(baseName, kLeftoverSuffix));
    ReleaseHeldFiles();
    if (args.daemonMode && !exiting)
        ZlbsDaemonAddCrashBundle(*this, baseName);
}

unsigned long long Zlbs::RoomForCrashData(const ZvAString& crashDir) {
    unsigned long long room = ULLONG_MAX;
    if (args.daemonMode)
        room = ZlbsDaemonCrashRoom(*this);
    else if (!ZvFileUtil::GetFreeSpace(crashDir.c_str(), room))
        room = ULLONG_MAX;
    // The retrieval's limit: 0 stands for none, so no room at all is one byte.
    return room == ULLONG_MAX ? 0 : std::max(room, 1ULL);
}

void Zlbs::ProcessTargetCrashResponse(ZvAtCrash::Response& response, const ZvAString& baseName) {
    if (!response.crashLogFile.empty())
        NameCrashFile(response.crashLogFile, baseName, kCrashLogSuffix);
    if (!response.coreDumpFile.empty())
        NameCrashFile(response.coreDumpFile, baseName,
                      response.coreDumpRaw ? kRawDumpSuffix : kDumpSuffix);
    if (response.crashInfoFile.empty())
        return;
    NameCrashFile(response.crashInfoFile, baseName, kCrashInfoSuffix);

    // The sections are named by the modem (its zip is "crash_dump_1.zip" after every crash):
    // they are decoded in the check's own folder, apart from earlier crashes.
    ZvAString workDir;
    ZvFileUtil::GetTempDir(workDir);
    ZvCrashDecode decoder;
    if (!decoder.Decode(response.crashInfoFile.c_str(), workDir.c_str())) {
        fprintf(stderr, "TARGET-CRASH: Base64 decoding failed. %s\n", decoder.errorText.c_str());
        return;
    }
    ZvAStringList others;
    if (!response.crashLogFile.empty())
        others.Add(response.crashLogFile);
    if (!response.coreDumpFile.empty())
        others.Add(response.coreDumpFile);
    ZvAString zipPath, error;
    if (!ZvCrashZip(decoder.outputFiles, &others, zipPath, true, &error)) {
        fprintf(stderr, "TARGET-CRASH: %s\n", error.c_str());
        return;
    }
    TakeName(zipPath, BundleName(baseName, kZipSuffix));
    fprintf(stderr, "TARGET-CRASH: Crash ZIP saved to '%s'\n", zipPath.c_str());
}
