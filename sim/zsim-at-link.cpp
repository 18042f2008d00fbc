#include "zsim-at-link.h"

#include "zsim-crash-data.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace zsim {

namespace {

const size_t kImageBlock = 1 << 16;  // image bytes generated at a time
const unsigned kRefillsPerStep = 16; // image blocks per link before the worker looks around
const unsigned kDrainMs = 1000;      // how long a reset waits for the host to read the OK

} // namespace

void AtLink::Drop() {
    if (fd_ >= 0) {
        close(fd_);
    }
    *this = AtLink(tcp_);
}

void AtLink::Queue(AtReplyPiece reply) {
    Piece piece;
    piece.reply = std::move(reply);
    out_.push_back(std::move(piece));
}

void AtLink::Read(const std::function<void(AtLink&, const std::string&)>& take) {
    char buffer[4096];
    for (;;) {
        ssize_t got = tcp_ ? recv(fd_, buffer, sizeof buffer, 0) : read(fd_, buffer, sizeof buffer);
        if (got > 0) {
            for (ssize_t i = 0; i < got && fd_ >= 0; ++i) {
                char c = buffer[i];
                if (c == '\r') {
                    if (!input_.empty()) {
                        std::string command = input_ + "\r";
                        input_.clear();
                        take(*this, command);
                    }
                } else if (input_.empty() && (c == '\n' || c == ' ')) {
                    // The line feed of a "\r\n" sender, or blanks before a command.
                } else if (input_.size() < 4096) {
                    input_ += c;
                }
            }
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            return;
        }
        if (tcp_) {
            Drop(); // closed by the client, or failed
        }
        return;
    }
}

int AtLink::Write(Clock::time_point now, const CrashOptions& crash, const PtyPort& pty,
                  bool& backToModem) {
    unsigned refills = 0;
    while (fd_ >= 0) {
        if (Unsent()) {
            if (!Flush()) {
                return 200; // the worker polls for writability
            }
            continue;
        }
        pending_.clear();
        pendingSent_ = 0;
        if (out_.empty()) {
            return 200;
        }
        if (++refills > kRefillsPerStep) {
            return 0; // look at the other link and at new commands, then go on at once
        }
        Piece& piece = out_.front();
        switch (piece.reply.kind) {
        case AtReplyPiece::Text:
            pending_.swap(piece.reply.text);
            out_.pop_front();
            if (out_.empty() || out_.front().reply.kind != AtReplyPiece::Image) {
                break;
            }
            // The header and the first image bytes leave in the same write.
            [[fallthrough]];
        case AtReplyPiece::Image: {
            Piece& image = out_.front();
            size_t count = static_cast<size_t>(
                std::min<uint64_t>(image.reply.imageEnd - image.imageAt, kImageBlock));
            size_t at = pending_.size();
            pending_.resize(at + count);
            FillCoreDump(crash.coreDumpSeed, crash.coreDumpSize, image.imageAt,
                         reinterpret_cast<uint8_t*>(&pending_[at]), count);
            image.imageAt += count;
            if (image.imageAt == image.reply.imageEnd) {
                out_.pop_front();
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
            out_.pop_front();
            break;
        case AtReplyPiece::BackToModem:
            // The reset happens once the host has read the OK (as far as it is reading at all).
            if (!piece.started) {
                piece.started = true;
                piece.until = now + std::chrono::milliseconds(kDrainMs);
            }
            if (!tcp_ && pty.Unread() > 0 && now < piece.until) {
                return 5;
            }
            out_.pop_front();
            backToModem = true;
            break;
        }
    }
    return 200;
}

// Writes what is pending; false when the link takes no more for now (or failed).
bool AtLink::Flush() {
    const char* data = pending_.data() + pendingSent_;
    size_t size = pending_.size() - pendingSent_;
    ssize_t written = tcp_ ? send(fd_, data, size, MSG_NOSIGNAL) : write(fd_, data, size);
    if (written > 0) {
        pendingSent_ += static_cast<size_t>(written);
        return true;
    }
    if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return false;
    }
    if (tcp_) {
        Drop(); // the client went away: so does what was meant for it
    }
    return false;
}

} // namespace zsim
