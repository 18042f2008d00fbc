// Choosing the serial port when -d does not name it: from an interface definition file (a ".txt"
// argument whose lines give the VID, PID and MI of the port) or from device detection; and finding
// it again, the same way, at every later open.
#pragma once

#include "zavra_log_serial_args.h"

class ZvDeviceDetect;

// Reads the definition file and matches its lines against the detected interfaces; the last
// matching line gives the device path, and "Using ..." is printed. The lines are kept in `args`
// for later opens. Faulty lines are logged and skipped; no match at all ends the process through
// error().
void ZlbsPortFromDefinitionFile(const ZvAString& path, const ZvDeviceDetect& detect,
                                ZlbsArgData& args);

// The first detected serial diagnostic port with USB details, else the process ends through
// error() because no port is known.
void ZlbsPortFromDetection(const ZvDeviceDetect& detect, ZlbsArgData& args);

// The node that the port's definition file or device detection gives in a fresh `detect` (the
// -d path as it is); false, with a sentence saying what matched nothing, when there is none.
bool ZlbsFindPortAgain(const ZlbsArgData& args, const ZvDeviceDetect& detect, ZvAString& port,
                       ZvAString& failure);
