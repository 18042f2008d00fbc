// Zlbs: the single application object that holds the whole run of zavra_log_serial, and the
// free functions through which the modes open, close and initialise the target's port.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "quzol-read-file.h"
#include "zavra_log_common.h"
#include "zavra_log_serial_args.h"
#include "zavra_log_serial_rx.h"
#include "zavra_log_serial_socket.h"
#include "zv-at-port-util.h"
#include "zv-device-detect.h"
#include "zv-itf-serial.h"
#include "zv-listen-address.h"
#include "zv-log.h"
#include "zv-sema.h"
#include "zv-ver.h"

// The control messages leave through the one serial interface.
class ZlbsSendMessages : public ZluSendMessages {
public:
    explicit ZlbsSendMessages(ZvItfAsyncSerial& serial) : m_serial(serial) {}
    void SendMsg(unsigned kor, unsigned char* data, unsigned size) override;

private:
    ZvItfAsyncSerial& m_serial;
};

// Daemon mode and database extraction live in their own files (zavra_log_serial_daemon,
// zavra_log_serial_tgt_db): Run starts them, the wait loop polls the extraction on every 200 ms
// time-out and hands a port failure to the daemon store.
class Zlbs {
public:
    // The record buffer for the script: the largest record body the reader accepts.
    static const unsigned kScriptRecordSize = 20480;
    static const unsigned kExitDrainMs = 600;
    static const unsigned kCloseChannelWaitMs = 300;

    Zlbs();
    Zlbs(const Zlbs&) = delete;
    Zlbs& operator=(const Zlbs&) = delete;

    // The whole run: start-up, then the wait loop. Returns only from the port-check mode.
    int Run(int argc, char** argv);
    // Ends the run: drain, close the log channel, close everything, exit. Never returns; a
    // second caller (a signal during the drain) waits for the first to finish.
    [[noreturn]] void OnExit(int code);
    void OutputStats();
    // The base of the names of files about a target crash: the current log without extension.
    void CrashFileBaseName(ZvAString& name);
    // Names the retrieved crash files after `baseName`, decodes the crash information and
    // packs everything into the crash zip.
    void ProcessTargetCrashResponse(ZvAtCrash::Response& response, const ZvAString& baseName);

    ZvVer version;
    ZlbsArgData args;
    ZlsSocketStream socketStream;
    ZvItfAsyncSerial serial;
    ZlbsRxNormal rxNormal;

    QoZolSyncCheck scriptSync;
    QoZolReadFile scriptReader;
    QoZolRecordTag* scriptRecord = nullptr;

    std::atomic<bool> exiting{false};
    std::atomic<bool> exitFinished{false};
    bool statsOn = false;
    std::atomic<unsigned> lastSendTick{0};
    unsigned statsTick = 0;
    uint64_t statsBytes = 0;

    ZvInterfaceInfo atInterface;
    // Said once until the AT port is found again: the named port is no detected modem's port.
    bool atPortMissingReported = false;
    ZvDeviceDetect detect;
    // The node the port was last opened on, for the report when a later open finds another.
    ZvAString portNode;
    // The start-up messages go out whole, whether from the target initialisation or again from
    // the port reader when the modem's side of the port opens late.
    std::mutex startLock;
    ZlbsSendMessages sender;
    ZvLogStderr logger;
    ZvAString lastPortError;
    // Why the port did not open, in the system's words (or "it is in use by another program").
    ZvAString lastPortReason;
    ZvSema endOfRun;

private:
    void OpenScript();
    void StartCapture();
    // Ends the run when the output file cannot be opened, locked or emptied (errno says why).
    [[noreturn]] void OutputFileFailed();
    // Where the socket server listens (-p).
    ZvListenAddress ListenAddress() const;
    void StartPortCheck();
    // The port for a capture or an extraction: a failure to open it ends the run.
    void OpenPortAndInitialiseTarget();
    // Ends the run after a failed ZlsOpenPort, with the reason on a line of its own.
    [[noreturn]] void PortOpenFailed();
    int WaitLoop();
    void HandlePortFailure();
    // After a port failure, unless disabled: the crash check on the AT interface found at
    // target initialisation, and the crash bundle when the modem crashed.
    void CheckForTargetCrash();
    // The most the retrieval may write for a crash in `crashDir`: the free space there, or in
    // daemon mode the room the store can make in its budget; 0 for no limit.
    unsigned long long RoomForCrashData(const ZvAString& crashDir);
};

// The one application object, alive until the process exits.
Zlbs& ZlbsApp();
extern int exitCode;

// Opens the serial interface on the run's device path with the selected receive handler; false
// with the reason in the application's last port error.
bool ZlsOpenPort();
void ZlsClosePort();
// The start-of-log exchange with the target; always true.
bool ZlsInitialiseTarget();
// The modem's side of the port opened after the start-up messages went out (its DSR rose): it
// has missed them, so they are sent again. Called on the port reader thread.
void ZlsModemSideOpened();
// Client bytes going down to the target.
void ZlbsDownStreamSocketInputCallback(unsigned char channel, unsigned char* data, unsigned length);
// Runs OnExit for SIGINT and SIGTERM; other signals are ignored.
void SignalHandler(int sig);
// Routes SIGINT and SIGTERM to SignalHandler on a thread of its own, so that OnExit runs in an
// ordinary thread context, and ignores SIGPIPE. Call before any other thread is started.
void ZlbsInstallSignalHandling();
