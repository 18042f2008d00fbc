// Target database extraction (-e): the extractor bound to the tool's serial port and the receive
// handler that feeds it. Start-up calls ZlbsTgtDbStart; the wait loop polls the progress.
#pragma once

#include "zv-string-ascii.h"

class Zlbs;

// Configures the extractor with the database file and selects its receiver. Ends the process
// through error() on failure.
void ZlbsTgtDbStart(Zlbs& app);
// Whether an extraction is running (the wait loop then polls it instead of the time limit).
bool ZlbsTgtDbActive(Zlbs& app);
// 0 while running, 1 when it failed for good (`errorText` says why, may be empty), 2 when the
// file is complete.
int ZlbsTgtDbCheckProgress(Zlbs& app, ZvAString& errorText);
