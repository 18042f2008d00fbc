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
// The file state is guarded by one lock, the client socket by another, the journal by a third:
// the connect thread closes the current file while the reader may be writing to it, and an
// unguarded descriptor could be closed, reused by the re-opened port and written to. The stream
// reaches the client through a bounded queue with its own writer thread (ZvSendQueue): queueing
// never waits, so a slow client never holds up the store.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>

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
    // One time-stamped journal line, flushed at once.
    void LogText(const char* format, ...) ZV_PRINTF(2, 3);

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
    void WriteToFile(const unsigned char* data, unsigned size);
    void NoteWriteResumed();

    // Socket side.
    void SendToClient(const unsigned char* data, unsigned size);
    // Stops the client's writer (letting it send what is queued unless abortive), then closes.
    void CloseClient(bool abortive);
    // Ends a dropping episode with its summary line.
    void NoteDroppingEnded(const char* how);
    void CloseSockets();
    void OpenListeningSocket();
    void ConnectThread();
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

    // Quiet journalling of repeated faults: one line when they start, a summary when they end.
    bool m_writeFailing;
    unsigned long long m_bytesNotWritten;
    bool m_openFailing;
    unsigned m_openFailures;
    bool m_deleteFailing;

    // Journal.
    int m_journalFd;
    std::mutex m_journalLock;

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
