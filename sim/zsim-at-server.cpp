#include "zsim-at-server.h"

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
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zsim {

using Clock = std::chrono::steady_clock;

namespace {

const size_t kImageBlock = 1 << 16;  // image bytes generated at a time
const unsigned kRefillsPerStep = 16; // image blocks per link before the worker looks around
const unsigned kDrainMs = 1000;      // how long a reset waits for the host to read the OK

int MsUntil(Clock::time_point now, Clock::time_point then) {
    if (then <= now) {
        return 0;
    }
    return static_cast<int>(
               std::chrono::duration_cast<std::chrono::milliseconds>(then - now).count()) +
           1;
}

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
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd_ < 0) {
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
        close(wakeFd_);
        wakeFd_ = -1;
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
        Wake();
    }
    worker_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    ClosePorts();
    pty_.Close();
    close(wakeFd_);
    wakeFd_ = -1;
}

// Called with the lock held, so that the descriptor cannot be closed meanwhile.
void AtServer::Wake() const {
    uint64_t one = 1;
    if (wakeFd_ >= 0 && write(wakeFd_, &one, sizeof one) < 0) {
        // Only fails when the counter is full, and then the worker is awake anyway.
    }
}

void AtServer::GoAway() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        mode_ = Mode::Away;
        returnPending_ = false;
        ClosePorts();
        Wake();
    }
    changed_.notify_all();
}

void AtServer::ReturnInLoader(unsigned ms) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        returnPending_ = true;
        returnAt_ = Clock::now() + std::chrono::milliseconds(ms);
        Wake();
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

bool AtServer::WaitForCommand(const std::string& command, size_t count, unsigned timeoutMs) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return static_cast<size_t>(std::count(commands_.begin(), commands_.end(), command)) >=
               count;
    });
}

bool AtServer::WaitForMode(Mode mode, unsigned timeoutMs) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return mode_ == mode; });
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
            ptyLink_ = Link();
            ptyLink_.fd = pty_.MasterFd();
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
    ptyLink_ = Link();
    DropClient();
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
        client_ = Link();
        client_.tcp = true;
        client_.fd = fd;
    }
}

void AtServer::DropClient() {
    if (client_.fd >= 0) {
        close(client_.fd);
    }
    client_ = Link();
    client_.tcp = true;
}

void AtServer::Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopRequested_) {
        bool callBack = false;
        int timeout = Step(Clock::now(), callBack);
        changed_.notify_all();
        auto events = [](const Link& link) {
            bool unsent = link.pendingSent < link.pending.size();
            return static_cast<short>(POLLIN | (unsent ? POLLOUT : 0));
        };
        pollfd fds[4] = {{wakeFd_, POLLIN, 0}, {-1, 0, 0}, {-1, 0, 0}, {-1, 0, 0}};
        nfds_t count = 1;
        const int ptyFd = ptyLink_.fd, listenFd = client_.fd < 0 ? listenFd_ : -1,
                  clientFd = client_.fd;
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
            uint64_t value;
            if (read(wakeFd_, &value, sizeof value) < 0) {
                // Seen either way.
            }
        }
        lock.lock();
        for (nfds_t i = 1; ready > 0 && i < count && !stopRequested_; ++i) {
            if (!fds[i].revents) {
                continue;
            }
            // The descriptors may have been closed (a crash) while the worker waited.
            if (fds[i].fd == ptyFd && ptyFd == ptyLink_.fd) {
                ReadLink(ptyLink_);
            } else if (fds[i].fd == listenFd && listenFd == listenFd_ && client_.fd < 0) {
                Accept();
            } else if (fds[i].fd == clientFd && clientFd == client_.fd) {
                ReadLink(client_);
            }
        }
    }
    changed_.notify_all();
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
    for (Link* link : {&ptyLink_, &client_}) {
        if (link->fd >= 0) {
            timeout = std::min(timeout, Fill(*link, now, callBack));
        }
    }
    return timeout;
}

int AtServer::Fill(Link& link, Clock::time_point now, bool& callBack) {
    unsigned refills = 0;
    while (link.fd >= 0) {
        if (link.pendingSent < link.pending.size()) {
            if (!Flush(link)) {
                return 200; // the worker polls for writability
            }
            continue;
        }
        link.pending.clear();
        link.pendingSent = 0;
        if (link.out.empty()) {
            return 200;
        }
        if (++refills > kRefillsPerStep) {
            return 0; // look at the other link and at new commands, then go on at once
        }
        Piece& piece = link.out.front();
        switch (piece.reply.kind) {
        case AtReplyPiece::Text:
            link.pending.swap(piece.reply.text);
            link.out.pop_front();
            if (link.out.empty() || link.out.front().reply.kind != AtReplyPiece::Image) {
                break;
            }
            // The header and the first image bytes leave in the same write.
            [[fallthrough]];
        case AtReplyPiece::Image: {
            Piece& image = link.out.front();
            size_t count = static_cast<size_t>(
                std::min<uint64_t>(image.reply.imageEnd - image.imageAt, kImageBlock));
            size_t at = link.pending.size();
            link.pending.resize(at + count);
            FillCoreDump(setup_.crash.coreDumpSeed, setup_.crash.coreDumpSize, image.imageAt,
                         reinterpret_cast<uint8_t*>(&link.pending[at]), count);
            image.imageAt += count;
            if (image.imageAt == image.reply.imageEnd) {
                link.out.pop_front();
            }
            break;
        }
        case AtReplyPiece::Pause:
            if (!piece.started) {
                piece.started = true;
                piece.until = now + std::chrono::milliseconds(piece.reply.pauseMs);
            }
            if (now < piece.until) {
                return MsUntil(now, piece.until);
            }
            link.out.pop_front();
            break;
        case AtReplyPiece::BackToModem:
            // The reset happens once the host has read the OK (as far as it is reading at all).
            if (!piece.started) {
                piece.started = true;
                piece.until = now + std::chrono::milliseconds(kDrainMs);
            }
            if (!link.tcp && pty_.Unread() > 0 && now < piece.until) {
                return 5;
            }
            link.out.pop_front();
            if (mode_ != Mode::Away) {
                mode_ = Mode::Modem;
                callBack = true;
            }
            break;
        }
    }
    return 200;
}

// Writes what is pending; false when the link takes no more for now (or failed).
bool AtServer::Flush(Link& link) {
    const char* data = link.pending.data() + link.pendingSent;
    size_t size = link.pending.size() - link.pendingSent;
    ssize_t written =
        link.tcp ? send(link.fd, data, size, MSG_NOSIGNAL) : write(link.fd, data, size);
    if (written > 0) {
        link.pendingSent += static_cast<size_t>(written);
        return true;
    }
    if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return false;
    }
    if (link.tcp) {
        DropClient(); // the client went away: so does what was meant for it
    }
    return false;
}

void AtServer::ReadLink(Link& link) {
    char buffer[4096];
    for (;;) {
        ssize_t got = link.tcp ? recv(link.fd, buffer, sizeof buffer, 0)
                               : read(link.fd, buffer, sizeof buffer);
        if (got > 0) {
            for (ssize_t i = 0; i < got && link.fd >= 0; ++i) {
                char c = buffer[i];
                if (c == '\r') {
                    if (!link.input.empty()) {
                        std::string command = link.input + "\r";
                        link.input.clear();
                        TakeCommand(link, command);
                    }
                } else if (link.input.empty() && (c == '\n' || c == ' ')) {
                    // The line feed of a "\r\n" sender, or blanks before a command.
                } else if (link.input.size() < 4096) {
                    link.input += c;
                }
            }
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            return;
        }
        if (link.tcp) {
            DropClient(); // closed by the client, or failed
        }
        return;
    }
}

void AtServer::TakeCommand(Link& link, const std::string& command) {
    commands_.push_back(command);
    if (setup_.transcript) {
        double ms =
            std::chrono::duration<double, std::milli>(Clock::now() - setup_.startTime).count();
        std::string line = AtTranscriptLine(ms, link.tcp ? "tcp" : "pty", command);
        std::fwrite(line.data(), 1, line.size(), setup_.transcript);
    }
    std::string lower = command.substr(0, command.size() - 1);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    Answer(link, lower);
}

void AtServer::Answer(Link& link, const std::string& command) {
    AtDialogueState state;
    state.loader = mode_ == Mode::Loader;
    state.fault = fault_;
    state.coreDumpSize = setup_.crash.coreDumpSize;
    state.crashInfo = &crashInfo_;
    state.crashLog = &crashLog_;
    for (AtReplyPiece& reply : AtReply(command, state)) {
        Piece piece;
        piece.reply = std::move(reply);
        link.out.push_back(std::move(piece));
    }
}

} // namespace zsim
