// ZlZomDaemon: the daemon-mode log store. It keeps the merged stream in a managed directory of
// date-named, size-split ".zom" files under a total budget (oldest deleted first), writes its own
// journal "daemon.log", serves the live stream to one TCP client and keeps the target port alive
// through a connect thread. The tool implements the port hooks of ZlZomPort (zavra_log_zom_port.h).
//
// The parts, each in its own files: ZlZomStore (segments, writing, a full disk) over ZlZomFileList
// (the files and the budget), ZlZomJournal, ZlZomSync (the sync thread), ZlZomServer (the TCP
// client) and ZlZomConnect (the connect thread).
//
// Threads:
// - NewLogData runs on the port reader thread.
// - The connect thread closes the current file at every connect request and calls ClosePort,
//   OpenPort and InitialiseTarget.
// - The socket thread accepts clients, calls SendPort with what they send and
//   SocketClientDisconnect when they leave.
// - PortFailureDetected, GetCrashFileName and Shutdown come from the tool's main thread.
// - The sync thread syncs the files written, so that the port reader never waits for the disk.
#pragma once

#include <atomic>

#include "zavra_log_zom_connect.h"
#include "zavra_log_zom_journal.h"
#include "zavra_log_zom_port.h"
#include "zavra_log_zom_server.h"
#include "zavra_log_zom_store.h"
#include "zavra_log_zom_sync.h"
#include "zv-ver.h"

class ZlZomDaemon : private ZlZomPort {
public:
    ZlZomDaemon();
    // Runs Shutdown; a subclass must call Shutdown in its own destructor, because the threads
    // call its hooks.
    ~ZlZomDaemon() override;
    ZlZomDaemon(const ZlZomDaemon&) = delete;
    ZlZomDaemon& operator=(const ZlZomDaemon&) = delete;

    // Set by the owner before Initialise: the TCP port to serve (-1 for none) and whether segment
    // 000 of each log is kept until last.
    void SetSocketPort(int port) { m_server.SetSocketPort(port); }
    // The address the port is served on; empty (the default) for every address.
    void SetSocketHost(const ZvAString& host) { m_server.SetSocketHost(host); }
    int GetSocketPort() const { return m_server.GetSocketPort(); }
    void SetKeepFirstSegment(bool keep) { m_store.SetKeepFirstSegment(keep); }

    // Takes the directory for this process alone (an advisory lock on "daemon.lock" in it), before
    // Initialise touches the journal; false with a sentence naming the directory and the reason.
    // A second daemon on the same directory would otherwise truncate the first one's journal and
    // delete its files. The lock, not the file, decides: the file of a killed daemon is taken
    // over. Shutdown removes the file.
    bool LockDirectory(const ZvAString& directory, ZvAString& error);

    // Sizes in bytes, 0 meaning no limit / no splitting. Opens the journal, takes over the
    // existing ".zom" files, trims them to the budget and starts the threads.
    bool Initialise(ZvAString directory, unsigned long long totalSize, unsigned long long fileSize,
                    ZvVer& version);
    // One chunk of port data: to the current file (split and rotated) and to the client.
    void NewLogData(unsigned char* data, unsigned size);
    // Closes the current file, if any, recording `size` as its size.
    void CloseCurrentFile(unsigned long long size) { m_store.CloseCurrentFile(size); }
    bool DeleteOldestFile() { return m_store.DeleteOldestFile(); }
    // The directory joined with "daemon_" and the current log name, without extension.
    void GetCrashFileName(ZvAString& path) { m_store.GetCrashFileName(path); }
    // Crash bundles count towards the total size. The most the next one may take, once the
    // files that may go have gone (in the budget and on the disk); making room for `bytes` of it
    // (the oldest files go first); and counting the bundle named after `basePath` (as given by
    // GetCrashFileName) once it is made, which brings the store back within its budget. The
    // newest bundle is never deleted while a file of its log is kept.
    unsigned long long RoomForCrash() { return m_store.RoomForCrash(); }
    void MakeRoomForCrash(unsigned long long bytes) { m_store.MakeRoomForCrash(bytes); }
    void AddCrashBundle(const ZvAString& basePath) { m_store.AddCrashBundle(basePath); }
    // One time-stamped journal line (see ZlZomJournal); a fault's line is synced at once.
    void LogText(const char* format, ...) ZV_PRINTF(2, 3);
    void LogFault(const char* format, ...) ZV_PRINTF(2, 3);

    // The port reader failed: the connect thread closes and re-opens the port.
    void PortFailureDetected();
    // Stops the threads, closes the port (so that every byte the reader got is handed over),
    // then the current file and the journal. Idempotent.
    void Shutdown() { ShutdownStore(true); }

    // Observers.
    bool IsPortOpen() const { return m_portOpen; }
    unsigned long long GetCurrentLogsSize() { return m_store.GetLogsSize(); }
    // The managed files in deletion order (oldest first).
    void GetFileList(ZvAStringList& paths) { m_store.GetFileList(paths); }
    // Stream bytes that could not be written to any file since Initialise (a full disk with
    // nothing left to delete, or no file that could be opened).
    unsigned long long GetBytesLost() { return m_store.GetBytesLost(); }
    // Chunks and bytes that the clients could not take since the store was made.
    unsigned long long GetClientDroppedChunks() { return m_server.GetDroppedChunks(); }
    unsigned long long GetClientDroppedBytes() { return m_server.GetDroppedBytes(); }

private:
    // The destructor cannot reach the subclass's ClosePort any more.
    void ShutdownStore(bool closePort);
    static void DescribeLockFailure(int fd, int reason, const ZvAString& directory,
                                    const ZvAString& path, ZvAString& error);

    std::atomic<bool> m_portOpen{false};
    ZlZomJournal m_journal;
    ZlZomSync m_sync;
    ZlZomStore m_store;
    ZlZomServer m_server;
    ZlZomConnect m_connect;
    // The directory's lock file.
    int m_lockFd = -1;
    ZvAString m_lockPath;
    std::atomic<bool> m_shutDown{false};
};
