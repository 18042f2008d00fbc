// Daemon mode is not in this build yet: -a is refused plainly after the command line was checked.
#include "zavra_log_serial_daemon.h"

#include "zavra_log_serial_args.h"

void ZlbsDaemonStart(Zlbs&) {
    error(ZLBS_ERROR_NOT_AVAILABLE, 1, "Daemon mode (-a) is not available in this build.");
}

void ZlbsDaemonPortFailed(Zlbs&) {}

void ZlbsDaemonCrashFileName(Zlbs&, ZvAString& name) {
    name.clear();
}
