// Choosing the serial port when -d does not name it: from an interface definition file (a ".txt"
// argument whose lines give the VID, PID and MI of the port) or from device detection.
#pragma once

#include "zv-string-ascii.h"

class ZvDeviceDetect;

// Reads the definition file and matches its lines against the detected interfaces; the last
// matching line gives `devicePath`, and "Using ..." is printed. Faulty lines are logged and
// skipped; no match at all ends the process through error().
void ZlbsPortFromDefinitionFile(const ZvAString& path, const ZvDeviceDetect& detect,
                                ZvAString& devicePath);

// The first detected serial diagnostic port with USB details, else the process ends through
// error() because no port is known.
void ZlbsPortFromDetection(const ZvDeviceDetect& detect, ZvAString& devicePath);
