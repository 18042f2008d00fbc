// The orderly end of a run: OnExit with its drain and channel close, the statistics line, and
// the routing of SIGINT and SIGTERM.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "zavra_log_serial_app.h"
#include "zavra_log_serial_crash.h"
#include "zavra_log_serial_daemon.h"
#include "zavra_log_serial_tgt_db.h"
#include "zv-thread.h"
#include "zv-time.h"

namespace {

void ZlbsCloseChannelThread(ZvThread*, void* arg) {
    Zlbs& app = *static_cast<Zlbs*>(arg);
    if (noisiness > 4)
        ZvLog::Status("Sending OS_LOG_CHANNEL_CLOSE message to target.");
    app.sender.SendCloseChannel();
}

sigset_t ExitSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

void SignalThread(void*) {
    sigset_t set = ExitSignals();
    for (;;) {
        int sig = 0;
        if (sigwait(&set, &sig) == 0)
            SignalHandler(sig);
    }
}

} // namespace

void Zlbs::OnExit(int code) {
    bool expected = false;
    if (!exiting.compare_exchange_strong(expected, true)) {
        // Another thread is already ending the run, and will end the process.
        for (;;)
            ZvTime::Sleep(1000);
    }
    exitCode = code;
    scriptReader.Close();
    // A crash check still running loses its half-retrieved files, but leaves none behind.
    ZlbsCrashWorkDirRemove();

    if (serial.IsOpen()) {
        if (!ZlbsTgtDbActive(*this)) {
            bool told = false;
            while (ZvTime::DiffMsTime(lastSendTick, ZvTime::GetMsTickTime()) < kExitDrainMs) {
                if (!told)
                    fprintf(stderr, "\nWaiting for sends to complete\n");
                told = true;
                ZvTime::Sleep(200);
            }
        }
        // A port that no longer takes data must not hold the exit: the thread gets 300 ms.
        static ZvThread closeThread;
        if (closeThread.Create(ZlbsCloseChannelThread, this))
            closeThread.WaitForThreadFinish(kCloseChannelWaitMs);
        if (statsOn)
            OutputStats();
        serial.OnClose();
    }
    rxNormal.CloseFile();
    if (args.daemonMode)
        ZlbsDaemonExit(*this);
    else
        socketStream.Close();

    if (noisiness == 2)
        fputc('\n', stderr);
    if (rxNormal.FileWriteFailures() != 0)
        ZvLog::Error("Failed to write %llu bytes to the output file (%llu failed writes).",
                     rxNormal.FileBytesLost(), rxNormal.FileWriteFailures());
    if (noisiness > 4) {
        if (socketStream.DroppedChunks() != 0)
            ZvLog::Status("Socket client missed %llu bytes in %llu chunks.",
                          static_cast<unsigned long long>(socketStream.DroppedBytes()),
                          static_cast<unsigned long long>(socketStream.DroppedChunks()));
        fprintf(stderr, "\nExit with code %d\n", exitCode);
    }
    exitFinished = true;
    fflush(nullptr);
    // The main thread may still be inside a crash check, in libudev or the file library: the
    // static destructors of a normal exit (libudev unloaded among them) would pull them from
    // under it.
    if (ZlbsCrashCheckRunning())
        _exit(exitCode);
    exit(exitCode);
}

void Zlbs::OutputStats() {
    unsigned long long received = serial.GetBytesReceived();
    fprintf(stderr, "Merged Stream: %llu/%llu bytes. ", received,
            static_cast<unsigned long long>(serial.GetBytesSent()));
    unsigned now = ZvTime::GetMsTickTime();
    unsigned elapsed = ZvTime::DiffMsTime(statsTick, now);
    if (elapsed != 0) {
        unsigned long long perSecond = (received - statsBytes) * 1000ull / elapsed;
        fprintf(stderr, "throughput %3.3fMB/s ", static_cast<double>(perSecond) / 1000000.0);
        statsBytes = received;
        statsTick = now;
    }
    fputc('\r', stderr);
    fflush(stderr);
}

void SignalHandler(int sig) {
    if (sig == SIGINT || sig == SIGTERM)
        ZlbsApp().OnExit(sig);
}

void ZlbsInstallSignalHandling() {
    // Standard error may be a pipe whose reader has gone (a logger that ended): writing the
    // statistics line there must not end the capture.
    signal(SIGPIPE, SIG_IGN);
    sigset_t set = ExitSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    ZvThreadStartFreeThread(SignalThread, nullptr);
}
