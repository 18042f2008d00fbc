// Database extraction is not in this build yet: -e is refused plainly after the command line was
// checked.
#include "zavra_log_serial_tgt_db.h"

#include "zavra_log_serial_args.h"

void ZlbsTgtDbStart(Zlbs&) {
    error(ZLBS_ERROR_NOT_AVAILABLE, 1,
          "Target database extraction (-e) is not available in this build.");
}

bool ZlbsTgtDbActive(Zlbs&) {
    return false;
}

int ZlbsTgtDbCheckProgress(Zlbs&, ZvAString& errorText) {
    errorText.clear();
    return 1;
}
