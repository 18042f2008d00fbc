#include "zsim-modem.h"

#include "zsim-modem-core.h"

#include <sys/stat.h>

namespace zsim {

Modem::Modem() : core_(new ModemCore(ModemOptions())) {}

Modem::~Modem() {
    Stop();
}

bool Modem::Start(const ModemOptions& options) {
    Stop();
    core_.reset(new ModemCore(ModemOptions()));
    error_.clear();
    struct stat info;
    if (options.dir.empty() || stat(options.dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        error_ = "The port directory '" + options.dir + "' does not exist.";
        return false;
    }
    core_.reset(new ModemCore(options));
    if (!core_->Start(error_)) {
        core_.reset(new ModemCore(ModemOptions()));
        return false;
    }
    return true;
}

void Modem::Stop() {
    core_->Stop();
}

std::string Modem::PortPath() const {
    return core_->PortPath();
}

std::string Modem::AtPortPath() const {
    const ModemOptions& opt = core_->options;
    return opt.crash.atPort ? opt.dir + "/" + opt.crash.atPortName : std::string();
}

int Modem::AtSocketPort() const {
    return core_->crash.SocketPort();
}

MessageIds Modem::Ids() const {
    return core_->ids;
}

void Modem::Apply(const Control& control) {
    core_->Apply(control);
}

bool Modem::WaitUntil(Condition condition, unsigned timeoutMs) const {
    return core_->WaitUntil(std::move(condition), timeoutMs);
}

void Modem::FlushFiles() {
    core_->FlushFiles();
}

ModemCounters Modem::Counters() const {
    return core_->Counters();
}

std::vector<HostRecord> Modem::Records() const {
    return core_->Records();
}

std::vector<HostRecord> Modem::RecordsWithId(unsigned id) const {
    std::vector<HostRecord> out;
    for (HostRecord& record : core_->Records()) {
        if (record.id == id) {
            out.push_back(std::move(record));
        }
    }
    return out;
}

Bytes Modem::RawReceived() const {
    return core_->RawReceived();
}

std::vector<std::string> Modem::AtCommands() const {
    return core_->crash.AtCommands();
}

Bytes Modem::CoreDumpImage() const {
    return core_->crash.CoreDumpImage();
}

Bytes Modem::CrashInfoText() const {
    return core_->crash.CrashInfoText();
}

Bytes Modem::CrashLogText() const {
    return core_->crash.CrashLogText();
}

} // namespace zsim
