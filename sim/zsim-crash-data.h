// What the crashed modem has to tell: its external RAM image, produced block by block so that a
// large dump never sits in memory whole, and the texts it serves for the crash information and
// the crash log.
#pragma once

#include "zsim-crash.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace zsim {

// The address the core dump header announces for the start of the external RAM.
constexpr uint64_t kCoreDumpAddress = 0x80000000;

// Bytes [offset, offset + count) of the image for this seed and size.
void FillCoreDump(uint32_t seed, uint64_t size, uint64_t offset, uint8_t* out, size_t count);

// The header line that comes before the image.
std::string CoreDumpHeader(uint64_t announcedSize);

// A crash log of a few hundred bytes, used when the options give none.
std::string BuiltInCrashLog();

// What the crash information command answers under this fault: the text as it is, or cut or
// padded (with blanks) to exactly 200 or 201 bytes.
std::string CrashInfoReply(const std::string& text, CrashFault fault);

} // namespace zsim
