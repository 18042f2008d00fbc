#include "zsim-at-server.h"

#include "zsim-worker.h"

#include "zsim-crash-data.h"
#include "zsim-transcript.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace zsim {

namespace {

bool ReadWholeFile(const std::string& path, std::string& out, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = "Failed to read the crash information file '" + path + "' (" +
                std::strerror(errno) + ").";
        return false;
    }
    std::ostringstream content;
    content << file.rdbuf();
    out = content.str();
    return true;
}

} // namespace

AtServer::~AtServer() {
    Stop();
}

bool AtServer::Start(const Setup& setup, std::string& error) {
    setup_ = setup;
    fault_ = setup.crash.fault;
    crashLog_ = setup.crash.crashLogText.empty() ? BuiltInCrashLog() : setup.crash.crashLogText;
    if (setup.crash.crashInfoFile.empty()) {
        crashInfo_ = BuiltInCrashInfoText();
    } else if (!ReadWholeFile(setup.crash.crashInfoFile, crashInfo_, error)) {
        return false;
    }
    if (!wake_.Open()) {
        error = std::string("Failed to create the wake-up event (") + std::strerror(errno) + ").";
        return false;
    }
    mode_ = Mode::Modem;
    if (setup.gadget) {
        pty_.ServeOnGadget(setup.gadget, Gadget::Role::At);
    }
    OpenPorts(&error);
    if (!error.empty()) {
        ClosePorts();
        pty_.Close();
        wake_.Close();
        return false;
    }
    worker_ = std::thread([this] { Run(); });
    return true;
}

void AtServer::Stop() {
    if (!worker_.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopRequested_ = true;
        wake_.Signal();
    }
    worker_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    ClosePorts();
    pty_.Close();
    wake_.Close();
}

void AtServer::GoAway() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        mode_ = Mode::Away;
        returnPending_ = false;
        ClosePorts();
        wake_.Signal();
    }
}

void AtServer::ReturnInLoader(unsigned ms) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        returnPending_ = true;
        returnAt_ = Clock::now() + std::chrono::milliseconds(ms);
        wake_.Signal();
    }
}

void AtServer::SetFault(CrashFault fault) {
    std::lock_guard<std::mutex> lock(mutex_);
    fault_ = fault;
}

CrashFault AtServer::Fault() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fault_;
}

std::vector<std::string> AtServer::Commands() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_;
}

AtServer::Mode AtServer::GetMode() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mode_;
}

Bytes AtServer::CrashInfoText() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string reply = CrashInfoReply(crashInfo_, fault_);
    return Bytes(reply.begin(), reply.end());
}

Bytes AtServer::CrashLogText() const {
    return Bytes(crashLog_.begin(), crashLog_.end());
}

void AtServer::OpenPorts(std::string* error) {
    if (setup_.crash.atPort) {
        std::string why;
        if (pty_.Open(setup_.linkPath, &why)) {
            ptyLink_ = AtLink(false, pty_.MasterFd());
        } else if (error) {
            *error = "Failed to create the AT port: " + why;
            return;
        }
    }
    if (setup_.crash.atSocket) {
        Listen(error);
    }
}

void AtServer::ClosePorts() {
    // A modem that goes away takes its unsent replies with it.
    pty_.HangUp();
    ptyLink_ = AtLink();
    client_.Drop();
    if (listenFd_ >= 0) {
        close(listenFd_);
        listenFd_ = -1;
    }
}

bool AtServer::Listen(std::string* error) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // The same port number every time the modem comes back: the host keeps trying it.
    address.sin_port = htons(static_cast<uint16_t>(socketPort_));
    socklen_t length = sizeof address;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 4) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (error) {
            *error = "Failed to listen on the TCP AT port " + std::to_string(socketPort_) + " (" +
                     std::strerror(errno) + ").";
        }
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    listenFd_ = fd;
    if (socketPort_ == 0) {
        socketPort_ = ntohs(address.sin_port); // set once, before the worker starts
    }
    return true;
}

void AtServer::Accept() {
    int fd = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
        client_ = AtLink(true, fd);
    }
}

void AtServer::Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopRequested_) {
        bool callBack = false;
        int timeout = Step(Clock::now(), callBack);
        auto events = [](const AtLink& link) {
            return static_cast<short>(POLLIN | (link.Unsent() ? POLLOUT : 0));
        };
        pollfd fds[4] = {{wake_.Fd(), POLLIN, 0}, {-1, 0, 0}, {-1, 0, 0}, {-1, 0, 0}};
        nfds_t count = 1;
        const int ptyFd = ptyLink_.Fd(), listenFd = client_.Fd() < 0 ? listenFd_ : -1,
                  clientFd = client_.Fd();
        if (ptyFd >= 0) {
            fds[count++] = {ptyFd, events(ptyLink_), 0};
        }
        if (listenFd >= 0) {
            fds[count++] = {listenFd, POLLIN, 0};
        }
        if (clientFd >= 0) {
            fds[count++] = {clientFd, events(client_), 0};
        }
        lock.unlock();
        if (callBack && setup_.onBack) {
            setup_.onBack();
        }
        int ready = poll(fds, count, timeout);
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            wake_.Clear();
        }
        lock.lock();
        auto take = [this](AtLink& link, const std::string& command) {
            TakeCommand(link, command);
        };
        for (nfds_t i = 1; ready > 0 && i < count && !stopRequested_; ++i) {
            if (!fds[i].revents) {
                continue;
            }
            // The descriptors may have been closed (a crash) while the worker waited.
            if (fds[i].fd == ptyFd && ptyFd == ptyLink_.Fd()) {
                ptyLink_.Read(take);
            } else if (fds[i].fd == listenFd && listenFd == listenFd_ && client_.Fd() < 0) {
                Accept();
            } else if (fds[i].fd == clientFd && clientFd == client_.Fd()) {
                client_.Read(take);
            }
        }
    }
}

int AtServer::Step(Clock::time_point now, bool& callBack) {
    int timeout = 200;
    if (mode_ == Mode::Away && returnPending_) {
        if (now >= returnAt_) {
            std::string error;
            OpenPorts(&error);
            if (error.empty()) {
                returnPending_ = false;
                mode_ = Mode::Loader;
                // A modem that claims modem mode is never reset by the host: it restarts its
                // logging port by itself.
                callBack = fault_ == CrashFault::ModemMode;
            } else {
                ClosePorts();
                returnAt_ = now + std::chrono::milliseconds(100);
                timeout = 100;
            }
        } else {
            timeout = std::min(timeout, MsUntil(now, returnAt_));
        }
    }
    for (AtLink* link : {&ptyLink_, &client_}) {
        bool backToModem = false;
        timeout = std::min(timeout, link->Write(now, setup_.crash, pty_, backToModem));
        if (backToModem && mode_ != Mode::Away) {
            mode_ = Mode::Modem;
            callBack = true;
        }
    }
    return timeout;
}

void AtServer::TakeCommand(AtLink& link, const std::string& command) {
    commands_.push_back(command);
    if (setup_.transcript) {
        double ms =
            std::chrono::duration<double, std::milli>(Clock::now() - setup_.startTime).count();
        std::string line = AtTranscriptLine(ms, link.Tcp() ? "tcp" : "pty", command);
        std::fwrite(line.data(), 1, line.size(), setup_.transcript);
    }
    std::string lower = command.substr(0, command.size() - 1);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    Answer(link, lower);
}

void AtServer::Answer(AtLink& link, const std::string& command) {
    AtDialogueState state;
    state.loader = mode_ == Mode::Loader;
    state.fault = fault_;
    state.coreDumpSize = setup_.crash.coreDumpSize;
    state.crashInfo = &crashInfo_;
    state.crashLog = &crashLog_;
    for (AtReplyPiece& reply : AtReply(command, state)) {
        link.Queue(std::move(reply));
    }
}

} // namespace zsim
