// Shared pieces of the Wireshark tests: shell commands with their output, tshark with the ZOL
// dissector, and a capture that the tool makes from the simulated modem.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "zavra_test_expect.h"
#include "zavra_test_files.h"
#include "zsim-modem.h"

namespace wstest {

using zavra_test::Shell;

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// tshark reading `file` with no preferences of anyone (HOME is the test's), with the dissector
// given on its command line unless `script` is false (then it must find it by itself): one line
// per packet. Fails the test on an exit status or a message other than the one about running as
// root.
inline std::vector<std::string> Tshark(const zavra_test::TempDir& dir, const std::string& file,
                                       const std::string& args, bool script = true) {
    setenv("HOME", dir.Path().c_str(), 1);
    std::string out, errors;
    const std::string lua = script ? " -X lua_script:" ZAVRA_LUA_PATH " " : " ";
    const int status =
        Shell("tshark -r '" + file + "'" + lua + args + " 2>'" + dir.File("tshark.err") + "'", out);
    for (const std::string& line : Lines(zavra_test::ReadFile(dir.File("tshark.err"))))
        if (line.find("Running as user") == std::string::npos)
            errors += line + "\n";
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(errors, "");
    return Lines(out);
}

// `bytes` of the modem's generated stream captured by the tool into "capture.zom"; what the modem
// received from the tool is in "rx.bin".
struct SimCapture {
    zavra_test::TempDir dir;
    zsim::ModemOptions options;
    zsim::Modem modem;

    std::string Zom() const { return dir.File("capture.zom"); }
    std::string Rx() const { return dir.File("rx.bin"); }
    void Run(uint64_t bytes) {
        options.dir = dir.Path();
        options.rxFile = Rx();
        options.gen.stopAfterBytes = bytes;
        ASSERT_TRUE(modem.Start(options)) << modem.Error();
        zavra_test::Process tool;
        ASSERT_TRUE(tool.Start(ZAVRA_LOG_SERIAL_PATH, {"-d", modem.PortPath(), "-v1", Zom()}));
        EXPECT_TRUE(zavra_test::WaitUntil(
            [&] {
                const zsim::ModemCounters c = modem.Counters();
                return c.generatorDone && c.delivered == c.sent;
            },
            20000));
        tool.Signal(SIGTERM);
        zavra_test::ExpectExit(tool, SIGTERM);
        modem.Stop();
    }
};

} // namespace wstest
