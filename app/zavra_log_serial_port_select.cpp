#include "zavra_log_serial_port_select.h"

#include <strings.h>

#include <cstdio>

#include "zavra_log_serial_args.h"
#include "zv-device-detect.h"
#include "zv-log.h"
#include "zv-string-list-ascii.h"

namespace {

// A faulty line is echoed in its message only up to this many bytes, then "...": a file that is
// not a definition file at all may hold one huge line.
const size_t kEchoMax = 80;

ZvAString Echo(const ZvAString& line) {
    if (line.size() <= kEchoMax)
        return line;
    ZvAString cut = line.substr(0, kEchoMax);
    cut += "...";
    return cut;
}

// Prints which port was chosen, with the interface's friendly name when it is a known serial port.
void ReportPort(const ZvDeviceDetect& detect, const ZvAString& port) {
    const ZvInterfaceInfo* serial = detect.Interfaces().FindSerialPortName(port.c_str());
    if (serial != nullptr)
        fprintf(stderr, "Using %s (%s).\n", port.c_str(), serial->friendlyName.c_str());
    else
        fprintf(stderr, "Using %s.\n", port.c_str());
}

// One "VID=..., PID=..., MI=..." line; false (logged) when it is malformed.
bool ParseDefinition(const ZvAString& line, const ZvAString& path, ZvAString& vid, ZvAString& pid,
                     ZvAString& mi) {
    ZvAStringList items;
    items.SetDelimited(line.c_str(), ',');
    items.TrimAll();
    items.RemoveEmptyLines();
    if (items.Count() != 3) {
        ZvLog::Error("Incorrect interface definition '%s' in file '%s', incorrect number of "
                     "parameters.",
                     Echo(line).c_str(), path.c_str());
        return false;
    }
    bool haveVid = false, havePid = false, haveMi = false;
    for (unsigned i = 0; i < items.Count(); ++i) {
        ZvAString name, value;
        if (!items[i].GetNameAndValue(&name, &value, true))
            continue;
        name.Trim();
        value.Trim();
        // An empty value is no value: it would match a port without USB identity (a built-in
        // UART), whose empty VID, PID and MI compare equal to it.
        if (value.empty())
            continue;
        if (strcasecmp(name.c_str(), "VID") == 0)
            vid = value, haveVid = true;
        else if (strcasecmp(name.c_str(), "PID") == 0)
            pid = value, havePid = true;
        else if (strcasecmp(name.c_str(), "MI") == 0)
            mi = value, haveMi = true;
    }
    const char* missing = !haveVid ? "VID" : !havePid ? "PID" : !haveMi ? "MI" : nullptr;
    if (missing != nullptr) {
        ZvLog::Error("Incorrect interface definition '%s' in file '%s', '%s' parameter not found.",
                     Echo(line).c_str(), path.c_str(), missing);
        return false;
    }
    return true;
}

} // namespace

void ZlbsPortFromDefinitionFile(const ZvAString& path, const ZvDeviceDetect& detect,
                                ZvAString& devicePath) {
    ZvAStringList lines;
    ZvAString port;
    if (!lines.LoadFromFile(path)) {
        ZvLog::Error("Failed to read from file '%s'", path.c_str());
        lines.Clear();
    }
    lines.TrimAll();
    lines.RemoveEmptyLines();
    for (unsigned i = 0; i < lines.Count(); ++i) {
        if (lines[i].StartsWith("#"))
            continue;
        ZvAString vid, pid, mi;
        if (!ParseDefinition(lines[i], path, vid, pid, mi))
            continue;
        const ZvInterfaceInfo* found =
            detect.Interfaces().FindInterface(vid.c_str(), pid.c_str(), mi.c_str());
        if (found != nullptr)
            port = found->portName;
    }
    if (port.empty())
        error(ZLBS_ERROR_COMMAND_LINE, 0, "No port detected matching specification (from file).");
    devicePath = port;
    ReportPort(detect, port);
}

void ZlbsPortFromDetection(const ZvDeviceDetect& detect, ZvAString& devicePath) {
    const ZvInterfaceInfo* diag =
        detect.Interfaces().FindFirst(ZvInterfaceTypeSerial, ZvInterfaceFunctionDiag);
    if (diag == nullptr || !diag->usbDetails)
        error(ZLBS_ERROR_COMMAND_LINE, 0,
              "No serial port has been specified or detected (-d option to specify a port, -h "
              "for help).");
    devicePath = diag->portName;
    ReportPort(detect, devicePath);
}
