// One simulated serial port: a pseudo-terminal pair published under a stable path (a symlink that
// is re-pointed when the port comes back). The simulator keeps its own slave descriptor open, so it
// can tell how many bytes the host has not read yet and collect them before hanging up (a pty
// discards unread bytes when its master closes). Used by the logging port and open for other ports
// (an AT port) of the same modem. Served on a USB gadget (zsim-gadget.h), the pty is joined to the
// gadget's tty instead of being left for the host, and the logging port's hang-up unplugs the
// gadget.
#pragma once

#include "zsim-gadget.h"

#include <cstdint>
#include <memory>
#include <string>

namespace zsim {

class PtyPort {
public:
    PtyPort() = default;
    ~PtyPort();
    PtyPort(const PtyPort&) = delete;
    PtyPort& operator=(const PtyPort&) = delete;

    // Creates a new pty in raw mode (non-blocking master) and points linkPath at its slave.
    // The link is replaced atomically. False with error text on failure.
    bool Open(const std::string& linkPath, std::string* error = nullptr);
    // From the next Open on, the port is the gadget's tty of `role`. Opening the logging port
    // plugs the gadget in modem mode; opening the AT port while it is unplugged plugs it in the
    // loader's mode.
    void ServeOnGadget(std::shared_ptr<Gadget> gadget, Gadget::Role role);
    bool IsOpen() const { return master_ >= 0; }

    // Bytes written to the master that the host has not read yet (queued in the slave).
    int Unread() const;
    // Whether a descriptor other than our own has the slave open (looked up in /proc).
    bool HostHasOpen() const;
    // Waits until the host has read everything (unread count 0 over a few checks). Gives up
    // early when nobody else has the port open: those bytes will never be read.
    bool Drain(unsigned timeoutMs) const;
    // Reads (and so takes away from the host) whatever is still queued; returns the count.
    uint64_t CollectUnread();
    // Closes both ends; the link is re-pointed at a path that does not exist, so the host's
    // re-open fails until Open is called again. Returns the bytes collected from the queue.
    uint64_t HangUp();
    // Hangs up and removes the link.
    void Close();

    int MasterFd() const { return master_; }
    const std::string& LinkPath() const { return link_; }
    const std::string& SlavePath() const { return slave_; }

private:
    void PointLinkAt(const std::string& target);
    int master_ = -1;
    int ownSlave_ = -1;
    std::shared_ptr<Gadget> gadget_;
    Gadget::Role role_ = Gadget::Role::Log;
    std::unique_ptr<GadgetRelay> relay_;
    std::string link_;
    std::string slave_;
};

} // namespace zsim
