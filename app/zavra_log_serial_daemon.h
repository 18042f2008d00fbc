// Daemon mode (-a): the size-budgeted store of log files, bound to the tool's serial port, and
// the receive handler that feeds it. The wait loop and OnExit call these at their daemon branches.
#pragma once

#include "zv-string-ascii.h"

class Zlbs;

// Starts daemon mode: selects the daemon receiver and initialises the store, whose own threads
// open the port and initialise the target. Ends the process through error() on failure.
void ZlbsDaemonStart(Zlbs& app);
// The port reader failed: the store is told and re-opens the port when it comes back.
void ZlbsDaemonPortFailed(Zlbs& app);
// The run is ending (OnExit, after the port was closed): the store stops its threads, closes the
// port again should its connect thread have re-opened it meanwhile, and closes the current log
// file, with every byte received, and the journal.
void ZlbsDaemonExit(Zlbs& app);
// The base name for files about a target crash: the current log of the store.
void ZlbsDaemonCrashFileName(Zlbs& app, ZvAString& name);
// Crash bundles count in the store's budget: the room the store can make for the next one, making
// room for a core dump of `bytes`, and counting the bundle named after `baseName` once it is made.
unsigned long long ZlbsDaemonCrashRoom(Zlbs& app);
void ZlbsDaemonMakeRoomForCrash(Zlbs& app, unsigned long long bytes);
void ZlbsDaemonAddCrashBundle(Zlbs& app, const ZvAString& baseName);
// A line of the crash check in the store's journal.
void ZlbsDaemonJournal(Zlbs& app, const char* text);
// One line in the daemon's journal, for what the tool's port hooks find out (a new node, a late
// modem, no AT port).
void ZlbsDaemonJournal(Zlbs& app, const ZvAString& text);
