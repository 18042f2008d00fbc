#include "zsim-crash-mode.h"

#include "zsim-crash-data.h"

namespace zsim {

bool CrashMode::Start(const std::string& linkPath, FILE* transcript, Clock::time_point start,
                      std::function<void()> onBack, std::shared_ptr<Gadget> gadget,
                      std::string& error) {
    if (!options_.atPort && !options_.atSocket) {
        return true;
    }
    AtServer::Setup setup;
    setup.crash = options_;
    setup.linkPath = linkPath;
    setup.transcript = transcript;
    setup.startTime = start;
    setup.onBack = std::move(onBack);
    setup.gadget = std::move(gadget);
    at_.reset(new AtServer);
    if (!at_->Start(setup, error)) {
        at_.reset();
        return false;
    }
    return true;
}

void CrashMode::Stop() {
    if (at_) {
        at_->Stop();
    }
}

void CrashMode::Fire(Clock::time_point now, LogPort& port, ModemCounters& counters) {
    if (counters.crashed) {
        return;
    }
    counters.crashed = true;
    ++counters.crashes;
    if (at_) {
        at_->GoAway();
    }
    // The logging port goes down and stays down until the host resets the modem; the AT port
    // comes back in the loader once the logging port has hung up.
    switch (port.GetState()) {
    case LogPort::State::Up:
        port.BeginDrain(now, 0, false);
        returnAfterHangUp_ = true;
        break;
    case LogPort::State::Draining:
        port.StayAway();
        returnAfterHangUp_ = true;
        break;
    case LogPort::State::Down:
        port.StayAway();
        ReturnAtPort();
        break;
    case LogPort::State::Stopped:
        break;
    }
}

void CrashMode::OnHungUp() {
    if (returnAfterHangUp_) {
        returnAfterHangUp_ = false;
        ReturnAtPort();
    }
}

void CrashMode::ReturnAtPort() {
    if (at_ && at_->Fault() != CrashFault::NeverComesBack) {
        at_->ReturnInLoader(options_.restartMs);
    }
}

void CrashMode::Reset(Clock::time_point now, LogPort& port, ModemCounters& counters,
                      bool stopping) {
    if (!counters.crashed) {
        return;
    }
    counters.crashed = false;
    if ((port.Is(LogPort::State::Down) && !stopping) || port.Is(LogPort::State::Draining)) {
        port.ComeBackAfter(now, options_.resetDownMs);
    }
}

void CrashMode::SetFault(CrashFault fault) {
    if (at_) {
        at_->SetFault(fault);
    }
}

int CrashMode::AtMode() const {
    return at_ ? static_cast<int>(at_->GetMode()) : -1;
}

std::vector<std::string> CrashMode::AtCommands() const {
    return at_ ? at_->Commands() : std::vector<std::string>();
}

Bytes CrashMode::CoreDumpImage() const {
    Bytes image(static_cast<size_t>(options_.coreDumpSize));
    FillCoreDump(options_.coreDumpSeed, options_.coreDumpSize, 0, image.data(), image.size());
    return image;
}

Bytes CrashMode::CrashInfoText() const {
    return at_ ? at_->CrashInfoText() : Bytes();
}

Bytes CrashMode::CrashLogText() const {
    return at_ ? at_->CrashLogText() : Bytes();
}

} // namespace zsim
