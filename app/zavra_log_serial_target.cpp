// The port of the target: opening and closing it, the start-of-log exchange, the script, and the
// client bytes that go down to the target.
#include <cstdio>

#include "zavra_log_serial_app.h"
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

void FindAtInterface(Zlbs& app) {
    app.atInterface = ZvInterfaceInfo();
    app.detect.Refresh();
    const ZvInterfaceInfo* at = app.detect.FindAtInterface(app.args.devicePath.c_str());
    if (at == nullptr)
        return;
    app.atInterface = *at;
    if (noisiness > 4)
        ZvLog::Status("Found modem port %s, %s, %s", at->portName.c_str(), at->friendlyName.c_str(),
                      at->uniqueId.c_str());
}

} // namespace

void ZlbsSendMessages::SendMsg(unsigned, unsigned char* data, unsigned size) {
    m_serial.Send(size, data);
}

bool ZlsOpenPort() {
    Zlbs& app = ZlbsApp();
    app.lastPortError.clear();
    app.lastPortReason.clear();
    app.serial.SetPortName(app.args.devicePath.c_str());
    app.serial.OnClose();
    app.serial.ResetByteCounts();
    if (app.serial.GetRxHandler() == nullptr || !app.serial.OnOpen()) {
        app.lastPortError.Printf("Failed to open the serial logging interface '%s'.",
                                 app.args.devicePath.c_str());
        if (app.serial.GetLastError() != 0)
            app.lastPortReason = ZvSerial::DescribeOpenError(app.serial.GetLastError());
        return false;
    }
    return true;
}

void ZlsClosePort() {
    ZlbsApp().serial.OnClose();
}

bool ZlsInitialiseTarget() {
    Zlbs& app = ZlbsApp();
    if (!app.args.crashCheckDisabled)
        FindAtInterface(app);

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

void ZlbsDownStreamSocketInputCallback(unsigned char, unsigned char* data, unsigned length) {
    Zlbs& app = ZlbsApp();
    // Once the run is ending nothing more goes down: a client that keeps sending would otherwise
    // hold off the quiet period before the channel is closed for ever.
    if (app.exiting)
        return;
    app.serial.Send(length, data);
    app.lastSendTick = ZvTime::GetMsTickTime();
}
