// Helpers shared by the crash information decoder and the crash tidy and zip steps: optional
// error texts, the file-name guard for section names, recognising the target's crash dump zip,
// the names used inside the crash zip, and moving a retrieved file to its final name.
#pragma once

#include "zv-string-ascii.h"

// Formats a message into `error` when it is given; callers that do not want the text pass null.
void ZvCrashSetError(ZvAString* error, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// True when `name` is safe as a file name directly inside the output directory and as a name in
// the crash zip: not empty, not ".", no "..", no "/" or "\", no control character, at most 255
// bytes. The target names its sections itself, and a crashed target's text cannot be trusted to
// do that well.
bool ZvCrashIsPlainFileName(const ZvAString& name);

// True when the file name of `path` begins with "crash_dump" and its extension is ".zip". When
// `number` is given it receives the rest of the name read as a decimal number (0 without digits).
bool ZvCrashIsDumpZip(const char* path, long* number = nullptr);

// The name a file is stored under in the crash zip: the core dump by its fixed name, the target's
// own event list renamed so that it does not clash with the copy already in the target's zip, and
// everything else by its file name.
ZvAString ZvCrashNameInZip(const ZvAString& path);

// Gives the file at `from` the name `name` in `dir` (null or empty: the current directory),
// replacing any file of that name. Returns the path the file has afterwards: the new one, or
// `from` unchanged when the rename failed, so the caller never loses track of the data.
ZvAString ZvCrashMoveToName(const ZvAString& from, const char* dir, const char* name);

// Writes `data` to `path` ("wb") in one write. False with the message in `error` on failure.
bool ZvCrashWriteFile(const ZvAString& path, const ZvAString& data, ZvAString* error);
