// ZlZomDaemon: the daemon-mode log store. It keeps the merged stream in a managed directory of
// date-named, size-split ".zom" files under a total budget (oldest deleted first), writes its own
// journal "daemon.log", serves the live stream to one TCP client and keeps the target port alive
// through a connect thread. The port itself is reached through pure virtual hooks that the tool
// implements.
//
// Threads:
// - NewLogData runs on the port reader thread.
// - The connect thread closes the current file at every connect request and calls ClosePort,
//   OpenPort and InitialiseTarget.
// - The socket thread accepts clients, calls SendPort with what they send and
//   SocketClientDisconnect when they leave.
// - PortFailureDetected, GetCrashFileName and Shutdown come from the tool's main thread.
// - The sync thread bounds what a power cut can take: it syncs the segment being written at most
//   once a second, each closed segment, and the directory after segments come and go, so that the
//   port reader never waits for the disk.
// The file state is guarded by one lock, the client socket by another, the journal by a third:
// the connect thread closes the current file while the reader may be writing to it, and an
// unguarded descriptor could be closed, reused by the re-opened port and written to. The stream
// reaches the client through a bounded queue with its own writer thread (ZvSendQueue): queueing
// never waits, so a slow client never holds up the store.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "zv-log.h"
#include "zv-sema.h"
#include "zv-send-queue.h"
#include "zv-socket.h"
#include "zv-string-ascii.h"
#include "zv-string-list-ascii.h"
#include "zv-thread.h"
#include "zv-ver.h"

// One log file known to the store.
class ZlZomDaemonDirFile {
public:
    ZlZomDaemonDirFile(const ZvAString& path, unsigned long long size)
        : m_path(path), m_size(size) {}

    ZvAString m_path;
    // The size found at start-up, 0 while being written, the closing size once closed.
    unsigned long long m_size;
};

class ZlZomDaemon {
public:
    // Socket buffer sizes of the listening socket and of each accepted client.
    static const int kSocketRcvBuf = 0x4000;
    static const int kSocketSndBuf = 0x40000;
    // The most a client sends to the target in one piece.
    static const unsigned kClientReadSize = 1024;
    // How long an orderly close lets the client take what is still queued for it.
    static const unsigned kClientFlushMs = 1000;

    ZlZomDaemon();
    // Runs Shutdown; a subclass must call Shutdown in its own destructor, because the threads
    // call its hooks.
    virtual ~ZlZomDaemon();
    ZlZomDaemon(const ZlZomDaemon&) = delete;
    ZlZomDaemon& operator=(const ZlZomDaemon&) = delete;

    // Set by the owner before Initialise: the TCP port to serve (-1 for none) and whether segment
    // 000 of each log is kept until last.
    void SetSocketPort(int port) { m_socketPort = port; }
    int GetSocketPort() const { return m_socketPort; }
    void SetKeepFirstSegment(bool keep) { m_keepFirstSegment = keep; }

    // Takes the directory for this process alone (an advisory lock on "daemon.lock" in it), before
    // Initialise touches the journal; false with a sentence naming the directory and the reason.
    // A second daemon on the same directory would otherwise truncate the first one's journal and
    // delete its files.
    bool LockDirectory(const ZvAString& directory, ZvAString& error);

    // Sizes in bytes, 0 meaning no limit / no splitting. Opens the journal, takes over the
    // existing ".zom" files, trims them to the budget and starts the threads.
    bool Initialise(ZvAString directory, unsigned long long totalSize, unsigned long long fileSize,
                    ZvVer& version);
    // One chunk of port data: to the current file (split and rotated) and to the client.
    void NewLogData(unsigned char* data, unsigned size);
    // Closes the current file, if any, recording `size` as its size.
    void CloseCurrentFile(unsigned long long size);
    bool DeleteOldestFile();
    // The directory joined with "daemon_" and the current log name, without extension.
    void GetCrashFileName(ZvAString& path);
    // One time-stamped journal line, written whole in one write or not at all (a full disk never
    // tears a line; the lines lost are counted and reported once there is room again).
    void LogText(const char* format, ...) ZV_PRINTF(2, 3);
    // The same for a fault, and the journal is synced so that the line survives a power cut.
    void LogFault(const char* format, ...) ZV_PRINTF(2, 3);

    // The port reader failed: the connect thread closes and re-opens the port.
    void PortFailureDetected();
    // Both tell their thread to end and wait up to 200 ms; true when it ended.
    bool EndConnectThread();
    bool EndSocketThread();
    // Stops the threads, closes the port (so that every byte the reader got is handed over),
    // then the current file and the journal. Idempotent.
    void Shutdown() { ShutdownStore(true); }

    static void ConnectThreadFunc(ZvThread* thread, void* daemon);
    static void SocketThreadFunc(ZvThread* thread, void* daemon);

    // Observers.
    bool IsPortOpen() const { return m_portOpen; }
    unsigned long long GetCurrentLogsSize();
    // The managed files in deletion order (oldest first).
    void GetFileList(ZvAStringList& paths);
    // Stream bytes that could not be written to any file since Initialise (a full disk with
    // nothing left to delete, or no file that could be opened).
    unsigned long long GetBytesLost();
    // Chunks and bytes that the clients could not take since the store was made.
    unsigned long long GetClientDroppedChunks();
    unsigned long long GetClientDroppedBytes();

protected:
    // The port edge, implemented by the tool.
    virtual void ClosePort() = 0;
    virtual bool OpenPort() = 0;
    virtual void SendPort(unsigned char* data, unsigned int size) = 0;
    virtual bool InitialiseTarget() = 0;
    virtual void SocketClientDisconnect() = 0;
    virtual void OnNewLogSegment() = 0;
    // For the messages of a port that will not open: its name, and why the last OpenPort failed.
    virtual ZvAString PortName() { return ZvAString(); }
    virtual ZvAString PortOpenFailure() { return ZvAString(); }

private:
    typedef std::deque<std::unique_ptr<ZlZomDaemonDirFile>> FileList;

    // The destructor cannot reach the subclass's ClosePort any more.
    void ShutdownStore(bool closePort);
    // Store internals; the caller holds m_storeLock.
    void CloseCurrentFileLocked(unsigned long long size);
    bool DeleteOldestFileLocked();
    void ScanExistingFiles();
    void MakeRoom();
    bool HasClosedFile() const;
    void OpenNextFile();
    bool PathInList(const ZvAString& path) const;
    void ApplyKeepFirstSegment();
    void MakeRoomFor(unsigned incoming);
    void WriteToFile(const unsigned char* data, unsigned size);
    // Room on a full disk: deletes the oldest closed file, sparing the one being written and,
    // with keep-first-segment, segment 000 of the current log. False when none is left.
    bool DeleteOldestForSpace();
    bool DeleteFileAt(size_t index);
    void NoteBytesLost(unsigned long long bytes, int error);
    void NoteWriteResumed();
    void NoteLossAtShutdown();
    void WriteJournalLine(const ZvAString& message, bool sync);
    bool WriteJournalRaw(const ZvAString& line);

    // Sync thread.
    static void SyncThreadFunc(ZvThread* thread, void* daemon);
    void SyncThread();
    void SyncPass();
    void SyncCurrentFile();
    void StartSyncThread();
    void EndSyncThread();
    // A closed segment goes to the sync thread, which syncs and closes it.
    void QueueForSync(int fd, const ZvAString& path);
    // Before a file is deleted: no descriptor of ours may keep its blocks in use.
    void ForgetPendingSync(const ZvAString& path);
    void NoteDirectoryChanged();

    // Socket side.
    void SendToClient(const unsigned char* data, unsigned size);
    // Stops the client's writer (letting it send what is queued unless abortive), then closes.
    void CloseClient(bool abortive);
    // Ends a dropping episode with its summary line.
    void NoteDroppingEnded(const char* how);
    void CloseSockets();
    void OpenListeningSocket();
    void ConnectThread();
    void NotePortOpenFailure(unsigned& failures, ZvAString& reported);
    void NotePortOpenedAfterFailures(unsigned failures);
    void SocketThread();
    void ServeOneClient();
    // Waits on the connect semaphore up to ms; false on time-out.
    bool WaitConnectRequest(unsigned ms);

    // Store state.
    ZvAString m_directory;
    unsigned long long m_totalLimit;
    unsigned long long m_fileLimit;
    FileList m_files;
    unsigned long long m_currentLogsSize;
    ZlZomDaemonDirFile* m_currentEntry;
    ZlZomDaemonDirFile* m_firstSegmentEntry;
    bool m_keepFirstSegment;
    unsigned long long m_bytesInCurrentFile;
    ZvAString m_logName;
    unsigned m_segmentNumber;
    // Segments opened for the current log. Equals m_segmentNumber unless the log's name repeats
    // an earlier one and its numbers continue from there.
    unsigned m_segmentsInLog;
    int m_fileFd;
    std::mutex m_storeLock;
    // Bytes of the current file that actually reached it (m_bytesInCurrentFile counts the stream
    // bytes the segment stands for, lost ones included, so a loss never stretches a segment).
    unsigned long long m_bytesOnDiskInCurrentFile = 0;
    bool m_currentFileDirty = false;

    // Quiet journalling of repeated faults: one line when they start, a summary when they end.
    bool m_writeFailing;
    unsigned long long m_bytesNotWritten;
    unsigned long long m_bytesLost = 0;
    bool m_openFailing;
    unsigned m_openFailures;
    bool m_deleteFailing;

    // Journal.
    int m_journalFd;
    std::mutex m_journalLock;
    // The journal's length: a line that fits only in part is cut off again.
    long long m_journalSize = 0;
    unsigned m_journalLinesLost = 0;

    // The directory's lock file, and the directory itself for syncing its entries.
    int m_lockFd = -1;
    int m_dirFd = -1;

    // Sync thread: closed segments waiting to be synced and closed, the ones being synced now.
    struct PendingSync {
        int fd;
        ZvAString path;
    };
    std::mutex m_syncLock;
    std::condition_variable m_syncDone;
    std::deque<PendingSync> m_pendingSyncs;
    std::vector<ZvAString> m_syncingPaths;
    std::atomic<bool> m_directoryDirty{false};
    ZvThread m_syncThread;
    ZvSema m_syncSema;
    std::atomic<bool> m_syncThreadEnd{false};
    bool m_syncThreadRunning = false;
    unsigned m_lastCurrentSyncTick = 0;

    // Port and threads.
    std::atomic<bool> m_portOpen;
    ZvThread m_connectThread;
    ZvSema m_connectSema;
    std::atomic<bool> m_connectThreadEnd;
    int m_socketPort;
    std::atomic<int> m_serverSocket;
    ZvSocket m_client;
    ZvThread m_socketThread;
    ZvSema m_socketSema;
    std::atomic<bool> m_socketThreadEnd;
    std::atomic<bool> m_shutDown;
    // Set under m_storeLock once the last file is closed: later data has nowhere to go.
    bool m_storeClosed;

    // Client flow: the queue to the client, started for each client the socket thread accepts.
    // The lock orders queueing, starting and stopping against closing the client socket.
    std::mutex m_clientLock;
    ZvSendQueue m_clientQueue;
};
