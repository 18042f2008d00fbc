// zavra_extcap: the modem's log ports as capture interfaces of Wireshark (its extcap interface).
// Installed in Wireshark's extcap folder, it lists the log ports that device detection finds, and
// a capture runs zavra_log_serial on the chosen port and streams its records as pcapng.
//
//   zavra_extcap --extcap-interfaces
//   zavra_extcap --extcap-interface <if> --extcap-dlts | --extcap-config
//   zavra_extcap --extcap-interface <if> --capture --fifo <path> [--port <p>] [--no-flush]
//                [--deferred 0|1,<percent>,<seconds>] [--channel-id <id>] [--crash-dir <dir>]
//                [--tool <program>]
#include <getopt.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "quzol-pcapng.h"
#include "zavra_extcap_capture.h"
#include "zv-device-detect.h"
#include "zv-ver.h"

namespace {

// The interface whose port is given in the options: a multiplexer channel or a built-in UART,
// which detection does not list.
const char* const kAnyPortInterface = "zavra";

struct LogPort {
    std::string interface; // "zavra-ttyACM2"
    std::string port;      // "/dev/ttyACM2"
    std::string display;
};

// An interface name from the port's last path element, in characters Wireshark takes as is.
std::string InterfaceName(const std::string& port) {
    std::string name = "zavra-" + port.substr(port.find_last_of('/') + 1);
    for (char& c : name)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.')
            c = '_';
    return name;
}

// Every serial port of a detected USB device except the device's AT port: the modem's log
// ports. A device with one serial port only keeps it.
std::vector<LogPort> DetectLogPorts() {
    ZvDeviceDetect detect;
    detect.Refresh();
    std::vector<LogPort> ports;
    for (unsigned d = 0; d < detect.Tree().devices.Count(); ++d) {
        const ZvDeviceInfo* device = detect.Tree().devices.FindDevice(d);
        unsigned serialCount = 0;
        for (const ZvInterfaceInfo* info : device->interfaces)
            serialCount += info->type == ZvInterfaceTypeSerial && !info->portName.empty();
        for (const ZvInterfaceInfo* info : device->interfaces) {
            if (info->type != ZvInterfaceTypeSerial || info->portName.empty())
                continue;
            if (serialCount > 1 && detect.FindAtInterface(info->portName.c_str()) == info)
                continue;
            std::string name = InterfaceName(info->portName);
            for (unsigned n = 2; !ports.empty() && n < 100; ++n) {
                bool taken = false;
                for (const LogPort& p : ports)
                    taken = taken || p.interface == name;
                if (!taken)
                    break;
                name = InterfaceName(info->portName) + "_" + std::to_string(n);
            }
            ports.push_back({name, info->portName,
                             "Modem log on " + info->portName + " (" + info->friendlyName.c_str() +
                                 ", interface " + info->mi.c_str() + ")"});
        }
    }
    return ports;
}

std::string DefaultCrashDir() {
    const char* home = getenv("HOME");
    return home != nullptr && *home != 0 ? home : ".";
}

void PrintInterfaces() {
    ZvAString number;
    ZvVer(1, 8).GetNumberString(number);
    printf("extcap {version=%s}{display=Modem log (zavra_log_serial)}\n", number.c_str());
    printf("interface {value=%s}{display=Modem log (zavra_log_serial, port set in the options)}\n",
           kAnyPortInterface);
    for (const LogPort& port : DetectLogPorts())
        printf("interface {value=%s}{display=%s}\n", port.interface.c_str(), port.display.c_str());
}

void PrintConfig(const std::string& port) {
    printf("arg {number=0}{call=--port}{display=Log port}{type=string}{required=true}"
           "{tooltip=The modem's log port (the tool's -d option)}%s%s%s\n",
           port.empty() ? "" : "{default=", port.c_str(), port.empty() ? "" : "}");
    printf("arg {number=1}{call=--no-flush}{display=Do not flush the modem's log buffers (-b)}"
           "{type=boolflag}{default=false}\n");
    printf("arg {number=2}{call=--deferred}{display=Deferred logging (-r)}{type=string}"
           "{default=0}{validation=^(0|1, *[0-9]+, *[0-9]+)$}"
           "{tooltip=0 for off, or 1,<buffer percent>,<timeout in seconds>}\n");
    printf("arg {number=3}{call=--channel-id}{display=Open-channel message id (-c)}"
           "{type=unsigned}{default=0}{range=0,8191}{tooltip=0 means 0x35}\n");
    printf("arg {number=4}{call=--crash-dir}{display=Folder for crash bundles}{type=string}"
           "{default=%s}{tooltip=The tool runs here; a modem crash leaves its bundle here}\n",
           DefaultCrashDir().c_str());
    printf("arg {number=5}{call=--tool}{display=zavra_log_serial program}{type=string}"
           "{default=zavra_log_serial}\n");
}

int Usage() {
    fputs("Usage: zavra_extcap --extcap-interfaces\n"
          "       zavra_extcap --extcap-interface <if> --extcap-dlts | --extcap-config\n"
          "       zavra_extcap --extcap-interface <if> --capture --fifo <path> [--port <port>]\n"
          "                    [--no-flush] [--deferred 0|1,<percent>,<seconds>]\n"
          "                    [--channel-id <id>] [--crash-dir <dir>] [--tool <program>]\n",
          stderr);
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    enum Option {
        Interfaces = 1000,
        Version,
        Interface,
        Dlts,
        Config,
        Capture,
        Fifo,
        Filter,
        Port,
        NoFlush,
        Deferred,
        ChannelId,
        CrashDir,
        Tool,
    };
    static const struct option kOptions[] = {
        {"extcap-interfaces", no_argument, nullptr, Interfaces},
        {"extcap-version", optional_argument, nullptr, Version},
        {"extcap-interface", required_argument, nullptr, Interface},
        {"extcap-dlts", no_argument, nullptr, Dlts},
        {"extcap-config", no_argument, nullptr, Config},
        {"capture", no_argument, nullptr, Capture},
        {"fifo", required_argument, nullptr, Fifo},
        {"extcap-capture-filter", required_argument, nullptr, Filter},
        {"port", required_argument, nullptr, Port},
        {"no-flush", no_argument, nullptr, NoFlush},
        {"deferred", required_argument, nullptr, Deferred},
        {"channel-id", required_argument, nullptr, ChannelId},
        {"crash-dir", required_argument, nullptr, CrashDir},
        {"tool", required_argument, nullptr, Tool},
        {nullptr, 0, nullptr, 0},
    };
    int action = 0;
    std::string interface;
    ExtcapCaptureOptions capture;
    for (int option; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        switch (option) {
        case Interfaces:
        case Dlts:
        case Config:
        case Capture:
            action = option;
            break;
        case Version: // the caller's Wireshark version; this program speaks every one
        case Filter:  // no capture filter: every record of the port is captured
            break;
        case Interface:
            interface = optarg;
            break;
        case Fifo:
            capture.wiresharkFifo = optarg;
            break;
        case Port:
            capture.port = optarg;
            break;
        case NoFlush:
            capture.flush = false;
            break;
        case Deferred:
            capture.deferred = optarg;
            break;
        case ChannelId:
            capture.channelId = static_cast<unsigned>(strtoul(optarg, nullptr, 0));
            break;
        case CrashDir:
            capture.crashDir = optarg;
            break;
        case Tool:
            capture.tool = optarg;
            break;
        default:
            return Usage();
        }
    }
    if (action == Interfaces) {
        PrintInterfaces();
        return 0;
    }
    // The port of a detected interface; the any-port interface has none.
    std::string detected;
    if (!interface.empty() && interface != kAnyPortInterface) {
        for (const LogPort& port : DetectLogPorts())
            if (port.interface == interface)
                detected = port.port;
        if (detected.empty()) {
            fprintf(stderr, "The interface '%s' is not a detected modem log port.\n",
                    interface.c_str());
            return 1;
        }
    }
    if (interface.empty() || (action != Dlts && action != Config && action != Capture))
        return Usage();
    if (action == Dlts) {
        printf("dlt {number=%u}{name=WIRESHARK_UPPER_PDU}{display=ZOL records}\n",
               kQoPcapngLinkType);
        return 0;
    }
    if (action == Config) {
        PrintConfig(detected);
        return 0;
    }
    if (capture.port.empty())
        capture.port = detected;
    if (capture.port.empty() || capture.wiresharkFifo.empty()) {
        fprintf(stderr, "%s\n",
                capture.port.empty() ? "No log port given (--port)." : "No FIFO given (--fifo).");
        return 1;
    }
    if (capture.crashDir.empty())
        capture.crashDir = DefaultCrashDir();
    return RunExtcapCapture(capture);
}
