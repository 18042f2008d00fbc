#include "zsim-modem.h"

#include "zsim-at-server.h"
#include "zsim-crash-data.h"
#include "zsim-db-server.h"
#include "zsim-generator.h"
#include "zsim-transcript.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace zsim {

using Clock = std::chrono::steady_clock;

namespace {

int MsUntil(Clock::time_point now, Clock::time_point then) {
    if (then <= now) {
        return 0;
    }
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(then - now).count() + 1;
    return ms > 1000 ? 1000 : static_cast<int>(ms);
}

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

size_t HostRecord::BodySize() const {
    return RecordBodySize(layout, bytes.data(), bytes.size());
}

struct Modem::Impl {
    enum class State { Up, Draining, Down, Stopped };

    ModemOptions opt;
    MessageIds ids{};
    std::string linkPath;
    Clock::time_point startTime;

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::thread worker;
    int wakeFd = -1;

    PtyPort port;
    std::unique_ptr<Generator> generator;
    std::unique_ptr<DbServer> db;
    WireParser parser;
    ModemCounters counters;
    std::vector<HostRecord> records;
    Bytes raw;
    std::deque<Chunk> queue; // injected bytes and database answers go before generated ones
    Chunk current;
    bool haveCurrent = false;
    FILE* tee = nullptr;
    FILE* rxFile = nullptr;
    FILE* transcript = nullptr;

    State state = State::Down;
    bool stopRequested = false;
    bool stopping = false;
    bool hangUpRequested = false;
    unsigned requestedDownMs = 0;
    bool requestedComeBack = true;
    Clock::time_point drainDeadline, nextHostCheck, comeBackAt, portUpTime, lastChunkEnd;
    int emptyChecks = 0;
    unsigned downMs = 0;
    bool comeBack = true;
    bool failBytesFired = false;
    bool failMsFired = false;
    uint64_t sentThisPort = 0;
    uint64_t rate = 0;
    double tokens = 0;
    Clock::time_point lastRefill;
    bool generatorEnabled = true;
    std::unique_ptr<AtServer> at;
    bool crashRequested = false;
    bool crashBytesFired = false;
    bool crashMsFired = false;
    bool atReturnAfterHangUp = false;

    void Wake() const {
        uint64_t one = 1;
        if (wakeFd >= 0 && write(wakeFd, &one, sizeof one) < 0) {
            // The counter only fails when full, and then the worker is awake anyway.
        }
    }

    void Run();
    void Step(Clock::time_point now, int& timeout, bool& wantWrite);
    void BeginDrain(Clock::time_point now, unsigned down, bool back);
    void FinishHangUp(Clock::time_point now);
    bool BringUp(Clock::time_point now, std::string* error = nullptr);
    bool NextChunk(Clock::time_point now, int& timeout);
    bool WriteOut(Clock::time_point now, int& timeout);
    void Account(size_t count);
    void FireCrash(Clock::time_point now);
    bool CrashBytesDue(size_t& want);
    void ReturnAtPort();
    void OnAtBack();
    void ReadHost();
    void TakeRecord(WireRecord& wire, Clock::time_point now);
    bool StreamLimitReached() const {
        return opt.gen.stopAfterBytes && counters.streamBytes >= opt.gen.stopAfterBytes;
    }
    ModemCounters Snapshot() const {
        ModemCounters c = counters;
        int unread = state == State::Up || state == State::Draining ? port.Unread() : 0;
        c.delivered = c.sent - c.discarded - static_cast<uint64_t>(unread);
        return c;
    }
    template <class Pred>
    bool WaitFor(unsigned timeoutMs, Pred pred) const {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_until(lock, Clock::now() + std::chrono::milliseconds(timeoutMs), pred);
    }
};

void Modem::Impl::Run() {
    std::unique_lock<std::mutex> lock(mutex);
    while (state != State::Stopped) {
        int timeout = 100;
        bool wantWrite = false;
        Step(Clock::now(), timeout, wantWrite);
        changed.notify_all();
        if (state == State::Stopped) {
            break;
        }
        int fd = state == State::Up || state == State::Draining ? port.MasterFd() : -1;
        lock.unlock();
        pollfd fds[2] = {{wakeFd, POLLIN, 0},
                         {fd, static_cast<short>(POLLIN | (wantWrite ? POLLOUT : 0)), 0}};
        int ready = poll(fds, fd >= 0 ? 2 : 1, timeout);
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            uint64_t value;
            if (read(wakeFd, &value, sizeof value) < 0) {
                // Nothing to do: the wake-up has been seen either way.
            }
        }
        lock.lock();
        if (ready > 0 && fd >= 0 && fd == port.MasterFd() && (fds[1].revents & POLLIN)) {
            ReadHost();
        }
    }
    changed.notify_all();
}

void Modem::Impl::Step(Clock::time_point now, int& timeout, bool& wantWrite) {
    if (stopRequested && !stopping) {
        stopping = true;
        if (state == State::Up) {
            BeginDrain(now, 0, false);
        } else if (state == State::Down) {
            port.Close();
            state = State::Stopped;
            return;
        }
    }
    if (hangUpRequested) {
        hangUpRequested = false;
        if (state == State::Up) {
            BeginDrain(now, requestedDownMs, requestedComeBack);
        }
    }
    if (crashRequested) {
        crashRequested = false;
        FireCrash(now);
    }
    if (opt.crash.afterMs && !crashMsFired) {
        auto due = startTime + std::chrono::milliseconds(opt.crash.afterMs);
        if (now >= due) {
            crashMsFired = true;
            FireCrash(now);
        } else {
            timeout = std::min(timeout, MsUntil(now, due));
        }
    }
    if (state == State::Up) {
        if (opt.fail.afterMs && !failMsFired) {
            auto due = portUpTime + std::chrono::milliseconds(opt.fail.afterMs);
            if (now >= due) {
                failMsFired = true;
                BeginDrain(now, opt.fail.downMs, opt.fail.comeBack);
            } else {
                timeout = std::min(timeout, MsUntil(now, due));
            }
        }
    }
    if (state == State::Up) {
        wantWrite = WriteOut(now, timeout);
    }
    if (state == State::Draining) {
        emptyChecks = port.Unread() == 0 ? emptyChecks + 1 : 0;
        bool done = emptyChecks >= 3 || now >= drainDeadline;
        if (!done && now >= nextHostCheck) {
            // Nobody has the port open: what is queued will never be read.
            nextHostCheck = now + std::chrono::milliseconds(50);
            done = !port.HostHasOpen();
        }
        if (done) {
            FinishHangUp(now);
        } else {
            timeout = std::min(timeout, 5);
        }
    }
    if (state == State::Down) {
        if (stopping) {
            port.Close();
            state = State::Stopped;
        } else if (comeBack) {
            if (now >= comeBackAt) {
                BringUp(now);
            } else {
                timeout = std::min(timeout, MsUntil(now, comeBackAt));
            }
        }
    }
}

void Modem::Impl::BeginDrain(Clock::time_point now, unsigned down, bool back) {
    state = State::Draining;
    downMs = down;
    comeBack = back;
    emptyChecks = 0;
    drainDeadline = now + std::chrono::milliseconds(opt.drainTimeoutMs);
    nextHostCheck = now + std::chrono::milliseconds(20);
}

void Modem::Impl::FinishHangUp(Clock::time_point now) {
    counters.discarded += port.HangUp();
    ++counters.hangUps;
    counters.portUp = false;
    counters.channelOpen = false;
    // The modem restarts: whatever it was about to say is gone, and so is a half-received record.
    haveCurrent = false;
    queue.clear();
    parser.DropPending();
    counters.rxSkipped = parser.SkippedBytes();
    if (tee) {
        std::fflush(tee);
    }
    state = State::Down;
    comeBackAt = now + std::chrono::milliseconds(downMs);
    if (atReturnAfterHangUp) {
        atReturnAfterHangUp = false;
        ReturnAtPort();
    }
}

void Modem::Impl::FireCrash(Clock::time_point now) {
    if (counters.crashed) {
        return;
    }
    counters.crashed = true;
    ++counters.crashes;
    if (at) {
        at->GoAway();
    }
    // The logging port goes down and stays down until the host resets the modem; the AT port
    // comes back in the loader once the logging port has hung up.
    if (state == State::Up) {
        BeginDrain(now, 0, false);
        atReturnAfterHangUp = true;
    } else if (state == State::Draining) {
        comeBack = false;
        atReturnAfterHangUp = true;
    } else if (state == State::Down) {
        comeBack = false;
        ReturnAtPort();
    }
}

// Limits `want` to the stream bytes left before the crash; true when the crash is due now.
bool Modem::Impl::CrashBytesDue(size_t& want) {
    if (!opt.crash.afterBytes || crashBytesFired || !current.stream) {
        return false;
    }
    uint64_t left = opt.crash.afterBytes - std::min(counters.streamBytes, opt.crash.afterBytes);
    if (left == 0) {
        crashBytesFired = true;
        return true;
    }
    want = static_cast<size_t>(std::min<uint64_t>(want, left));
    return false;
}

void Modem::Impl::ReturnAtPort() {
    if (at && at->Fault() != CrashFault::NeverComesBack) {
        at->ReturnInLoader(opt.crash.restartMs);
    }
}

// The AT port went back to modem mode (a reset): the logging port returns as a new connection.
void Modem::Impl::OnAtBack() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!counters.crashed) {
            return;
        }
        counters.crashed = false;
        if (state == State::Down && !stopping) {
            comeBack = true;
            comeBackAt = Clock::now() + std::chrono::milliseconds(opt.crash.resetDownMs);
        } else if (state == State::Draining) {
            comeBack = true;
            downMs = opt.crash.resetDownMs;
        }
    }
    changed.notify_all();
    Wake();
}

bool Modem::Impl::BringUp(Clock::time_point now, std::string* error) {
    if (!port.Open(linkPath, error)) {
        comeBackAt = now + std::chrono::milliseconds(100);
        return false;
    }
    if (counters.hangUps > 0) {
        ++counters.connection;
    }
    counters.portUp = true;
    state = State::Up;
    portUpTime = now;
    lastChunkEnd = now;
    lastRefill = now;
    sentThisPort = 0;
    return true;
}

bool Modem::Impl::NextChunk(Clock::time_point now, int& timeout) {
    if (!queue.empty()) {
        auto due = lastChunkEnd + std::chrono::milliseconds(queue.front().gapBeforeMs);
        if (queue.front().gapBeforeMs != 0 && now < due) {
            timeout = std::min(timeout, MsUntil(now, due));
            return false;
        }
        current = std::move(queue.front());
        queue.pop_front();
        haveCurrent = true;
        return true;
    }
    if (!generatorEnabled || counters.generatorDone ||
        !(counters.channelOpen || opt.gen.flowWithoutOpen)) {
        return false;
    }
    if (!opt.gen.enabled || !generator->Next(current)) {
        counters.generatorDone = opt.gen.enabled;
        return false;
    }
    haveCurrent = true;
    return true;
}

// Writes what may be written now. Returns true when the pty is full and there is more to send.
bool Modem::Impl::WriteOut(Clock::time_point now, int& timeout) {
    size_t budget = 1 << 18; // then look at the host's side again
    while (budget > 0 && state == State::Up) {
        if (!haveCurrent && !NextChunk(now, timeout)) {
            return false;
        }
        size_t want = std::min(current.bytes.size() - current.sent, budget);
        if (current.stream && opt.gen.stopAfterBytes) {
            uint64_t left =
                opt.gen.stopAfterBytes - std::min(counters.streamBytes, opt.gen.stopAfterBytes);
            if (left == 0) {
                // Exactly the requested amount is out: the rest of this piece is never sent.
                counters.generatorDone = true;
                haveCurrent = false;
                continue;
            }
            want = std::min<uint64_t>(want, left);
        }
        if (current.stream && rate) {
            double cap = std::max(4096.0, rate / 20.0);
            double elapsed = std::chrono::duration<double>(now - lastRefill).count();
            tokens = std::min(cap, tokens + elapsed * static_cast<double>(rate));
            lastRefill = now;
            double enough = std::min<double>(static_cast<double>(want), 512.0);
            if (tokens < enough) {
                double waitMs = (enough - tokens) * 1000.0 / static_cast<double>(rate);
                timeout = std::min(timeout, std::max(1, static_cast<int>(waitMs + 1)));
                return false;
            }
            want = std::min<size_t>(want, static_cast<size_t>(tokens));
        }
        if (CrashBytesDue(want)) {
            FireCrash(now);
            return false;
        }
        if (opt.fail.afterBytes && !failBytesFired) {
            uint64_t left = opt.fail.afterBytes - std::min(sentThisPort, opt.fail.afterBytes);
            if (left == 0) {
                failBytesFired = true;
                BeginDrain(now, opt.fail.downMs, opt.fail.comeBack);
                return false;
            }
            want = std::min<uint64_t>(want, left);
        }
        ssize_t written = write(port.MasterFd(), current.bytes.data() + current.sent, want);
        if (written <= 0) {
            return written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        }
        Account(static_cast<size_t>(written));
        budget -= static_cast<size_t>(written);
        if (current.stream && rate) {
            tokens -= static_cast<double>(written);
        }
        if (current.sent == current.bytes.size()) {
            haveCurrent = false;
            lastChunkEnd = Clock::now();
        }
    }
    if (StreamLimitReached()) {
        counters.generatorDone = true;
    }
    if (opt.crash.afterBytes && !crashBytesFired && counters.streamBytes >= opt.crash.afterBytes &&
        state == State::Up) {
        crashBytesFired = true;
        FireCrash(now);
    }
    if (opt.fail.afterBytes && !failBytesFired && sentThisPort >= opt.fail.afterBytes &&
        state == State::Up) {
        failBytesFired = true;
        BeginDrain(now, opt.fail.downMs, opt.fail.comeBack);
    }
    return false;
}

void Modem::Impl::Account(size_t count) {
    const uint8_t* data = current.bytes.data() + current.sent;
    if (tee) {
        std::fwrite(data, 1, count, tee);
    }
    current.sent += count;
    counters.sent += count;
    sentThisPort += count;
    (current.stream ? counters.streamBytes : counters.dbBytes) += count;
    if (current.kind == Chunk::Garbage) {
        counters.garbageBytes += count;
    }
    if (current.sent == current.bytes.size()) {
        if (current.kind == Chunk::Record || current.kind == Chunk::DbConfirm) {
            ++counters.records;
            ++counters.recordsByLayoutKor[static_cast<unsigned>(current.layout) - 1]
                                         [std::min(current.kor, 2u)];
        } else if (current.kind == Chunk::Truncated) {
            ++counters.truncatedRecords;
        }
    }
}

void Modem::Impl::ReadHost() {
    uint8_t buffer[65536];
    for (;;) {
        ssize_t got = read(port.MasterFd(), buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        auto now = Clock::now();
        size_t n = static_cast<size_t>(got);
        counters.received += n;
        if (opt.keepRawInMemory) {
            raw.insert(raw.end(), buffer, buffer + n);
        }
        if (rxFile) {
            std::fwrite(buffer, 1, n, rxFile);
        }
        std::vector<WireRecord> found;
        parser.Feed(buffer, n, found);
        for (auto& wire : found) {
            TakeRecord(wire, now);
        }
        counters.rxSkipped = parser.SkippedBytes();
    }
}

void Modem::Impl::TakeRecord(WireRecord& wire, Clock::time_point now) {
    HostRecord record;
    record.id = wire.id;
    record.kor = wire.kor;
    record.layout = wire.layout;
    record.time = wire.time;
    record.offset = wire.offset;
    record.connection = counters.connection;
    record.arrival = now;
    record.arrivalMs = std::chrono::duration<double, std::milli>(now - startTime).count();
    record.bytes = wire.bytes;
    if (transcript) {
        WriteTranscriptLine(transcript, record);
    }
    ++counters.hostRecords;
    if (wire.id == ids.open) {
        counters.channelOpen = true;
    } else if (wire.id == ids.close) {
        counters.channelOpen = false;
    } else if (wire.id == ids.hashReq) {
        ++counters.hashRequests;
    } else if (wire.id == ids.dataReq) {
        ++counters.dataRequests;
    }
    db->OnHostRecord(wire, queue);
    records.push_back(std::move(record));
}

Modem::Modem() : impl_(new Impl) {}

Modem::~Modem() {
    Stop();
}

bool Modem::Start(const ModemOptions& options) {
    Stop();
    impl_.reset(new Impl);
    Impl& d = *impl_;
    error_.clear();
    struct stat info;
    if (options.dir.empty() || stat(options.dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        error_ = "The port directory '" + options.dir + "' does not exist.";
        return false;
    }
    d.opt = options;
    d.ids = MessageIds::FromBase(options.baseId);
    d.linkPath = options.dir + "/" + options.portName;
    d.rate = options.gen.bytesPerSecond;
    d.generator.reset(new Generator(options.gen, d.ids));
    d.db.reset(new DbServer(options.db, d.ids, options.gen.seed));
    d.tee = OpenOutput(options.teeFile, error_);
    d.rxFile = OpenOutput(options.rxFile, error_);
    d.transcript = OpenOutput(options.transcriptFile, error_);
    d.wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (error_.empty() && d.wakeFd < 0) {
        error_ = "Failed to create the wake-up event.";
    }
    d.startTime = Clock::now();
    if (options.gadget) {
        d.port.ServeOnGadget(options.gadget, Gadget::Role::Log);
    }
    if (error_.empty() && !d.BringUp(d.startTime, &error_)) {
        error_ = "Failed to create the logging port: " + error_;
    }
    if (error_.empty() && (options.crash.atPort || options.crash.atSocket)) {
        AtServer::Setup setup;
        setup.crash = options.crash;
        setup.linkPath = options.dir + "/" + options.crash.atPortName;
        setup.transcript = d.transcript;
        setup.startTime = d.startTime;
        setup.onBack = [&d] { d.OnAtBack(); };
        setup.gadget = options.gadget;
        d.at.reset(new AtServer);
        if (!d.at->Start(setup, error_)) {
            d.at.reset();
        }
    }
    if (!error_.empty()) {
        d.port.Close();
        CloseOutput(d.tee);
        CloseOutput(d.rxFile);
        CloseOutput(d.transcript);
        if (d.wakeFd >= 0) {
            close(d.wakeFd);
        }
        impl_.reset(new Impl);
        return false;
    }
    d.worker = std::thread([&d] { d.Run(); });
    return true;
}

void Modem::Stop() {
    Impl& d = *impl_;
    if (!d.worker.joinable()) {
        return;
    }
    if (d.at) {
        d.at->Stop(); // before the transcript it writes to is closed
    }
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopRequested = true;
    }
    d.Wake();
    d.worker.join();
    std::lock_guard<std::mutex> lock(d.mutex);
    CloseOutput(d.tee);
    CloseOutput(d.rxFile);
    CloseOutput(d.transcript);
    close(d.wakeFd);
    d.wakeFd = -1;
}

std::string Modem::PortPath() const {
    return impl_->linkPath;
}

MessageIds Modem::Ids() const {
    return impl_->ids;
}

void Modem::HangUp(unsigned downMs, bool comeBack) {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->hangUpRequested = true;
        impl_->requestedDownMs = downMs;
        impl_->requestedComeBack = comeBack;
    }
    impl_->Wake();
}

void Modem::InjectGarbage(size_t count) {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        if (!impl_->generator) {
            return;
        }
        impl_->queue.push_back(impl_->generator->MakeGarbage(count));
    }
    impl_->Wake();
}

void Modem::InjectTruncatedRecord() {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        if (!impl_->generator) {
            return;
        }
        impl_->queue.push_back(impl_->generator->MakeTruncated());
    }
    impl_->Wake();
}

void Modem::InjectBytes(const Bytes& bytes) {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        Chunk chunk;
        chunk.kind = Chunk::Raw;
        chunk.bytes = bytes;
        impl_->queue.push_back(std::move(chunk));
    }
    impl_->Wake();
}

void Modem::SetGeneratorEnabled(bool enabled) {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->generatorEnabled = enabled;
    }
    impl_->Wake();
}

void Modem::SetRate(uint64_t bytesPerSecond) {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->rate = bytesPerSecond;
    }
    impl_->Wake();
}

void Modem::SetDbFault(DbFault fault) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->db) {
        impl_->db->SetFault(fault);
    }
}

void Modem::Crash() {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->crashRequested = true;
    }
    impl_->Wake();
}

void Modem::SetCrashFault(CrashFault fault) {
    if (impl_->at) {
        impl_->at->SetFault(fault);
    }
}

std::string Modem::AtPortPath() const {
    const ModemOptions& opt = impl_->opt;
    return opt.crash.atPort ? opt.dir + "/" + opt.crash.atPortName : std::string();
}

int Modem::AtSocketPort() const {
    return impl_->at ? impl_->at->SocketPort() : 0;
}

std::vector<std::string> Modem::AtCommands() const {
    return impl_->at ? impl_->at->Commands() : std::vector<std::string>();
}

bool Modem::WaitForAtCommand(const std::string& command, unsigned timeoutMs, size_t count) const {
    return impl_->at && impl_->at->WaitForCommand(command, count, timeoutMs);
}

bool Modem::WaitForAtMode(unsigned mode, unsigned timeoutMs) const {
    return impl_->at && impl_->at->WaitForMode(
                            mode == 0 ? AtServer::Mode::Modem : AtServer::Mode::Loader, timeoutMs);
}

bool Modem::WaitForCrashed(unsigned timeoutMs) const {
    return impl_->WaitFor(timeoutMs, [&] { return impl_->counters.crashes >= 1; });
}

Bytes Modem::CoreDumpImage() const {
    const CrashOptions& crash = impl_->opt.crash;
    Bytes image(static_cast<size_t>(crash.coreDumpSize));
    FillCoreDump(crash.coreDumpSeed, crash.coreDumpSize, 0, image.data(), image.size());
    return image;
}

Bytes Modem::CrashInfoText() const {
    return impl_->at ? impl_->at->CrashInfoText() : Bytes();
}

Bytes Modem::CrashLogText() const {
    return impl_->at ? impl_->at->CrashLogText() : Bytes();
}

void Modem::FlushFiles() {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    for (FILE* file : {impl_->tee, impl_->rxFile, impl_->transcript}) {
        if (file) {
            std::fflush(file);
        }
    }
}

ModemCounters Modem::Counters() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->Snapshot();
}

std::vector<HostRecord> Modem::Records() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->records;
}

std::vector<HostRecord> Modem::RecordsWithId(unsigned id) const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    std::vector<HostRecord> out;
    for (const auto& record : impl_->records) {
        if (record.id == id) {
            out.push_back(record);
        }
    }
    return out;
}

Bytes Modem::RawReceived() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->raw;
}

int Modem::Unread() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->port.Unread();
}

bool Modem::WaitForRecords(size_t count, unsigned timeoutMs) const {
    return impl_->WaitFor(timeoutMs, [&] { return impl_->records.size() >= count; });
}

bool Modem::WaitForRecordId(unsigned id, unsigned timeoutMs, size_t count) const {
    return impl_->WaitFor(timeoutMs, [&] {
        size_t seen = 0;
        for (const auto& record : impl_->records) {
            seen += record.id == id;
        }
        return seen >= count;
    });
}

bool Modem::WaitForRawBytes(size_t count, unsigned timeoutMs) const {
    return impl_->WaitFor(timeoutMs, [&] { return impl_->counters.received >= count; });
}

bool Modem::WaitForSent(uint64_t bytes, unsigned timeoutMs) const {
    return impl_->WaitFor(timeoutMs, [&] { return impl_->counters.sent >= bytes; });
}

bool Modem::WaitForChannelOpen(bool open, unsigned timeoutMs) const {
    return impl_->WaitFor(timeoutMs, [&] { return impl_->counters.channelOpen == open; });
}

bool Modem::WaitForPortUp(bool up, unsigned timeoutMs) const {
    return impl_->WaitFor(timeoutMs, [&] { return impl_->counters.portUp == up; });
}

bool Modem::WaitForConnection(unsigned connection, unsigned timeoutMs) const {
    return impl_->WaitFor(timeoutMs, [&] {
        return impl_->counters.connection >= connection && impl_->counters.portUp;
    });
}

bool Modem::WaitForGeneratorDone(unsigned timeoutMs) const {
    return impl_->WaitFor(timeoutMs, [&] { return impl_->counters.generatorDone; });
}

bool Modem::WaitForDrained(unsigned timeoutMs) const {
    // Bytes on their way through the pty show up in the count a moment later: it must stay 0.
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int emptyChecks = 0;
    while (emptyChecks < 3) {
        emptyChecks = Unread() == 0 ? emptyChecks + 1 : 0;
        if (emptyChecks < 3) {
            if (Clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    return true;
}

bool Modem::WaitForHostQuiet(unsigned quietMs, unsigned timeoutMs) const {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    uint64_t last = Counters().received;
    auto quietSince = Clock::now();
    while (Clock::now() - quietSince < std::chrono::milliseconds(quietMs)) {
        if (Clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        uint64_t now = Counters().received;
        if (now != last) {
            last = now;
            quietSince = Clock::now();
        }
    }
    return true;
}

bool Modem::WaitUntil(const std::function<bool(const ModemCounters&)>& predicate,
                      unsigned timeoutMs) const {
    return impl_->WaitFor(timeoutMs, [&] { return predicate(impl_->Snapshot()); });
}

const char* DbFaultName(DbFault fault) {
    switch (fault) {
    case DbFault::None:
        return "none";
    case DbFault::Silence:
        return "silence";
    case DbFault::SilenceData:
        return "silence-data";
    case DbFault::HashStatus:
        return "hash-status";
    case DbFault::HashZero:
        return "hash-zero";
    case DbFault::Oversize:
        return "oversize";
    case DbFault::DataStatus:
        return "data-status";
    case DbFault::ShortData:
        return "short-data";
    case DbFault::TooMuchData:
        return "too-much-data";
    case DbFault::SecondAttemptOnly:
        return "second-attempt";
    }
    return "none";
}

bool DbFaultFromName(const std::string& name, DbFault& fault) {
    for (int i = 0; i <= static_cast<int>(DbFault::SecondAttemptOnly); ++i) {
        if (name == DbFaultName(static_cast<DbFault>(i))) {
            fault = static_cast<DbFault>(i);
            return true;
        }
    }
    return false;
}

} // namespace zsim
