// Shared pieces of the end-to-end tests: the tool as a child process beside a simulated modem.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zavra_test_files.h"
#include "zavra_test_process.h"
#include "zsim-modem.h"

namespace apptest {

using Bytes = std::vector<uint8_t>;

// Bytes from a hex text such as "7F 80 7F 80 00 00", and back; blanks are ignored.
Bytes Hex(const char* text);
std::string ToHex(const Bytes& bytes);

// A modem on a pty in its own scratch directory, teeing what it sends to "sent.bin".
struct Bench {
    zavra_test::TempDir dir;
    zsim::ModemOptions options;
    zsim::Modem modem;

    Bench();
    // Starts the modem with `options`; fails the test when it cannot.
    void StartModem();
    std::string Port() const { return modem.PortPath(); }
    std::string Sent() const { return dir.File("sent.bin"); }
    std::string Out() const { return dir.File("out.zom"); }
};

// Starts zavra_log_serial with `args`.
void StartTool(zavra_test::Process& tool, const std::vector<std::string>& args);
// Waits for the tool to end; fails the test when it does not within the time-out.
void ExpectExit(zavra_test::Process& tool, int status, int timeoutMs = 20000);

// The file holds exactly the first `size` bytes the modem sent.
void ExpectCaptured(const std::string& file, Bench& bench, uint64_t size);

// The host records after the tool's start-up exchange: the records that arrived after the
// second OS_LOG_CHANNEL_OPEN (KOR 1).
std::vector<zsim::HostRecord> RecordsAfterOpen(const zsim::Modem& modem, unsigned openId = 0x35);

} // namespace apptest
