#include "zavra_test_udev.h"

#include <cstdio>
#include <cstdlib>

#include "zavra_test_files.h"

namespace zavra_test {

bool WriteUsbModem(const std::string& path, const std::vector<std::string>& ttyNodes,
                   const UsbModem& modem) {
    const std::string device = "/devices/pci0000:00/0000:00:14.0/usb1/" + modem.busPath;
    std::string text = "P: " + device + "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n" +
                       "A: idVendor=" + modem.vendorId + "\nA: idProduct=" + modem.productId +
                       "\nA: manufacturer=" + modem.manufacturer + "\nA: product=" + modem.product +
                       "\nA: serial=" + modem.serial + "\n";
    for (size_t i = 0; i < ttyNodes.size(); ++i) {
        char number[8];
        snprintf(number, sizeof number, "%02u", static_cast<unsigned>(2 * i));
        text += "\nP: " + device + "/" + modem.busPath + ":1." + std::to_string(2 * i) +
                "/tty/ttyACM" + std::to_string(i) +
                "\nE: SUBSYSTEM=tty\nE: DEVNAME=" + ttyNodes[i] +
                "\nE: ID_USB_INTERFACE_NUM=" + number + "\n";
    }
    return WriteFile(path, text);
}

bool StartInTestbed(Process& process, const std::string& descriptionFile,
                    const std::string& program, const std::vector<std::string>& args) {
    // umockdev's preload library comes ahead of a sanitizer runtime in the program.
    const char* const order = "verify_asan_link_order=0";
    const char* old = getenv("ASAN_OPTIONS");
    if (old == nullptr || *old == 0)
        setenv("ASAN_OPTIONS", order, 1);
    else if (std::string(old).find(order) == std::string::npos)
        setenv("ASAN_OPTIONS", (std::string(old) + ":" + order).c_str(), 1);
    std::vector<std::string> all = {"-d", descriptionFile, "--", program};
    all.insert(all.end(), args.begin(), args.end());
    return process.Start("/usr/bin/umockdev-run", all);
}

} // namespace zavra_test
