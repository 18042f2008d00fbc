// A USB modem that the real libudev sees, for end-to-end runs of a program under umockdev.
//
// The description names the modem's tty interfaces by device nodes outside /dev (the
// simulator's pty links): umockdev does not intercept those, so the program opens the real
// pseudo-terminals (exclusive mode and hang-ups work), while libudev reports the mocked USB
// identity and the node as the interface's DEVNAME.
//
//   const std::string desc = dir.File("modem.umockdev");
//   ASSERT_TRUE(WriteUsbModem(desc, {modem.AtPortPath(), modem.PortPath()}));
//   ASSERT_TRUE(StartInTestbed(tool, desc, ZAVRA_LOG_SERIAL_PATH, {"-d" + modem.PortPath()}));
#pragma once

#include <string>
#include <vector>

#include "zavra_test_process.h"

namespace zavra_test {

// The identity of the mocked modem; its interfaces are numbered 00, 02, 04... in the order of
// the nodes, which is also the order in which detection lists them within the device.
struct UsbModem {
    std::string vendorId = "1e2d";
    std::string productId = "0061";
    std::string manufacturer = "Zavra";
    std::string product = "Zavra ZM200 Modem";
    std::string serial = "SN0001";
    std::string busPath = "1-1"; // position on the mocked bus; distinct per modem
};

// Writes the umockdev description of one modem with a tty interface per node.
bool WriteUsbModem(const std::string& path, const std::vector<std::string>& ttyNodes,
                   const UsbModem& modem = UsbModem());

// Starts `program` inside a umockdev testbed holding the description file. Signals sent to
// `process` reach the program, and its exit status is the process's.
bool StartInTestbed(Process& process, const std::string& descriptionFile,
                    const std::string& program, const std::vector<std::string>& args);

} // namespace zavra_test
