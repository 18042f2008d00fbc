// zavra_log_serial: captures a modem's merged log stream from a serial port.
#include <cstdio>

#include "zv-string-ascii.h"
#include "zv-ver.h"

int main() {
    ZvVer version(1, 8);
    ZvAString text;
    version.GetFullVersionString(text);
    fprintf(stderr, "zavra_log_serial, %s\n", text.c_str());
    return 0;
}
