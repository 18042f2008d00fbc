// The port of the target: opening and closing it, the start-of-log exchange, the script, and the
// client bytes that go down to the target.
#include <sys/ioctl.h>

#include <cstdio>

#include "zavra_log_serial_app.h"
#include "zavra_log_serial_daemon.h"
#include "zavra_log_serial_port_select.h"
#include "zavra_log_serial_tgt_db.h"
#include "zv-time.h"

namespace {

void SendScript(Zlbs& app) {
    if (app.scriptRecord == nullptr)
        return;
    if (noisiness > 4)
        ZvLog::Status("Sending script data.");
    app.scriptReader.Rewind();
    while (app.scriptReader.ReadRecord(app.scriptRecord))
        app.serial.Send(app.scriptRecord->GetTotalSize(),
                        const_cast<unsigned char*>(app.scriptRecord->GetData()));
}

// A warning, and in daemon mode a journal line too.
void Report(Zlbs& app, const ZvAString& text) {
    ZvLog::Warning("%s", text.c_str());
    if (app.args.daemonMode)
        ZlbsDaemonJournal(app, text);
}

void FindAtInterface(Zlbs& app) {
    app.atInterface = ZvInterfaceInfo();
    app.detect.Refresh();
    // The same device, whatever name reaches it: a /dev/serial/by-id link finds its modem too.
    const ZvInterfaceInfo* at = app.detect.FindAtInterface(app.args.devicePath.c_str());
    if (at == nullptr) {
        // Without an AT port a crash would pass unnoticed: said once, not at every re-open.
        if (!app.atPortMissingReported) {
            ZvAString text;
            text.Printf("The crash check cannot find the AT port: '%s' is not a port of a detected "
                        "USB modem, so a crash of the modem will not be retrieved.",
                        app.args.devicePath.c_str());
            Report(app, text);
        }
        app.atPortMissingReported = true;
        return;
    }
    app.atPortMissingReported = false;
    app.atInterface = *at;
    if (noisiness > 4)
        ZvLog::Status("Found modem port %s, %s, %s", at->portName.c_str(), at->friendlyName.c_str(),
                      at->uniqueId.c_str());
}

// A definition file or device detection is matched again; false with the reason in the last
// port error when nothing matches (the old node may now be another interface of the modem, so
// it is not tried).
bool FindPortAgain(Zlbs& app) {
    if (app.args.portSource == ZlbsPortSource::Option)
        return true;
    app.detect.Refresh();
    ZvAString port;
    if (!ZlbsFindPortAgain(app.args, app.detect, port, app.lastPortError))
        return false;
    app.args.devicePath = port;
    return true;
}

// Once per change of node: which node the port now uses, and how it was named.
void NotePortNode(Zlbs& app) {
    const ZlbsArgData& args = app.args;
    const ZvAString node = args.portSource == ZlbsPortSource::Option
                               ? ZvAString(ZvSerial::ResolvePortName(args.devicePath.c_str()))
                               : args.devicePath;
    if (!app.portNode.empty() && node != app.portNode) {
        ZvAString named, text;
        if (args.portSource == ZlbsPortSource::Option)
            named.Printf("'%s'", args.devicePath.c_str());
        else if (args.portSource == ZlbsPortSource::DefinitionFile)
            named.Printf("from '%s'", args.definitionFile.c_str());
        else
            named = "found by device detection";
        text.Printf("The serial logging interface %s is now '%s' (it was '%s').", named.c_str(),
                    node.c_str(), app.portNode.c_str());
        Report(app, text);
    }
    app.portNode = node;
}

// The modem's side of a USB ACM port may open a moment after the host's (its firmware starts
// late), and whatever the host sent before is lost. Such a port reports the modem's side through
// DSR; a modem that is ready raises it with the enumeration, and the host hears of it a few
// milliseconds after its open. So the start-up messages wait up to kModemSideWaitMs for DSR; when
// it is still low they go out all the same (a device that never reports its lines must still be
// served), and the port reader sends them again once DSR rises. Waiting on the line state rather
// than resending after a silence keeps the stream as it is for a ready modem and for a modem that
// is merely quiet, and reacts within a fraction of a second to the one that came up late. A port
// without modem lines (a pseudo-terminal) is not waited on.
const unsigned kModemSideWaitMs = 300;
const unsigned kModemSidePollMs = 10;

// False for a port without modem lines; else `ready` tells whether DSR is up.
bool WaitForModemSide(ZvItfAsyncSerial& serial, bool& ready) {
    int lines = 0;
    if (!serial.GetModemLines(lines))
        return false;
    const unsigned start = ZvTime::GetMsTickTime();
    while ((lines & TIOCM_DSR) == 0 &&
           ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()) < kModemSideWaitMs) {
        ZvTime::Sleep(kModemSidePollMs);
        if (!serial.GetModemLines(lines))
            return false;
    }
    ready = (lines & TIOCM_DSR) != 0;
    return true;
}

// OS_LOG_CHANNEL_CLOSE, then unless extracting the flush, the host time, OS_LOG_CHANNEL_OPEN and
// the script. The caller holds the start lock.
void SendStartMessages(Zlbs& app) {
    if (noisiness > 4)
        ZvLog::Status("Sending OS_LOG_CHANNEL_CLOSE message to target.");
    app.sender.SendCloseChannel();
    if (!ZlbsTgtDbActive(app)) {
        if (app.args.flushTargetBuffers) {
            if (noisiness > 4)
                ZvLog::Status("Sending OS_LOG_FLUSH_LOG_BUFFER message to target.");
            app.sender.SendFlushBuffer();
        }
        if (noisiness > 4)
            ZvLog::Status("Sending OS_LOG_HOST_TIME message to KOR1.");
        app.sender.SendHostTime();
        if (noisiness > 4)
            ZvLog::Status("Sending OS_LOG_CHANNEL_OPEN message to target.");
        app.sender.SendOpenChannel();
        SendScript(app);
    }
}

} // namespace

void ZlbsSendMessages::SendMsg(unsigned, unsigned char* data, unsigned size) {
    m_serial.Send(size, data);
}

bool ZlsOpenPort() {
    Zlbs& app = ZlbsApp();
    app.lastPortError.clear();
    app.lastPortReason.clear();
    app.serial.OnClose();
    app.serial.ResetByteCounts();
    if (!FindPortAgain(app))
        return false;
    app.serial.SetPortName(app.args.devicePath.c_str());
    if (app.serial.GetRxHandler() == nullptr || !app.serial.OnOpen()) {
        app.lastPortError.Printf("Failed to open the serial logging interface '%s'.",
                                 app.args.devicePath.c_str());
        if (app.serial.GetLastError() != 0)
            app.lastPortReason = ZvSerial::DescribeOpenError(app.serial.GetLastError());
        return false;
    }
    NotePortNode(app);
    return true;
}

void ZlsClosePort() {
    ZlbsApp().serial.OnClose();
}

bool ZlsInitialiseTarget() {
    Zlbs& app = ZlbsApp();
    if (!app.args.crashCheckDisabled)
        FindAtInterface(app);

    bool ready = false;
    const bool hasLines = WaitForModemSide(app.serial, ready);
    {
        std::lock_guard<std::mutex> lock(app.startLock);
        SendStartMessages(app);
        if (hasLines)
            app.serial.WatchPeerReady(ready);
    }

    unsigned now = ZvTime::GetMsTickTime();
    app.lastSendTick = now;
    app.statsTick = now;
    app.statsBytes = 0;

    if (!app.args.daemonMode && app.socketStream.IsOpen()) {
        if (noisiness > 4)
            ZvLog::Status("Releasing input data from socket.");
        app.socketStream.Release();
    }
    return true;
}

void ZlsModemSideOpened() {
    Zlbs& app = ZlbsApp();
    std::lock_guard<std::mutex> lock(app.startLock);
    // The end of the run closes the channel for good; it must not be opened again behind it.
    if (app.exiting)
        return;
    const char* text = "The modem's side of the port opened late: the start-up messages are sent "
                       "again.";
    if (noisiness > 4)
        ZvLog::Status("%s", text);
    if (app.args.daemonMode)
        ZlbsDaemonJournal(app, text);
    SendStartMessages(app);
    app.lastSendTick = ZvTime::GetMsTickTime();
}

void ZlbsDownStreamSocketInputCallback(unsigned char, unsigned char* data, unsigned length) {
    Zlbs& app = ZlbsApp();
    // Once the run is ending nothing more goes down: a client that keeps sending would otherwise
    // hold off the quiet period before the channel is closed for ever.
    if (app.exiting)
        return;
    app.serial.Send(length, data);
    app.lastSendTick = ZvTime::GetMsTickTime();
}
