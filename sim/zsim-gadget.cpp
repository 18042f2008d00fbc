#include "zsim-gadget.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace zsim {

namespace {

const size_t kChunk = 16384;

std::string ReadLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

void SetError(std::string* error, const std::string& text) {
    if (error) {
        *error = text + " (" + std::strerror(errno) + ").";
    }
}

} // namespace

Gadget::~Gadget() {
    if (!setup_.dir.empty()) {
        Unplug();
    }
}

bool Gadget::Open(const GadgetSetup& setup, std::string* error) {
    setup_ = setup;
    for (const std::string* function :
         {&setup.atFunction, &setup.idleFunction, &setup.logFunction}) {
        if (Tty(*function).empty()) {
            errno = ENOENT;
            SetError(error, "The gadget '" + setup.dir + "' has no function '" + *function + "'");
            return false;
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    WriteUdc("", nullptr);
    plugged_ = false;
    return SetFunctions(Mode::Modem, error);
}

std::string Gadget::Tty(const std::string& function) const {
    std::string number = ReadLine(setup_.dir + "/functions/" + function + "/port_num");
    return number.empty() ? std::string() : "/dev/ttyGS" + number;
}

bool Gadget::WriteUdc(const std::string& text, std::string* error) {
    int fd = open((setup_.dir + "/UDC").c_str(), O_WRONLY | O_CLOEXEC);
    bool done = fd >= 0 && write(fd, (text + "\n").data(), text.size() + 1) >= 0;
    if (!done) {
        SetError(error, "Failed to write '" + text + "' to '" + setup_.dir + "/UDC'");
    }
    if (fd >= 0) {
        close(fd);
    }
    return done;
}

// The configuration's functions, in interface order; only while unplugged.
bool Gadget::SetFunctions(Mode mode, std::string* error) {
    const std::string config = setup_.dir + "/configs/c.1/";
    for (const std::string* function :
         {&setup_.atFunction, &setup_.idleFunction, &setup_.logFunction}) {
        unlink((config + *function).c_str());
    }
    mode_ = mode;
    const std::string* functions[3] = {&setup_.idleFunction, nullptr, nullptr};
    if (mode == Mode::Modem) {
        functions[0] = &setup_.atFunction;
        functions[1] = &setup_.idleFunction;
        functions[2] = &setup_.logFunction;
    }
    for (const std::string* function : functions) {
        if (function && symlink((setup_.dir + "/functions/" + *function).c_str(),
                                (config + *function).c_str()) != 0) {
            SetError(error, "Failed to add '" + *function + "' to '" + config + "'");
            return false;
        }
    }
    return true;
}

bool Gadget::Plug(Mode mode, std::string* error) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (plugged_ && mode_ == mode) {
        return true;
    }
    if (plugged_) {
        WriteUdc("", nullptr);
        plugged_ = false;
    }
    if ((mode_ != mode && !SetFunctions(mode, error)) || !WriteUdc(setup_.udc, error)) {
        return false;
    }
    plugged_ = true;
    ++plug_;
    pluggedAt_ = std::chrono::steady_clock::now();
    return true;
}

void Gadget::Unplug() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (plugged_) {
        WriteUdc("", nullptr);
        plugged_ = false;
    }
}

bool Gadget::Plugged() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return plugged_;
}

std::string Gadget::UdcState() const {
    return ReadLine("/sys/class/udc/" + setup_.udc + "/state");
}

void Gadget::SetUpDelay(unsigned ms) {
    std::lock_guard<std::mutex> lock(mutex_);
    upDelayMs_ = ms;
}

std::string Gadget::TtyFor(Role role, unsigned& plug, bool& ready) const {
    std::lock_guard<std::mutex> lock(mutex_);
    plug = plug_;
    ready = std::chrono::steady_clock::now() >= pluggedAt_ + std::chrono::milliseconds(upDelayMs_);
    if (!plugged_) {
        return std::string();
    }
    if (mode_ == Mode::Loader) {
        return role == Role::At ? Tty(setup_.idleFunction) : std::string();
    }
    return Tty(role == Role::At ? setup_.atFunction : setup_.logFunction);
}

bool Gadget::StillPlugged(unsigned plug) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return plugged_ && plug_ == plug;
}

GadgetRelay::GadgetRelay(std::shared_ptr<Gadget> gadget, Gadget::Role role, int ptyFd)
    : gadget_(std::move(gadget)), role_(role), pty_(ptyFd) {
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    worker_ = std::thread([this] { Run(); });
}

GadgetRelay::~GadgetRelay() {
    Stop();
    if (wake_ >= 0) {
        close(wake_);
    }
}

int GadgetRelay::Pending() const {
    std::lock_guard<std::mutex> lock(mutex_);
    int queued = 0;
    if (tty_ >= 0 && ioctl(tty_, TIOCOUTQ, &queued) != 0) {
        queued = 0;
    }
    return static_cast<int>(buffer_.size()) + queued;
}

uint64_t GadgetRelay::Stop() {
    if (!stopped_) {
        stopped_ = true;
        stop_ = true;
        uint64_t one = 1;
        if (write(wake_, &one, sizeof one) < 0) {
            // Full counter: the worker is awake anyway.
        }
        worker_.join();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    int queued = 0;
    if (tty_ >= 0 && ioctl(tty_, TIOCOUTQ, &queued) == 0) {
        tcflush(tty_, TCOFLUSH);
    }
    uint64_t dropped = buffer_.size() + static_cast<uint64_t>(queued > 0 ? queued : 0);
    buffer_.clear();
    CloseTty();
    return dropped;
}

void GadgetRelay::OpenTty() {
    unsigned plug = 0;
    bool ready = false;
    std::string path = gadget_->TtyFor(role_, plug, ready);
    if (path.empty() || plug == plug_) {
        return; // not plugged, or the tty of this plug has hung up
    }
    if (!ready) {
        Start(path, plug);
        return;
    }
    int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    termios tio{};
    if (tcgetattr(fd, &tio) == 0) {
        cfmakeraw(&tio);
        // VMIN 1: an empty non-blocking read fails with EAGAIN; only a hung-up tty reads 0.
        tio.c_cc[VMIN] = 1;
        tio.c_cc[VTIME] = 0;
        tcsetattr(fd, TCSANOW, &tio);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    tty_ = fd;
    plug_ = plug;
}

// The modem's USB stack starts before the modem is ready: once the host has configured the
// gadget, an open and close arms the function, which from then on drops what the host sends
// until the tty is opened again. The host sees the modem's side open (DCD, DSR) only when ready.
void GadgetRelay::Start(const std::string& path, unsigned plug) {
    const auto now = std::chrono::steady_clock::now();
    if (seen_ != plug) {
        seen_ = plug;
        seenAt_ = now;
        enumerating_ = false;
    }
    if (started_ == plug) {
        return;
    }
    const bool configured = gadget_->UdcState() == "configured";
    enumerating_ = enumerating_ || !configured;
    if (configured && (enumerating_ || now - seenAt_ > std::chrono::seconds(1))) {
        int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
            close(fd);
            started_ = plug;
        }
    }
}

void GadgetRelay::CloseTty() {
    if (tty_ >= 0) {
        close(tty_);
        tty_ = -1;
    }
}

// One round of copying both ways; false when the tty has hung up (an unplug).
bool GadgetRelay::Pump() {
    std::lock_guard<std::mutex> lock(mutex_);
    char data[kChunk];
    if (buffer_.size() < kChunk) {
        ssize_t got = read(pty_, data, sizeof data);
        if (got > 0) {
            buffer_.append(data, static_cast<size_t>(got));
        }
    }
    if (!buffer_.empty()) {
        ssize_t put = write(tty_, buffer_.data(), buffer_.size());
        if (put > 0) {
            buffer_.erase(0, static_cast<size_t>(put));
        } else if (put < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        }
    }
    ssize_t got = read(tty_, data, sizeof data);
    if (got > 0) {
        // The pty takes what the modem has not read yet; it reads all the time.
        for (ssize_t at = 0; at < got;) {
            ssize_t put = write(pty_, data + at, static_cast<size_t>(got - at));
            if (put > 0) {
                at += put;
            } else if (put < 0 && errno != EAGAIN && errno != EINTR) {
                break;
            }
        }
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        return false;
    }
    return true;
}

void GadgetRelay::Run() {
    while (!stop_) {
        if (tty_ < 0) {
            OpenTty();
        }
        if (tty_ >= 0 && !gadget_->StillPlugged(plug_)) {
            std::lock_guard<std::mutex> lock(mutex_);
            CloseTty();
        }
        pollfd fds[3] = {{wake_, POLLIN, 0}, {-1, 0, 0}, {-1, 0, 0}};
        if (tty_ >= 0) {
            fds[1] = {pty_, static_cast<short>(buffer_.size() < kChunk ? POLLIN : 0), 0};
            fds[2] = {tty_, static_cast<short>(POLLIN | (buffer_.empty() ? 0 : POLLOUT)), 0};
        }
        // Quick rounds while a plug's enumeration is watched, so its short reset is seen.
        int ready = poll(fds, 3, seen_ != started_ && tty_ < 0 ? 2 : 20);
        if (ready > 0 && tty_ >= 0 && ((fds[1].revents | fds[2].revents) != 0) && !Pump()) {
            std::lock_guard<std::mutex> lock(mutex_);
            CloseTty(); // hung up: the next plug brings a new tty, and a restarted modem
            buffer_.clear();
        }
    }
}

} // namespace zsim
