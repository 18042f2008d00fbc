// Start-up of a run, the choice of mode, and the wait loop that decides when the run ends.
#include "zavra_log_serial_app.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zavra_log_serial_daemon.h"
#include "zavra_log_serial_tgt_db.h"
#include "zv-file-util.h"
#include "zv-time.h"

int exitCode = 0;

namespace {
const unsigned kLoopWaitMs = 200;
const unsigned kWaitsPerPass = 5;
const unsigned kScriptSyncWord = 0x807F807Fu;
} // namespace

Zlbs& ZlbsApp() {
    // Made once and never destroyed: threads still running while the process exits may use it.
    static Zlbs* app = new Zlbs;
    return *app;
}

Zlbs::Zlbs() : version(1, 8), rxNormal(endOfRun, socketStream), sender(serial), logger("") {}

int Zlbs::Run(int argc, char** argv) {
    ZvLog::SetLogger(&logger);
    endOfRun.Create(0);
    args.Clear();
    ZlbsParseArguments(argc, argv, args, sender, detect);

    if (args.daemonMode)
        args.filenameRoot.clear();
    statsOn = noisiness > 1 && !args.daemonMode && args.databaseFile.empty();
    lastSendTick = ZvTime::GetMsTickTime();
    ZlbsInstallSignalHandling();

    if (!args.scriptFile.empty())
        OpenScript();

    if (args.portConfigOnly) {
        StartPortCheck();
        exiting = true;
        exitFinished = true;
        return exitCode;
    }
    if (!args.databaseFile.empty()) {
        ZlbsTgtDbStart(*this);
        OpenPortAndInitialiseTarget();
    } else if (args.daemonMode) {
        ZlbsDaemonStart(*this);
    } else {
        StartCapture();
    }
    return WaitLoop();
}

void Zlbs::OpenScript() {
    scriptSync.Add(kScriptSyncWord, 0xFFFFFFFFu);
    scriptReader.SetSyncCheck(&scriptSync);
    // A directory opens and then reads nothing, and a FIFO or device could block or never end:
    // only a regular file is a script.
    const int type = ZvFileUtil::GetFileType(args.scriptFile.c_str());
    if (type == ZvFileUtil::FileTypeDirectory || type == ZvFileUtil::FileTypeOther) {
        errno = type == ZvFileUtil::FileTypeDirectory ? EISDIR : EINVAL;
        error(ZLBS_ERROR_FILE, errno, "Failed to open script file '%s'", args.scriptFile.c_str());
    }
    if (!scriptReader.OpenRead(args.scriptFile.c_str()))
        error(ZLBS_ERROR_FILE, errno, "Failed to open script file '%s'", args.scriptFile.c_str());
    scriptRecord = QoZolRecordTag::Create(kScriptRecordSize, kScriptSyncWord);
    if (scriptRecord == nullptr)
        error(ZLBS_ERROR_MEMORY, 0,
              "Failed to allocate buffer (%d bytes) for reading from ZOS file.",
              static_cast<int>(kScriptRecordSize));
}

void Zlbs::StartPortCheck() {
    serial.SetRxHandler(&rxNormal);
    if (!ZlsOpenPort())
        PortOpenFailed();
    ZlsClosePort();
}

void Zlbs::StartCapture() {
    // The output is taken first and held for the whole run: a second run on the same file is
    // refused at once, before it waits for a client or changes a byte of the file. It is emptied
    // only when the capture is about to start.
    if (!args.filenameRoot.empty() && !rxNormal.OpenFile(args.filenameRoot.c_str()))
        OutputFileFailed();
    if (args.socketServer) {
        if (noisiness > 4)
            ZvLog::Status("Opening socket server.");
        int server = -1;
        if (!ZvSocket::OpenSocketServer(ListenAddress(), server,
                                        ZlsSocketStream::kReceiveBufferSize,
                                        ZlsSocketStream::kSendBufferSize)) {
            ZvSocket::CloseSocketServer(server);
            error(ZLBS_ERROR_SOCKET, 0, "Failed to open server socket for connections.");
        }
        if (noisiness > 4)
            ZvLog::Status("Waiting for socket client connection.");
        if (!socketStream.OpenSocket(server, static_cast<int>(args.socketPort),
                                     ZlbsDownStreamSocketInputCallback)) {
            ZvSocket::CloseSocketServer(server);
            error(ZLBS_ERROR_SOCKET, 0, "%s", socketStream.ErrorText().c_str());
        }
        // Said at the default verbosity: whoever connects reads the modem's log and talks to it.
        if (noisiness > 1)
            ZvLog::Status("Socket client connected from %s.", socketStream.PeerAddress().c_str());
        ZvSocket::CloseSocketServer(server);
    }
    serial.SetRxHandler(&rxNormal);
    // Without a file name the stream only goes to the socket client.
    if (rxNormal.IsFileOpen() && !rxNormal.TruncateFile())
        OutputFileFailed();
    OpenPortAndInitialiseTarget();
}

ZvListenAddress Zlbs::ListenAddress() const {
    return ZvListenAddress(args.socketAddress, static_cast<int>(args.socketPort));
}

void Zlbs::OutputFileFailed() {
    const int reason = errno;
    ZvLog::Error("The output file '%s' cannot be opened: %s.", args.filenameRoot.c_str(),
                 reason == EWOULDBLOCK ? "it is in use by another program" : strerror(reason));
    error(ZLBS_ERROR_FILE, reason, "Failed to open output ZOM.");
}

void Zlbs::OpenPortAndInitialiseTarget() {
    if (noisiness > 4)
        ZvLog::Status("Opening serial port.");
    if (!ZlsOpenPort())
        PortOpenFailed();
    ZlsInitialiseTarget();
}

void Zlbs::PortOpenFailed() {
    if (!lastPortReason.empty())
        ZvLog::Error("The serial logging interface '%s' cannot be opened: %s.",
                     args.devicePath.c_str(), lastPortReason.c_str());
    error(ZLBS_ERROR_PORT, serial.GetLastError(), "%s", lastPortError.c_str());
}

int Zlbs::WaitLoop() {
    const unsigned start = ZvTime::GetMsTickTime();
    for (;;) {
        if (exiting) {
            // OnExit is running on another thread and ends the process itself.
            for (;;)
                ZvTime::Sleep(100);
        }
        if (statsOn)
            OutputStats();
        for (unsigned i = 0; i < kWaitsPerPass; ++i) {
            if (endOfRun.Wait(kLoopWaitMs)) {
                HandlePortFailure();
                break;
            }
            if (exiting)
                break;
            if (ZlbsTgtDbActive(*this)) {
                ZvAString text;
                int progress = ZlbsTgtDbCheckProgress(*this, text);
                if (progress == 1) {
                    ZvLog::Error("%s",
                                 text.empty() ? "Target database extraction error." : text.c_str());
                    OnExit(51);
                }
                if (progress == 2) {
                    if (noisiness > 1)
                        ZvLog::Status("Target database extraction complete.");
                    OnExit(0);
                }
            } else if (args.timeLimitMs > 0 && !args.daemonMode &&
                       ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()) >=
                           static_cast<unsigned>(args.timeLimitMs)) {
                OnExit(0);
            }
        }
    }
}

void Zlbs::HandlePortFailure() {
    if (exiting)
        return;
    serial.OnClose();
    CheckForTargetCrash();
    // A signal during the check: OnExit is ending the run with its status.
    if (exiting)
        return;
    if (args.daemonMode && !args.exitOnPortFailure) {
        ZlbsDaemonPortFailed(*this);
        return;
    }
    OnExit(50);
}
