// Reading an existing zip through minizip's reader. The target's own crash dump zip is input from
// outside: before anything is added to it, it is read through, every entry whole with its
// checksum checked, and its entry names are looked at.
#pragma once

#include <functional>

#include "zv-string-ascii.h"

// Calls `onEntry` with the name and the content of every entry of the zip at `path`, in order,
// until it returns false. False when the zip cannot be read to its end: it is damaged, or an
// entry is larger than `maxEntry` bytes.
bool ZvZipReadEntries(
    const char* path,
    const std::function<bool(const ZvAString& name, const ZvAString& data)>& onEntry,
    unsigned long long maxEntry = 1ULL << 30);
