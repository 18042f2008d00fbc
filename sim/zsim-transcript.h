// The transcript of what the host sent, one JSON object per record and line.
#pragma once

#include "zsim-control.h"

#include <cstdio>
#include <string>

namespace zsim {

// {"ms":12.345,"conn":0,"offset":0,"id":53,"kor":0,"layout":"A","time":0,"size":24,"hex":"7f80..."}
std::string TranscriptLine(const HostRecord& record);
void WriteTranscriptLine(FILE* file, const HostRecord& record);

// An AT command, as received on the pty or the TCP AT port:
// {"ms":812.004,"via":"pty","at":"at%mode?\r"}
std::string AtTranscriptLine(double ms, const char* via, const std::string& command);

} // namespace zsim
