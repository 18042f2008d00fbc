// What the modem answers to one AT command, as a list of reply pieces: text, a stretch of the
// external RAM image, a pause between two writes, and the switch back to modem mode once the
// host has read what came before. Only the decision; the AT server writes the pieces.
#pragma once

#include "zsim-crash.h"

#include <cstdint>
#include <string>
#include <vector>

namespace zsim {

struct AtReplyPiece {
    enum Kind { Text, Image, Pause, BackToModem } kind = Text;
    std::string text;      // Text
    uint64_t imageEnd = 0; // Image: bytes [0, imageEnd) of the image
    unsigned pauseMs = 0;  // Pause
};

// What the modem knows when it answers.
struct AtDialogueState {
    bool loader = false; // crashed and in the loader; else modem mode
    CrashFault fault = CrashFault::None;
    uint64_t coreDumpSize = 0;
    const std::string* crashInfo = nullptr; // the crash information text as configured
    const std::string* crashLog = nullptr;
};

// `command` is what the host sent, without its "\r", in lower case.
std::vector<AtReplyPiece> AtReply(const std::string& command, const AtDialogueState& state);

} // namespace zsim
