#include "zsim-crash-data.h"

#include <minizip/zip.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace zsim {

namespace {

uint64_t SplitMix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

std::string Base64(const std::string& data) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    for (size_t i = 0; i < data.size(); i += 3) {
        uint32_t group = static_cast<uint8_t>(data[i]) << 16;
        size_t have = data.size() - i;
        if (have > 1) {
            group |= static_cast<uint8_t>(data[i + 1]) << 8;
        }
        if (have > 2) {
            group |= static_cast<uint8_t>(data[i + 2]);
        }
        out += kAlphabet[(group >> 18) & 63];
        out += kAlphabet[(group >> 12) & 63];
        out += have > 1 ? kAlphabet[(group >> 6) & 63] : '=';
        out += have > 2 ? kAlphabet[group & 63] : '=';
    }
    return out;
}

// A stand-in for a per-processor log chunk: deterministic bytes of every value.
std::string LogChunk(unsigned kor, unsigned chunk, size_t size) {
    std::string out(size, '\0');
    uint64_t state = (uint64_t{kor} << 8) | chunk;
    for (size_t i = 0; i < size; i += 8) {
        uint64_t word = SplitMix(state + i);
        for (size_t k = 0; k < 8 && i + k < size; ++k) {
            out[i + k] = static_cast<char>(word >> (8 * k));
        }
    }
    return out;
}

const char kBbEvents[] = "0000.000 boot: loader 3.2 started\n"
                         "0000.412 boot: modem image verified\n"
                         "0012.870 kor1: watchdog not served for 4000 ms\n"
                         "0012.871 kor0: fatal error raised by kor1, halting\n";

const char kRegisters[] = "kor0 pc=0x8001f2a4 lr=0x8001f1e0 sp=0x8ff01c40 cpsr=0x600001d3\n"
                          "kor1 pc=0x80231e08 lr=0x80231df4 sp=0x8fe80a10 cpsr=0x200001df\n";

const char kSummary[] = "Modem crash summary\n"
                        "Cause: watchdog expiry on KOR 1\n"
                        "Uptime: 12.871 s";

// The modem's own crash dump zip, written with minizip into a scratch file and read back.
std::string MakeCrashZip() {
    const char* base = std::getenv("TMPDIR");
    std::string path = std::string(base && *base ? base : "/tmp") + "/zsim-crash-zip-XXXXXX";
    int fd = mkstemp(&path[0]);
    if (fd < 0) {
        return std::string();
    }
    close(fd);
    std::string out;
    zipFile zip = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
    bool ok = zip != nullptr;
    const std::pair<const char*, const char*> entries[] = {{"bb_events.txt", kBbEvents},
                                                           {"registers.txt", kRegisters}};
    for (const auto& entry : entries) {
        zip_fileinfo info{}; // all zero: the same bytes on every run
        ok = ok &&
             zipOpenNewFileInZip(zip, entry.first, &info, nullptr, 0, nullptr, 0, nullptr,
                                 Z_DEFLATED, Z_DEFAULT_COMPRESSION) == ZIP_OK &&
             zipWriteInFileInZip(zip, entry.second,
                                 static_cast<unsigned>(std::strlen(entry.second))) == ZIP_OK &&
             zipCloseFileInZip(zip) == ZIP_OK;
    }
    if (zip && zipClose(zip, nullptr) != ZIP_OK) {
        ok = false;
    }
    if (ok) {
        if (FILE* file = std::fopen(path.c_str(), "rb")) {
            char buffer[4096];
            size_t got;
            while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
                out.append(buffer, got);
            }
            std::fclose(file);
        }
    }
    unlink(path.c_str());
    return out;
}

void AppendSection(std::string& text, const std::string& description, const std::string& encoding,
                   const std::string& content) {
    text += "--Zavra debug info\r\n";
    text += "Content-Description: " + description + "\r\n";
    text += "Content-Transfer-Encoding: " + encoding + "\r\n";
    text += "\r\n";
    if (encoding == "x-base64") {
        std::string encoded = Base64(content);
        for (size_t i = 0; i < encoded.size(); i += 76) {
            text += encoded.substr(i, 76) + "\r\n";
        }
        return;
    }
    for (char c : content) {
        text += c == '\n' ? std::string("\r\n") : std::string(1, c);
    }
    text += "\r\n";
}

} // namespace

void FillCoreDump(uint32_t seed, uint64_t size, uint64_t offset, uint8_t* out, size_t count) {
    uint64_t key = SplitMix((uint64_t{seed} << 32) ^ size);
    size_t done = 0;
    while (done < count) {
        uint64_t position = offset + done;
        uint64_t word = SplitMix(key + position / 8);
        for (unsigned k = static_cast<unsigned>(position % 8); k < 8 && done < count; ++k) {
            out[done++] = static_cast<uint8_t>(word >> (8 * k));
        }
    }
}

std::string CoreDumpHeader(uint64_t announcedSize) {
    char line[160];
    std::snprintf(
        line, sizeof line,
        "\r\nstart of external ram content, start address=0x%llx, size in bytes=%llu:\r\n",
        static_cast<unsigned long long>(kCoreDumpAddress),
        static_cast<unsigned long long>(announcedSize));
    return line;
}

std::string BuiltInCrashLog() {
    return "\r\nCRASH LOG\r\n"
           "Reason: watchdog expiry on KOR 1 (task 'l1_sched', 4000 ms without service)\r\n"
           "KOR 0: halted by fatal error broadcast at 12.871 s\r\n"
           "KOR 1: pc=0x80231e08 lr=0x80231df4 sp=0x8fe80a10\r\n"
           "KOR 2: idle\r\n"
           "Last events: rrc_conn_release, l1_sleep_enter, l1_sleep_exit, wdg_expiry\r\n"
           "Full core dump of external RAM available.\r\n";
}

std::string CrashInfoReply(const std::string& text, CrashFault fault) {
    size_t exact = fault == CrashFault::Info200 ? 200 : fault == CrashFault::Info201 ? 201 : 0;
    if (exact == 0) {
        return text;
    }
    std::string reply = text.substr(0, exact);
    reply.resize(exact, ' ');
    return reply;
}

std::vector<CrashSection> BuiltInCrashSections() {
    std::vector<CrashSection> sections;
    sections.push_back({"crash_dump_1.zip", "x-base64", MakeCrashZip()});
    const unsigned chunks[][2] = {{0, 1}, {0, 2}, {1, 1}, {1, 2}, {2, 1}};
    size_t size = 700;
    for (const auto& chunk : chunks) {
        std::string name =
            "logging_kor" + std::to_string(chunk[0]) + "_chunk" + std::to_string(chunk[1]) + ".zol";
        sections.push_back({name, "x-base64", LogChunk(chunk[0], chunk[1], size)});
        size += 211; // sizes that end differently against the base64 groups of three
    }
    sections.push_back({"bb_events.txt", "x-base64", kBbEvents});
    sections.push_back({"crash_summary.txt", "text/plain", kSummary});
    return sections;
}

std::string BuiltInCrashInfoText() {
    std::string text = "Zavra modem crash information\r\nFormat: 2\r\n\r\n";
    for (const CrashSection& section : BuiltInCrashSections()) {
        AppendSection(text, section.description, section.encoding, section.content);
        if (section.description == "logging_kor2_chunk1.zol") {
            // The second chunk of KOR 2 was lost in the crash: the section says so, and has
            // no data (a decoder must skip it).
            text += "--Zavra debug info\r\n"
                    "Content-Description: logging_kor2_chunk2.zol\r\n"
                    "Content-Transfer-Encoding: x-base64\r\n"
                    "Content-Comment: No valid log data available\r\n"
                    "\r\n";
        }
    }
    text += "--Zavra debug info--\r\n";
    return text;
}

namespace {

// In the order of CrashFault.
const char* const kCrashFaultNames[] = {
    "none",         "no-full-dump",       "dump-error",      "no-dump-available",
    "split-header", "extra-after-header", "silent-mid-dump", "never-comes-back",
    "info-200",     "info-201",           "modem-mode",      "oversize-announced"};

static_assert(sizeof kCrashFaultNames / sizeof *kCrashFaultNames ==
                  static_cast<size_t>(CrashFault::OversizeAnnounced) + 1,
              "a name for each");

} // namespace

const char* CrashFaultName(CrashFault fault) {
    return kCrashFaultNames[static_cast<size_t>(fault)];
}

bool CrashFaultFromName(const std::string& name, CrashFault& fault) {
    return FindName(kCrashFaultNames, name, fault);
}

} // namespace zsim
