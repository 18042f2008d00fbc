// Command-line faults of zavra_log_serial: each bad command line gives its exact message through
// the tool's error line and its exit status (0 for every option fault, on purpose).
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "zavra_test_expect.h"
#include "zavra_test_files.h"
#include "zavra_test_process.h"

namespace {

struct Outcome {
    int status;
    std::string err;
};

Outcome RunTool(const std::vector<std::string>& args, bool inTestbed = false) {
    zavra_test::Process tool;
    std::vector<std::string> all = args;
    if (inTestbed)
        all.insert(all.begin(), ZAVRA_LOG_SERIAL_PATH);
    EXPECT_TRUE(tool.Start(inTestbed ? ZAVRA_TESTBED : ZAVRA_LOG_SERIAL_PATH, all)) << tool.Error();
    if (!tool.Wait(20000)) {
        tool.Kill();
        ADD_FAILURE() << "the tool did not end: " << tool.Stderr();
    }
    return {tool.ExitCode(), tool.Stderr()};
}

// Every bad command line ends with its error line, "Error <status>(<code>):<message>", and that
// status: 0 for every option fault (on purpose), the system's error number for a port or a script
// that cannot be opened. A script must be a readable regular file, refused before the port is
// touched.
TEST(CommandLine, EveryFaultHasItsMessageAndStatus) {
    zavra_test::TempDir dir;
    const std::string blocked = dir.File("plain-file");
    ASSERT_TRUE(zavra_test::WriteFile(blocked, "x"));
    const std::string logs = dir.File("logs"), missing = dir.File("missing.txt");
    const std::string fifo = dir.File("fifo.zos"), locked = dir.File("locked.zos");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
    ASSERT_TRUE(zavra_test::WriteFile(locked, std::string(16, '\0')));
    chmod(locked.c_str(), 0);
    auto option = [](const std::string& message) { return "Error 0(14):" + message; };
    auto script = [](int status, const std::string& file) {
        return std::vector<std::string>{"-d/nonexistent/port", "-s" + file, "out.zom",
                                        "Error " + std::to_string(status) +
                                            "(12):Failed to open script file '" + file + "'"};
    };
    const std::string noPort =
        "Error 2(19):Failed to open the serial logging interface '/nonexistent/port'.";
    struct Fault {
        std::vector<std::string> args; // the last one is the whole error line, without its LF
        std::string before = "";       // the line printed before it
    };
    std::vector<Fault> faults = {
        {{"-a,", option("The -a (daemon mode) option requires an argument.")}},
        {{"-a" + blocked + "/sub",
          option("The output directory '" + blocked +
                 "/sub' given in the -a (daemon mode) option could not be created.")}},
        {{"-d", " , ", option("The -d (serial port) option requires an argument.")}},
        {{"-edb.zx.txt", option("The -e (embedded database) argument has an incorrect extension "
                                "(must be '.zx').")}},
        {{"-p65536", option("Illegal port argument '65536'")}},
        {{"-p127.0.0.1", option("Illegal listening address '127.0.0.1' in the -p option: expected "
                                "<IPv4 address>:<port> or [<IPv6 address>]:<port>.")}},
        {{"-p127.1.1:5", option("Illegal listening address '127.1.1:5' in the -p option: "
                                "'127.1.1' is not an IPv4 address.")}},
        {{"-p::1:5", option("Illegal listening address '::1:5' in the -p option: an IPv6 address "
                            "goes in brackets: [<IPv6 address>]:<port>.")}},
        {{"-p[::1]:65536", option("Illegal listening address '[::1]:65536' in the -p option: "
                                  "'65536' is not a port number (0 to 65535).")}},
        {{"-r,", option("The -r (deferred logging) option requires an argument.")}},
        {{"-r0,1",
          option("The -r (deferred logging) option requires either 1 or 3 arguments (not 2).")}},
        {{"-r1", option("Invalid disable parameter '1' to the -r (deferred logging) option.")}},
        {{"-r0,50,60",
          option("Invalid enable parameter '0' to the -r (deferred logging) option.")}},
        {{"-r1,101,5", option("Invalid buffer percentage parameter '101' to the -r (deferred "
                              "logging) option.")}},
        // getopt's refusals always show the question mark it returned, after getopt's own line.
        {{"-q", option("Unknown option `-?'")}, "invalid option -- 'q'\n"},
        {{"-d", option("Unknown option `-?'")}},
        {{"a.zom", "b.zom", "c.zom", option("Too many arguments (rather than options) present.")}},
        {{"out.zom", option("No serial port has been specified or detected (-d option to specify "
                            "a port, -h for help).")}},
        {{missing, option("No port detected matching specification (from file).")},
         "Error: Failed to read from file '" + missing + "'\n"},
        {{"-d/dev/null", "-a" + logs + ",4",
          option("Invalid daemon options, the total size (4MB) is too small (minimum is 8MB).")}},
        {{"-d/dev/null", "-a" + logs + ",8,16",
          option("Inconsistent daemon options, file size (16MB) is greater than total size "
                 "(8MB).")}},
        // Accepted command lines reach the port, which does not exist.
        {{"-d/nonexistent/port", "-p0", "-o", "-r1,100,5", "-c0x40", "-v1", "-b", "-t", "a", "b",
          noPort}},
        {{"-d", "/nonexistent/port,/dev/other", "-o", noPort}},
        {{"-d/nonexistent/port", "-p[::1]:0x8000", "-o", noPort}},
        {{"-d/nonexistent/port", "-eDB.ZX", noPort}}, // the extension ignores case
        {script(21, dir.Path())},                     // a directory (EISDIR)
        {script(22, fifo)},                           // a FIFO would block the start (EINVAL)
        {script(2, dir.File("missing.zos"))},         // ENOENT
    };
    if (geteuid() != 0)                         // root reads it anyway
        faults.push_back({script(13, locked)}); // EACCES
    for (Fault& fault : faults) {
        const std::string line = fault.args.back();
        fault.args.pop_back();
        const std::string args = testing::PrintToString(fault.args);
        Outcome out = RunTool(fault.args);
        EXPECT_EQ(out.status, std::stoi(line.substr(6))) << args;
        EXPECT_TRUE(zavra_test::Contains(out.err, fault.before + line + "\n")) << args;
    }
}

TEST(CommandLine, NoArgumentsAndHelpPrintTheUsage) {
    for (const std::vector<std::string>& args : {std::vector<std::string>{}, {"-h"}}) {
        Outcome out = RunTool(args);
        EXPECT_EQ(out.status, 0);
        EXPECT_EQ(out.err.rfind("zavra_log_serial, Version 1.8.", 0), 0u) << out.err;
        // The blurb, every option in its order, and the defaults: base id, socket port,
        // percentage, timeout.
        const std::string anchors =
            "This tool is used to receive a merged OS message stream from a serial port. The \n"
            "stream data can be saved to a file or sent to a socket (or both).\n|-a<|-b |-c<|"
            "(default 53)|-d<|/dev/mux.ttyACM0/qorvi|-e<|-f |-h |-m<|-o |-p[|(default 32768)|-r1,|"
            "(defaults 50 and 60)|-r0 |-s<|Send the given ZOS script.|-t |Disable the target crash "
            "check when a part failure is detected.|-v<|-x |\".zom\" extension|";
        size_t at = 0;
        for (size_t from = 0, bar; (bar = anchors.find('|', from)) != std::string::npos;
             from = bar + 1) {
            at = out.err.find(anchors.substr(from, bar - from), at);
            ASSERT_NE(at, std::string::npos) << anchors.substr(from, bar - from) << " out of order";
        }
    }
}

// In the testbed of mocked modems the last line matches the first modem's interface 00 (names
// and values in any case, spaces around them); it wins over the line before, which matches
// nothing, and is the port the tool then opens. Comments and blank lines are passed over.
TEST(CommandLine, InterfaceDefinitionFileNamesThePort) {
    zavra_test::TempDir dir;
    const std::string file = dir.File("ports.txt");
    ASSERT_TRUE(zavra_test::WriteFile(
        file, "# the modem\n\nVID=ffff,PID=0001,MI=00\nVid=1e2d, pid=0061, mi=00\n"));
    Outcome out = RunTool({file, "-o"}, true);
    const size_t at = out.err.find("Using /dev/ttyACM");
    ASSERT_NE(at, std::string::npos) << out.err;
    EXPECT_TRUE(zavra_test::Contains(out.err, " (Zavra ZM200 Modem).\n"));
    const std::string port = out.err.substr(at + 6, out.err.find(' ', at + 6) - at - 6);
    EXPECT_TRUE(zavra_test::Contains(out.err, "Failed to open the serial logging interface '" +
                                                  port + "'."));
    EXPECT_EQ(out.err.find("Incorrect interface definition"), std::string::npos) << out.err;
}

// In the testbed of mocked modems and adapters, with two built-in UARTs that have no USB identity:
// a line with an empty VID, PID or MI lacks that parameter and matches nothing, and a huge bad
// line is echoed cut short.
TEST(CommandLine, EmptyDefinitionValuesAreMissingAndABadLineIsEchoedShort) {
    zavra_test::TempDir dir;
    const std::string file = dir.File("ports.txt");
    const std::string huge(5u << 20, 'x');
    ASSERT_TRUE(zavra_test::WriteFile(
        file, "VID=,PID=,MI=\nVID=1e2d, PID= , MI=00\nVID=1e2d,PID=0061,MI=\n" + huge + "\n"));
    Outcome out = RunTool({file, "-o"}, true);
    EXPECT_EQ(out.status, 0);
    const std::string prefix = "Error: Incorrect interface definition '";
    const std::string in = "' in file '" + file + "', ";
    for (const std::string& line :
         {prefix + "VID=,PID=,MI=" + in + "'VID' parameter not found.\n",
          prefix + "VID=1e2d, PID= , MI=00" + in + "'PID' parameter not found.\n",
          prefix + "VID=1e2d,PID=0061,MI=" + in + "'MI' parameter not found.\n",
          prefix + huge.substr(0, 80) + "..." + in + "incorrect number of parameters.\n",
          std::string("Error 0(14):No port detected matching specification (from file).\n")})
        EXPECT_TRUE(zavra_test::Contains(out.err, line));
    EXPECT_EQ(out.err.find("Using "), std::string::npos) << out.err.substr(0, 4096);
    EXPECT_LT(out.err.size(), 2000u);
}

} // namespace
