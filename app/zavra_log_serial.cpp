// zavra_log_serial: captures a modem's merged log stream from a serial port.
#include "zavra_log_serial_app.h"

int main(int argc, char** argv) {
    return ZlbsApp().Run(argc, argv);
}
