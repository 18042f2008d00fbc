#include "zavra_log_serial_port_select.h"

#include <strings.h>

#include <cstdio>
#include <vector>

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
    const ZvInterfaceInfo* serial = detect.Interfaces().FindSerialPort(port.c_str());
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

// The port of the last definition that a detected interface matches; empty when none does.
ZvAString MatchDefinitions(const std::vector<ZlbsPortDefinition>& definitions,
                           const ZvDeviceDetect& detect) {
    ZvAString port;
    for (const ZlbsPortDefinition& d : definitions) {
        const ZvInterfaceInfo* found =
            detect.Interfaces().FindInterface(d.vid.c_str(), d.pid.c_str(), d.mi.c_str());
        if (found != nullptr)
            port = found->portName;
    }
    return port;
}

const ZvInterfaceInfo* DetectedDiagPort(const ZvDeviceDetect& detect) {
    const ZvInterfaceInfo* diag =
        detect.Interfaces().FindFirst(ZvInterfaceTypeSerial, ZvInterfaceFunctionDiag);
    return diag != nullptr && diag->usbDetails ? diag : nullptr;
}

} // namespace

void ZlbsPortFromDefinitionFile(const ZvAString& path, const ZvDeviceDetect& detect,
                                ZlbsArgData& args) {
    ZvAStringList lines;
    if (!lines.LoadFromFile(path)) {
        ZvLog::Error("Failed to read from file '%s'", path.c_str());
        lines.Clear();
    }
    lines.TrimAll();
    lines.RemoveEmptyLines();
    std::vector<ZlbsPortDefinition> definitions;
    for (unsigned i = 0; i < lines.Count(); ++i) {
        ZlbsPortDefinition d;
        if (!lines[i].StartsWith("#") && ParseDefinition(lines[i], path, d.vid, d.pid, d.mi))
            definitions.push_back(d);
    }
    const ZvAString port = MatchDefinitions(definitions, detect);
    if (port.empty())
        error(ZLBS_ERROR_COMMAND_LINE, 0, "No port detected matching specification (from file).");
    args.devicePath = port;
    args.portSource = ZlbsPortSource::DefinitionFile;
    args.definitionFile = path;
    args.definitions = definitions;
    ReportPort(detect, port);
}

void ZlbsPortFromDetection(const ZvDeviceDetect& detect, ZlbsArgData& args) {
    const ZvInterfaceInfo* diag = DetectedDiagPort(detect);
    if (diag == nullptr)
        error(ZLBS_ERROR_COMMAND_LINE, 0,
              "No serial port has been specified or detected (-d option to specify a port, -h "
              "for help).");
    args.devicePath = diag->portName;
    args.portSource = ZlbsPortSource::Detection;
    ReportPort(detect, args.devicePath);
}

bool ZlbsFindPortAgain(const ZlbsArgData& args, const ZvDeviceDetect& detect, ZvAString& port,
                       ZvAString& failure) {
    switch (args.portSource) {
    case ZlbsPortSource::Option:
        port = args.devicePath;
        return true;
    case ZlbsPortSource::DefinitionFile:
        port = MatchDefinitions(args.definitions, detect);
        if (port.empty())
            failure.Printf("No detected port matches the interface definitions in '%s'.",
                           args.definitionFile.c_str());
        return !port.empty();
    case ZlbsPortSource::Detection: {
        const ZvInterfaceInfo* diag = DetectedDiagPort(detect);
        port = diag != nullptr ? diag->portName : ZvAString();
        if (port.empty())
            failure = "No serial diagnostic port is detected.";
        return !port.empty();
    }
    }
    return false;
}
