// Shared pieces of the end-to-end tests: the tool as a child process beside a simulated modem.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include "zavra_test_expect.h"
#include "zavra_test_files.h"
#include "zavra_test_process.h"
#include "zsim-modem.h"

namespace apptest {

using Bytes = std::vector<uint8_t>;

// Bytes from a hex text such as "7F 80 7F 80 00 00", and back; anything else is ignored.
inline Bytes Hex(const char* text) {
    Bytes out;
    std::string digits;
    for (; *text != 0; ++text) {
        if (isxdigit(static_cast<unsigned char>(*text)) && (digits += *text).size() == 2) {
            out.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return out;
}
inline std::string ToHex(const Bytes& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (uint8_t b : bytes)
        text += {digits[b >> 4], digits[b & 15]};
    return text;
}

// A modem on a pty in its own scratch directory, teeing what it sends to "sent.bin".
struct Bench {
    zavra_test::TempDir dir;
    zsim::ModemOptions options;
    zsim::Modem modem;

    Bench() {
        options.dir = dir.Path();
        options.teeFile = Sent();
        options.gen.enabled = false;
    }
    void StartModem() { ASSERT_TRUE(modem.Start(options)) << modem.Error(); }
    // A stream of `size` bytes at full speed, with a run of garbage between records now and then.
    void StartFlood(uint64_t size) {
        options.gen.enabled = true;
        options.gen.stopAfterBytes = size;
        options.gen.garbageEvery = 500;
        StartModem();
    }
    std::string Port() const { return modem.PortPath(); }
    std::string Sent() const { return dir.File("sent.bin"); }
    std::string Out() const { return dir.File("out.zom"); }
};

inline void StartTool(zavra_test::Process& tool, const std::vector<std::string>& args) {
    ASSERT_TRUE(tool.Start(ZAVRA_LOG_SERIAL_PATH, args)) << tool.Error();
}
using zavra_test::ExpectExit;

// The file holds exactly the first `size` bytes the modem sent.
inline void ExpectCaptured(const std::string& file, Bench& bench, uint64_t size) {
    bench.modem.FlushFiles();
    const std::string got = zavra_test::ReadFile(file), sent = zavra_test::ReadFile(bench.Sent());
    ASSERT_EQ(got.size(), size);
    ASSERT_GE(sent.size(), size);
    auto diff = std::mismatch(got.begin(), got.end(), sent.begin());
    EXPECT_TRUE(diff.first == got.end()) << "first difference at " << diff.first - got.begin();
}

// The records the host sent after the second OS_LOG_CHANNEL_OPEN (KOR 1), once it went quiet.
inline std::vector<zsim::HostRecord> RecordsAfterOpen(const zsim::Modem& modem) {
    modem.WaitUntil(zsim::HostQuiet(150), 3000); // what the tool wrote just before it exited
    std::vector<zsim::HostRecord> after;
    bool open = false;
    for (const zsim::HostRecord& r : modem.Records()) {
        if (open)
            after.push_back(r);
        else
            open = r.id == 0x35 && r.kor == 1;
    }
    return after;
}

} // namespace apptest
