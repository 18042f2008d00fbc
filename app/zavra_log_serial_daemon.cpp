// Daemon mode: ZlSerialZomDaemon binds the store's port hooks to the tool's serial interface, and
// ZlbsRxDaemon hands every chunk the port reader delivers to the store.
#include "zavra_log_serial_daemon.h"

#include <cerrno>

#include "zavra_log_serial_app.h"
#include "zavra_log_serial_crash.h"
#include "zavra_log_zom_daemon.h"
#include "zv-time.h"

namespace {

class ZlSerialZomDaemon : public ZlZomDaemon {
public:
    ~ZlSerialZomDaemon() override { Shutdown(); }

protected:
    void ClosePort() override { ZlsClosePort(); }
    bool OpenPort() override { return ZlsOpenPort(); }
    void SendPort(unsigned char* data, unsigned int size) override {
        Zlbs& app = ZlbsApp();
        app.serial.Send(size, data);
        app.lastSendTick = ZvTime::GetMsTickTime();
    }
    bool InitialiseTarget() override { return ZlsInitialiseTarget(); }
    // The target closes its log channel when the client goes; a new client finds it open again.
    void SocketClientDisconnect() override {
        Zlbs& app = ZlbsApp();
        if (!app.serial.IsOpen())
            return;
        if (noisiness > 4)
            ZvLog::Status("Sending OS_LOG_CHANNEL_OPEN message to target.");
        app.sender.SendOpenChannel();
    }
    // Every segment file starts with the host time, so each can be read on its own.
    void OnNewLogSegment() override { ZlbsApp().sender.SendHostTime(); }
    // The port as the user named it, or the node the definition file or detection gave last.
    ZvAString PortName() override { return ZlbsApp().args.devicePath; }
    ZvAString PortOpenFailure() override {
        Zlbs& app = ZlbsApp();
        ZvAString text = app.lastPortError;
        if (!app.lastPortReason.empty()) {
            text.pop_back(); // the full stop, so that the reason joins the sentence
            text += " (";
            text += app.lastPortReason;
            text += ").";
        }
        return text;
    }
};

class ZlbsRxDaemon : public ZlbsRxBase {
public:
    ZlbsRxDaemon(ZvSema& endOfRun, ZlZomDaemon& store) : ZlbsRxBase(endOfRun), m_store(store) {}
    void OnRxData(unsigned int count, unsigned char* data) override {
        m_store.NewLogData(data, count);
    }

private:
    ZlZomDaemon& m_store;
};

// Made on first use and never destroyed, like the application object: the store's threads may
// still be in a hook while the process exits.
ZlSerialZomDaemon& Store() {
    static ZlSerialZomDaemon* store = new ZlSerialZomDaemon;
    return *store;
}

} // namespace

void ZlbsDaemonStart(Zlbs& app) {
    ZlSerialZomDaemon& store = Store();
    // A second daemon must leave the first one alone: its directory (journal and files) and its
    // port are refused before anything of them is touched.
    ZvAString lockError;
    if (!store.LockDirectory(app.args.daemonDirectory, lockError))
        error(ZLBS_ERROR_FILE, errno, "%s", lockError.c_str());
    const char* port = app.args.devicePath.c_str();
    if (ZvSerial::IsHeldByAnother(port)) {
        ZvLog::Error("The serial logging interface '%s' cannot be opened: %s.", port,
                     ZvSerial::DescribeOpenError(EWOULDBLOCK));
        error(ZLBS_ERROR_PORT, EWOULDBLOCK, "Failed to open the serial logging interface '%s'.",
              port);
    }
    store.SetKeepFirstSegment(app.args.keepFirstSegment);
    static ZlbsRxDaemon* rxDaemon = new ZlbsRxDaemon(app.endOfRun, store);
    app.serial.SetRxHandler(rxDaemon);
    if (app.args.socketServer) {
        store.SetSocketPort(static_cast<int>(app.args.socketPort));
        store.SetSocketHost(app.args.socketAddress);
    }
    if (!store.Initialise(app.args.daemonDirectory, app.args.daemonTotalSize,
                          app.args.daemonFileSize, app.version))
        error(ZLBS_ERROR_FILE, errno, "Failed to initialise daemon mode.");
    // A run that was killed in the middle of a crash check left its check folder; the directory
    // is this daemon's alone now.
    ZvAStringList stale;
    ZlbsCrashRemoveStaleWorkDirs(app.args.daemonDirectory.c_str(), stale);
    for (unsigned i = 0; i < stale.Count(); ++i)
        store.LogText("Removed the folder '%s' of an unfinished crash check.", stale[i].c_str());
}

void ZlbsDaemonPortFailed(Zlbs&) {
    Store().PortFailureDetected();
}

void ZlbsDaemonCrashFileName(Zlbs&, ZvAString& name) {
    Store().GetCrashFileName(name);
}

unsigned long long ZlbsDaemonCrashRoom(Zlbs&) {
    return Store().RoomForCrash();
}

void ZlbsDaemonMakeRoomForCrash(Zlbs&, unsigned long long bytes) {
    Store().MakeRoomForCrash(bytes);
}

void ZlbsDaemonAddCrashBundle(Zlbs&, const ZvAString& baseName) {
    Store().AddCrashBundle(baseName);
}

void ZlbsDaemonJournal(Zlbs&, const char* text) {
    Store().LogText("Crash check: %s", text);
}

void ZlbsDaemonExit(Zlbs&) {
    Store().Shutdown();
}

void ZlbsDaemonJournal(Zlbs&, const ZvAString& text) {
    Store().LogText("%s", text.c_str());
}
