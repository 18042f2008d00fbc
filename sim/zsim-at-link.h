// One way into the modem's AT port, the pty or a TCP client: the command being received, and the
// replies still to be written with how far each has got (image bytes are made as they go out).
#pragma once

#include "zsim-at-dialogue.h"
#include "zsim-pty-port.h"
#include "zsim-worker.h"

#include <deque>
#include <functional>
#include <string>

namespace zsim {

class AtLink {
public:
    explicit AtLink(bool tcp = false, int fd = -1) : tcp_(tcp), fd_(fd) {}

    bool Tcp() const { return tcp_; }
    int Fd() const { return fd_; }
    bool Unsent() const { return pendingSent_ < pending_.size(); }

    // Reads all there is and hands each whole command, "\r" included, to `take` (a line feed or
    // blanks before a command are skipped). A TCP client that has gone is dropped.
    void Read(const std::function<void(AtLink&, const std::string&)>& take);
    void Queue(AtReplyPiece reply);
    // Writes what it can; returns the poll time-out it wants. Sets `backToModem` once the reply
    // to a reset has been read (as far as the host on `pty` reads at all).
    int Write(Clock::time_point now, const CrashOptions& crash, const PtyPort& pty,
              bool& backToModem);
    // A TCP client went away: so does what was meant for it.
    void Drop();

private:
    // One piece of a reply still to be written, with how far it has got.
    struct Piece {
        AtReplyPiece reply;
        uint64_t imageAt = 0; // image bytes written so far
        bool started = false; // a pause or a switch back has begun waiting
        Clock::time_point until;
    };

    bool Flush();

    bool tcp_;
    int fd_;
    std::string input_; // the command being received
    std::deque<Piece> out_;
    std::string pending_; // bytes taken from `out_`, not yet written
    size_t pendingSent_ = 0;
};

} // namespace zsim
