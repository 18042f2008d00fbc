#include "zsim-pty-port.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace zsim {

namespace {

void SetError(std::string* error, const char* what) {
    if (error) {
        *error = std::string(what) + " (" + std::strerror(errno) + ").";
    }
}

} // namespace

PtyPort::~PtyPort() {
    Close();
}

bool PtyPort::Open(const std::string& linkPath, std::string* error) {
    HangUp();
    link_ = linkPath;
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0) {
        SetError(error, "Failed to create a pseudo-terminal");
        return false;
    }
    char name[128];
    if (grantpt(master) != 0 || unlockpt(master) != 0 || ptsname_r(master, name, sizeof name)) {
        SetError(error, "Failed to unlock the pseudo-terminal");
        close(master);
        return false;
    }
    // Our own slave descriptor keeps the slave side alive and lets us count unread bytes.
    int slave = open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (slave < 0) {
        SetError(error, "Failed to open the pseudo-terminal slave");
        close(master);
        return false;
    }
    // Raw from the start: no echo of the modem's bytes back to it, no translation of the
    // host's bytes, whatever the host does to the settings later.
    termios tio{};
    if (tcgetattr(slave, &tio) == 0) {
        cfmakeraw(&tio);
        tio.c_cc[VMIN] = 0;
        tio.c_cc[VTIME] = 0;
        tcsetattr(slave, TCSANOW, &tio);
    }
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    master_ = master;
    ownSlave_ = slave;
    slave_ = name;
    PointLinkAt(slave_);
    if (gadget_) {
        const bool log = role_ == Gadget::Role::Log;
        if ((log || !gadget_->Plugged()) &&
            !gadget_->Plug(log ? Gadget::Mode::Modem : Gadget::Mode::Loader, error)) {
            HangUp();
            return false;
        }
        relay_.reset(new GadgetRelay(gadget_, role_, ownSlave_));
    }
    return true;
}

void PtyPort::ServeOnGadget(std::shared_ptr<Gadget> gadget, Gadget::Role role) {
    gadget_ = std::move(gadget);
    role_ = role;
}

void PtyPort::PointLinkAt(const std::string& target) {
    if (link_.empty()) {
        return;
    }
    // A new link under a temporary name, renamed over the old one: the path never goes missing.
    std::string temp = link_ + ".new";
    unlink(temp.c_str());
    if (symlink(target.c_str(), temp.c_str()) == 0) {
        rename(temp.c_str(), link_.c_str());
    }
}

int PtyPort::Unread() const {
    int count = 0;
    if (ownSlave_ < 0 || ioctl(ownSlave_, FIONREAD, &count) != 0) {
        return 0;
    }
    return count + (relay_ ? relay_->Pending() : 0);
}

bool PtyPort::HostHasOpen() const {
    if (ownSlave_ < 0) {
        return false;
    }
    if (relay_) {
        return true; // the host is on the other side of the USB: it cannot be seen from here
    }
    DIR* proc = opendir("/proc");
    if (!proc) {
        return true; // cannot tell: assume somebody reads
    }
    const std::string self = std::to_string(getpid());
    const std::string ownFd = std::to_string(ownSlave_);
    bool found = false;
    while (!found) {
        dirent* process = readdir(proc);
        if (!process) {
            break;
        }
        if (process->d_name[0] < '0' || process->d_name[0] > '9') {
            continue;
        }
        std::string fdDir = std::string("/proc/") + process->d_name + "/fd";
        DIR* fds = opendir(fdDir.c_str());
        if (!fds) {
            continue;
        }
        while (dirent* fd = readdir(fds)) {
            if (fd->d_name[0] == '.' || (self == process->d_name && ownFd == fd->d_name)) {
                continue;
            }
            char target[256];
            std::string path = fdDir + "/" + fd->d_name;
            ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
            if (n > 0) {
                target[n] = 0;
                if (slave_ == target) {
                    found = true;
                    break;
                }
            }
        }
        closedir(fds);
    }
    closedir(proc);
    return found;
}

bool PtyPort::Drain(unsigned timeoutMs) const {
    // The count only covers what the line discipline holds; bytes still on their way from the
    // master show up a moment later, so the queue must stay empty over a few checks.
    auto start = std::chrono::steady_clock::now();
    auto deadline = start + std::chrono::milliseconds(timeoutMs);
    int emptyChecks = 0;
    for (unsigned round = 0;; ++round) {
        emptyChecks = Unread() == 0 ? emptyChecks + 1 : 0;
        if (emptyChecks >= 3) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        if (round % 10 == 9 && !HostHasOpen()) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

uint64_t PtyPort::CollectUnread() {
    if (ownSlave_ < 0) {
        return 0;
    }
    uint64_t total = 0;
    uint8_t buffer[4096];
    for (;;) {
        ssize_t got = read(ownSlave_, buffer, sizeof buffer);
        if (got > 0) {
            total += static_cast<uint64_t>(got);
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        // Empty for now: wait briefly for bytes still being pushed through the pty.
        pollfd pfd{ownSlave_, POLLIN, 0};
        if (poll(&pfd, 1, 20) <= 0 || !(pfd.revents & POLLIN)) {
            break;
        }
    }
    return total;
}

uint64_t PtyPort::HangUp() {
    if (master_ < 0) {
        return 0;
    }
    uint64_t collected = 0;
    if (relay_) {
        collected += relay_->Stop();
        relay_.reset();
        if (role_ == Gadget::Role::Log) {
            gadget_->Unplug();
        }
    }
    collected += CollectUnread();
    close(ownSlave_);
    close(master_);
    ownSlave_ = -1;
    master_ = -1;
    // Point the link somewhere that does not exist rather than at the old slave name, which
    // another pty may be given meanwhile.
    size_t slash = link_.rfind('/');
    PointLinkAt((slash == std::string::npos ? link_ : link_.substr(slash + 1)) + ".down");
    return collected;
}

void PtyPort::Close() {
    HangUp();
    if (!link_.empty()) {
        unlink(link_.c_str());
        unlink((link_ + ".new").c_str());
    }
    link_.clear();
}

} // namespace zsim
