#include "zsim-modem-core.h"

#include <algorithm>
#include <poll.h>
#include <unistd.h>

namespace zsim {

namespace {

FILE* OpenOutput(const std::string& path, std::string& error) {
    if (path.empty()) {
        return nullptr;
    }
    FILE* file = std::fopen(path.c_str(), "wbe");
    if (!file) {
        error = "Failed to open '" + path + "'.";
    } else {
        static const size_t kBuffer = 1 << 20;
        std::setvbuf(file, nullptr, _IOFBF, kBuffer);
    }
    return file;
}

void CloseOutput(FILE*& file) {
    if (file) {
        std::fclose(file);
        file = nullptr;
    }
}

} // namespace

ModemCore::ModemCore(const ModemOptions& options)
    : options(options), ids(MessageIds::FromBase(options.baseId)), crash(options.crash),
      start_(Clock::now()),
      // No directory: the modem that Start has not set up yet, which has no port path either.
      port_(options.dir.empty() ? std::string() : options.dir + "/" + options.portName,
            options.drainTimeoutMs),
      pump_(options.gen, ids, counters_), host_(options, ids, counters_, start_),
      faults_(options.fail, options.crash, start_) {}

ModemCore::~ModemCore() {
    Stop();
}

bool ModemCore::Start(std::string& error) {
    tee_ = OpenOutput(options.teeFile, error);
    rx_ = OpenOutput(options.rxFile, error);
    transcript_ = OpenOutput(options.transcriptFile, error);
    pump_.SetTee(tee_);
    host_.SetFiles(rx_, transcript_);
    if (!wake_.Open() && error.empty()) {
        error = "Failed to create the wake-up event.";
    }
    if (options.gadget) {
        port_.ServeOnGadget(options.gadget);
    }
    if (error.empty() && !port_.BringUp(start_, &error)) {
        error = "Failed to create the logging port: " + error;
    }
    if (error.empty()) {
        counters_.portUp = true;
        pump_.Restart(start_);
        crash.Start(
            options.dir + "/" + options.crash.atPortName, transcript_, start_,
            [this] { OnReset(); }, options.gadget, error);
    }
    if (!error.empty()) {
        port_.Close();
        CloseOutput(tee_);
        CloseOutput(rx_);
        CloseOutput(transcript_);
        wake_.Close();
        return false;
    }
    worker_ = std::thread([this] { Run(); });
    return true;
}

void ModemCore::Stop() {
    if (!worker_.joinable()) {
        return;
    }
    crash.Stop(); // before the transcript it writes to is closed
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopRequested_ = true;
    }
    wake_.Signal();
    worker_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    CloseOutput(tee_);
    CloseOutput(rx_);
    CloseOutput(transcript_);
    wake_.Close();
}

void ModemCore::Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!port_.Is(LogPort::State::Stopped)) {
        int timeout = 100;
        bool wantWrite = false;
        Step(Clock::now(), timeout, wantWrite);
        changed_.notify_all();
        if (port_.Is(LogPort::State::Stopped)) {
            break;
        }
        int fd = port_.Active() ? port_.MasterFd() : -1;
        lock.unlock();
        pollfd fds[2] = {{wake_.Fd(), POLLIN, 0},
                         {fd, static_cast<short>(POLLIN | (wantWrite ? POLLOUT : 0)), 0}};
        int ready = poll(fds, fd >= 0 ? 2 : 1, timeout);
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            wake_.Clear();
        }
        lock.lock();
        if (ready > 0 && fd >= 0 && fd == port_.MasterFd() && (fds[1].revents & POLLIN)) {
            host_.Read(fd, pump_.Queue());
        }
    }
    changed_.notify_all();
}

void ModemCore::Step(Clock::time_point now, int& timeout, bool& wantWrite) {
    using State = LogPort::State;
    if (stopRequested_ && !stopping_) {
        stopping_ = true;
        if (port_.Is(State::Up)) {
            port_.BeginDrain(now, 0, false);
        } else if (port_.Is(State::Down)) {
            port_.Close();
            return;
        }
    }
    unsigned downMs = 0;
    bool comeBack = true;
    if (faults_.TakeHangUp(downMs, comeBack) && port_.Is(State::Up)) {
        port_.BeginDrain(now, downMs, comeBack);
    }
    if (faults_.TakeCrash()) {
        Crash(now);
    }
    if (faults_.CrashTimeDue(now, timeout)) {
        Crash(now);
    }
    const FailureOptions& fail = faults_.Failure();
    if (port_.Is(State::Up) && faults_.FailTimeDue(now, port_.UpSince(), timeout)) {
        port_.BeginDrain(now, fail.downMs, fail.comeBack);
    }
    if (port_.Is(State::Up)) {
        switch (pump_.Write(port_.MasterFd(), now, timeout, faults_, wantWrite)) {
        case Faults::Due::Crash:
            Crash(now);
            break;
        case Faults::Due::PortFailure:
            port_.BeginDrain(now, fail.downMs, fail.comeBack);
            break;
        case Faults::Due::None:
            break;
        }
    }
    if (port_.Is(State::Draining) && port_.Drained(now, timeout)) {
        FinishHangUp(now);
    }
    if (port_.Is(State::Down)) {
        if (stopping_) {
            port_.Close();
        } else if (port_.ComeBackDue(now, timeout)) {
            BringUp(now);
        }
    }
}

void ModemCore::BringUp(Clock::time_point now) {
    if (!port_.BringUp(now)) {
        return;
    }
    if (counters_.hangUps > 0) {
        ++counters_.connection;
    }
    counters_.portUp = true;
    pump_.Restart(now);
}

void ModemCore::FinishHangUp(Clock::time_point now) {
    counters_.discarded += port_.HangUp(now);
    ++counters_.hangUps;
    counters_.portUp = false;
    counters_.channelOpen = false;
    // The modem restarts: whatever it was about to say is gone, and so is a half-received record.
    counters_.dropped += pump_.Drop();
    host_.DropPending();
    if (tee_) {
        std::fflush(tee_);
    }
    crash.OnHungUp();
}

void ModemCore::Crash(Clock::time_point now) {
    crash.Fire(now, port_, counters_);
}

// The AT port went back to modem mode (a reset): the logging port returns as a new connection.
void ModemCore::OnReset() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        crash.Reset(Clock::now(), port_, counters_, stopping_);
    }
    changed_.notify_all();
    wake_.Signal();
}

void ModemCore::Apply(const Control& control) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        switch (control.kind) {
        case Control::Kind::HangUp:
            faults_.RequestHangUp(static_cast<unsigned>(control.count), control.on);
            break;
        case Control::Kind::Crash:
            faults_.RequestCrash();
            break;
        case Control::Kind::Inject: {
            Chunk chunk;
            chunk.kind = Chunk::Raw;
            chunk.bytes = control.bytes;
            pump_.Queue().push_back(std::move(chunk));
            break;
        }
        case Control::Kind::InjectGarbage:
            pump_.Queue().push_back(pump_.Stream().MakeGarbage(control.count));
            break;
        case Control::Kind::InjectTruncated:
            pump_.Queue().push_back(pump_.Stream().MakeTruncated());
            break;
        case Control::Kind::StreamOn:
            pump_.SetStreamOn(control.on);
            break;
        case Control::Kind::Rate:
            pump_.SetRate(control.count);
            break;
        case Control::Kind::DbFault:
            host_.SetDbFault(control.dbFault);
            break;
        case Control::Kind::CrashFault:
            crash.SetFault(control.crashFault);
            break;
        }
    }
    wake_.Signal();
}

ModemCounters ModemCore::Snapshot() const {
    ModemCounters c = counters_;
    c.unread = port_.Active() ? static_cast<uint64_t>(port_.Unread()) : 0;
    c.delivered = c.sent - c.discarded - c.unread;
    c.atMode = crash.AtMode();
    return c;
}

bool ModemCore::WaitUntil(Condition condition, unsigned timeoutMs) const {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (condition(Snapshot())) {
            return true;
        }
        const auto now = Clock::now();
        if (now >= deadline) {
            return false;
        }
        changed_.wait_until(lock, std::min(deadline, now + std::chrono::milliseconds(5)));
    }
}

void ModemCore::FlushFiles() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (FILE* file : {tee_, rx_, transcript_}) {
        if (file) {
            std::fflush(file);
        }
    }
}

ModemCounters ModemCore::Counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return Snapshot();
}

std::vector<HostRecord> ModemCore::Records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return host_.Records();
}

Bytes ModemCore::RawReceived() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return host_.Raw();
}

} // namespace zsim
