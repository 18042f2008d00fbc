// The pcapng export of a whole input, from a file descriptor to a file descriptor: a file, a
// pipe or a socket in, a file or a pipe out.
#pragma once

#include "zv-string-ascii.h"

// Reads `inFd` to its end and writes the pcapng stream to `outFd`, each read's packets flushed
// before the next read, so a live stream shows in Wireshark as it arrives. A regular file is
// first read once to place its records in time: by the first host time in it (OS_LOG_HOST_TIME
// with the ids of `baseId`, the tool's -c), else so that its last record lies at the file's
// modification time. Any other input puts its first record at the time it arrives.
// `outName` names the output in messages. False with `error` set on a read or write failure.
bool QoZolExportPcapng(int inFd, int outFd, unsigned baseId, const char* inName,
                       const char* outName, ZvAString& error);
