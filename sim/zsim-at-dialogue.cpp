#include "zsim-at-dialogue.h"

#include "zsim-crash-data.h"

#include <algorithm>
#include <iterator>

namespace zsim {

namespace {

const char kOk[] = "\r\nOK\r\n";
const char kError[] = "\r\nERROR\r\n";
const unsigned kSplitHeaderPauseMs = 50;

class Reply {
public:
    void Text(const std::string& text) { Add(AtReplyPiece::Text).text = text; }
    void Image(uint64_t end) { Add(AtReplyPiece::Image).imageEnd = end; }
    void Pause(unsigned ms) { Add(AtReplyPiece::Pause).pauseMs = ms; }
    void BackToModem() { Add(AtReplyPiece::BackToModem); }
    std::vector<AtReplyPiece> Take() { return std::move(pieces_); }

private:
    AtReplyPiece& Add(AtReplyPiece::Kind kind) {
        pieces_.emplace_back();
        pieces_.back().kind = kind;
        return pieces_.back();
    }
    std::vector<AtReplyPiece> pieces_;
};

void CoreDump(Reply& reply, const AtDialogueState& state) {
    const uint64_t size = state.coreDumpSize;
    switch (state.fault) {
    case CrashFault::DumpError:
        reply.Text(kError);
        return;
    case CrashFault::NoFullDumpAvailable:
        reply.Text("\r\nNo Full Core Dump Available\r\n");
        return;
    case CrashFault::SplitHeader: {
        // Two writes with a pause between: the host reads the header in two pieces.
        std::string header = CoreDumpHeader(size);
        size_t cut = header.find("size in bytes=");
        reply.Text(header.substr(0, cut));
        reply.Pause(kSplitHeaderPauseMs);
        reply.Text(header.substr(cut));
        break;
    }
    case CrashFault::ExtraAfterHeader:
        // Announces fewer bytes than follow in the very same write.
        reply.Text(CoreDumpHeader(std::min<uint64_t>(size / 2, 64)));
        break;
    case CrashFault::OversizeAnnounced:
        // Far more than any disk or budget of the host holds.
        reply.Text(CoreDumpHeader(4000000000ull));
        break;
    default:
        reply.Text(CoreDumpHeader(size));
        break;
    }
    if (state.fault == CrashFault::SilentMidDump) {
        reply.Image(size / 2); // and the rest never comes
        return;
    }
    reply.Image(size);
    reply.Text(kOk);
}

} // namespace

std::vector<AtReplyPiece> AtReply(const std::string& command, const AtDialogueState& state) {
    static const char* const kKnown[] = {
        "at",           "ate0",         "at%mode?",     "at%mode=0", "at%zreset",  "at%debug=?",
        "at%debug=2,1", "at%debug=0,0", "at%debug=1,0", "at%debug",  "at%debug=99"};
    const bool known = std::find(std::begin(kKnown), std::end(kKnown), command) != std::end(kKnown);
    const bool modemModeAnswer = !state.loader || state.fault == CrashFault::ModemMode;
    Reply reply;
    if (!known) {
        reply.Text(kError);
    } else if (command == "at%mode?") {
        reply.Text(modemModeAnswer ? "\r\n%MODE: 0\r\n\r\nOK\r\n" : "\r\n%MODE: 1\r\n\r\nOK\r\n");
    } else if (!state.loader) {
        reply.Text(kOk); // nothing to tell while the modem runs
    } else if (command == "at%debug=?") {
        reply.Text(state.fault == CrashFault::NoFullDump ? "\r\n%DEBUG: (0,1,2)\r\n\r\nOK\r\n"
                                                         : "\r\n%DEBUG: (0,1,2,3)\r\n\r\nOK\r\n");
    } else if (command == "at%debug=2,1") {
        CoreDump(reply, state);
    } else if (command == "at%debug=0,0" || command == "at%debug=1,0") {
        reply.Text(CrashInfoReply(state.crashInfo ? *state.crashInfo : std::string(), state.fault));
    } else if (command == "at%debug") {
        reply.Text(state.crashLog ? *state.crashLog : std::string());
    } else if (command == "at%mode=0" || command == "at%zreset") {
        reply.Text(kOk);
        reply.BackToModem();
    } else {
        reply.Text(kOk);
    }
    return reply.Take();
}

} // namespace zsim
