// The simulated modem as a real USB device: a composite gadget in configfs whose ACM functions are
// the modem's ports. On the modem's side each function is a tty (/dev/ttyGS<n>); on the host's the
// kernel's cdc-acm driver makes it a /dev/ttyACM<m> with its udev by-id link. Plugging the modem
// in is binding the gadget to its USB device controller, unplugging it is unbinding it.
//
// The modem keeps talking to its pseudo-terminals as always; a GadgetRelay joins each of them to
// the tty of its function while the gadget is plugged in. The functions, as the rig creates them:
//   modem mode:  acm.0 (interface 00, the AT port), acm.1 (02, idle), acm.2 (04, the log port)
//   loader mode: acm.1 alone (interface 00): after a crash the AT port is on another function
//
//   auto gadget = std::make_shared<zsim::Gadget>();
//   ASSERT_TRUE(gadget->Open({"/sys/kernel/config/usb_gadget/zavra", "dummy_udc.0"}, &error));
//   options.gadget = gadget;               // zsim::ModemOptions: the ports are served on it
//   gadget->SetUpDelay(500);               // after the next plug the modem opens its side late
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace zsim {

struct GadgetSetup {
    std::string dir; // the gadget's configfs folder
    std::string udc; // its USB device controller, e.g. dummy_udc.0
    std::string atFunction = "acm.0";
    std::string idleFunction = "acm.1"; // also the loader's AT port
    std::string logFunction = "acm.2";
};

class Gadget {
public:
    enum class Role { Log, At };
    enum class Mode { Modem, Loader };

    Gadget() = default;
    ~Gadget();
    Gadget(const Gadget&) = delete;
    Gadget& operator=(const Gadget&) = delete;

    // Checks the folder and its functions, unplugs it and sets the modem mode's functions.
    bool Open(const GadgetSetup& setup, std::string* error);
    // Plugs in with the functions of `mode`; unplugs first when plugged in the other mode.
    bool Plug(Mode mode, std::string* error = nullptr);
    void Unplug();
    bool Plugged() const;
    // The controller's state: "configured" once the host has enumerated the gadget. It reads
    // so for a moment after a plug too, before the host's reset turns it to "default".
    std::string UdcState() const;
    // The modem opens its ttys this long after each plug (its firmware is not ready yet). What
    // the host sends meanwhile is lost: the relay opens and closes the tty at once after the plug,
    // as the modem's USB stack starts, and the gadget then drops what arrives for a closed tty.
    // The host sees the modem's side open (DCD and DSR) only once it is ready.
    void SetUpDelay(unsigned ms);

    // The tty of `role` while the gadget is plugged in a mode that has it; `ready` tells whether
    // the up delay is over. `plug` receives the plug's number, so that a relay can tell a new
    // plug from the old one.
    std::string TtyFor(Role role, unsigned& plug, bool& ready) const;
    // Whether plug number `plug` is still the current one.
    bool StillPlugged(unsigned plug) const;

private:
    bool SetFunctions(Mode mode, std::string* error);
    bool WriteUdc(const std::string& text, std::string* error);
    std::string Tty(const std::string& function) const;

    GadgetSetup setup_;
    mutable std::mutex mutex_;
    bool plugged_ = false;
    Mode mode_ = Mode::Modem;
    unsigned plug_ = 0;
    unsigned upDelayMs_ = 0;
    std::chrono::steady_clock::time_point pluggedAt_;
};

// Joins a modem's pseudo-terminal (its slave side, which the relay reads and writes as the host
// would) to the gadget tty of its role, re-opening that tty after every plug; bytes flow both
// ways while the tty is open. The tty is raw with echo off before anything is written to it.
class GadgetRelay {
public:
    GadgetRelay(std::shared_ptr<Gadget> gadget, Gadget::Role role, int ptyFd);
    ~GadgetRelay(); // Stop()
    GadgetRelay(const GadgetRelay&) = delete;
    GadgetRelay& operator=(const GadgetRelay&) = delete;

    // Bytes taken from the modem that the host has not been sent yet.
    int Pending() const;
    // Ends the relay; what is pending is dropped and counted.
    uint64_t Stop();

private:
    void Run();
    void OpenTty();
    void Start(const std::string& path, unsigned plug);
    void CloseTty();
    bool Pump();

    std::shared_ptr<Gadget> gadget_;
    Gadget::Role role_;
    int pty_;
    int wake_ = -1;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_; // guards tty_ and buffer_ against Pending and Stop
    int tty_ = -1;
    unsigned plug_ = 0;
    unsigned started_ = 0; // the plug whose start the relay has seen
    unsigned seen_ = 0;    // the plug whose enumeration the relay is watching
    bool enumerating_ = false;
    std::chrono::steady_clock::time_point seenAt_;
    std::string buffer_; // from the modem, not yet written to the tty
    std::thread worker_;
    bool stopped_ = false;
};

} // namespace zsim
