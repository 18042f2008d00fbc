#include "zsim-transcript.h"

namespace zsim {

std::string TranscriptLine(const HostRecord& record) {
    static const char kLayout[] = "?ABC";
    char head[256];
    std::snprintf(head, sizeof head,
                  "{\"ms\":%.3f,\"conn\":%u,\"offset\":%llu,\"id\":%u,\"kor\":%u,\"layout\":\"%c\","
                  "\"time\":%llu,\"size\":%zu,\"hex\":\"",
                  record.arrivalMs, record.connection,
                  static_cast<unsigned long long>(record.offset), record.id, record.kor,
                  kLayout[static_cast<unsigned>(record.layout) & 3],
                  static_cast<unsigned long long>(record.time), record.bytes.size());
    static const char kHex[] = "0123456789abcdef";
    std::string line(head);
    line.reserve(line.size() + record.bytes.size() * 2 + 3);
    for (uint8_t b : record.bytes) {
        line.push_back(kHex[b >> 4]);
        line.push_back(kHex[b & 15]);
    }
    line += "\"}\n";
    return line;
}

void WriteTranscriptLine(FILE* file, const HostRecord& record) {
    std::string line = TranscriptLine(record);
    std::fwrite(line.data(), 1, line.size(), file);
}

std::string AtTranscriptLine(double ms, const char* via, const std::string& command) {
    char head[96];
    std::snprintf(head, sizeof head, "{\"ms\":%.3f,\"via\":\"%s\",\"at\":\"", ms, via);
    std::string line(head);
    for (unsigned char c : command) {
        if (c == '"' || c == '\\') {
            line += '\\';
            line += static_cast<char>(c);
        } else if (c == '\r') {
            line += "\\r";
        } else if (c == '\n') {
            line += "\\n";
        } else if (c < 0x20 || c >= 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            line += escaped;
        } else {
            line += static_cast<char>(c);
        }
    }
    line += "\"}\n";
    return line;
}

} // namespace zsim
