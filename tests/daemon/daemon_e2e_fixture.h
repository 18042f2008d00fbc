// The tool in daemon mode as a child process, beside a simulated modem on a pseudo-terminal.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon_test_files.h"
#include "zavra_test_process.h"
#include "zsim-modem.h"

namespace daemon_test {

struct DaemonRun {
    zavra_test::TempDir scratch;
    std::string store = scratch.File("store"); // the daemon directory
    zsim::ModemOptions options;
    zsim::Modem modem;
    zavra_test::Process tool;

    DaemonRun();
    // The modem with its generator on: `bytes` of stream (0: endless) at `rate` bytes per second
    // (0: as fast as the pty takes).
    void StartModem(uint64_t bytes, uint64_t rate = 0);
    // zavra_log_serial -d<port> -a<store>[,<sizes>] -t plus `extra`.
    void StartTool(const std::string& sizes, const std::vector<std::string>& extra = {});
    // SIGTERM, then the exit status 15.
    void Terminate();
    std::string Sent() const { return scratch.File("sent.bin"); }
    std::string StoreFile(const std::string& name) const { return store + "/" + name; }
    bool WaitForJournal(const std::string& text, int timeoutMs) const;
    size_t RecordsWithId(unsigned id) const { return modem.RecordsWithId(id).size(); }
};

// A part of a file's bytes (to the end when size is npos).
std::string ReadPart(const std::string& path, size_t offset, size_t size = std::string::npos);

} // namespace daemon_test
