// Command-line faults of zavra_log_serial: each bad command line gives its exact message through
// the tool's error line and its exit status (0 for every option fault, on purpose).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zavra_test_files.h"
#include "zavra_test_process.h"

namespace {

struct Outcome {
    int status;
    std::string err;
};

Outcome RunTool(const std::vector<std::string>& args) {
    zavra_test::Process tool;
    EXPECT_TRUE(tool.Start(ZAVRA_LOG_SERIAL_PATH, args)) << tool.Error();
    if (!tool.Wait(20000)) {
        tool.Kill();
        ADD_FAILURE() << "the tool did not end: " << tool.Stderr();
    }
    return {tool.ExitCode(), tool.Stderr()};
}

struct FaultCase {
    std::vector<std::string> args;
    std::string message; // the whole error line, without its line feed
    int status;
};

const std::string kNoPort = "No serial port has been specified or detected (-d option to specify "
                            "a port, -h for help).";

TEST(CommandLine, EveryFaultHasItsMessageAndStatus) {
    zavra_test::TempDir dir;
    const std::string blocked = dir.File("plain-file");
    ASSERT_TRUE(zavra_test::WriteFile(blocked, "x"));
    const std::string daemonDir = dir.File("logs");

    const std::vector<FaultCase> cases = {
        {{"-a,"}, "The -a (daemon mode) option requires an argument.", 0},
        {{"-a" + blocked + "/sub"},
         "The output directory '" + blocked +
             "/sub' given in the -a (daemon mode) option could not be created.",
         0},
        {{"-d", " , "}, "The -d (serial port) option requires an argument.", 0},
        {{"-edatabase"},
         "The -e (embedded database) argument has an incorrect extension (must be '.zx').",
         0},
        {{"-edb.zx.txt"},
         "The -e (embedded database) argument has an incorrect extension (must be '.zx').",
         0},
        {{"-p65536"}, "Illegal port argument '65536'", 0},
        {{"-r,"}, "The -r (deferred logging) option requires an argument.", 0},
        {{"-r0,1"},
         "The -r (deferred logging) option requires either 1 or 3 arguments (not 2).",
         0},
        {{"-r1,2,3,4"},
         "The -r (deferred logging) option requires either 1 or 3 arguments (not 4).",
         0},
        {{"-r1"}, "Invalid disable parameter '1' to the -r (deferred logging) option.", 0},
        {{"-r0,50,60"}, "Invalid enable parameter '0' to the -r (deferred logging) option.", 0},
        {{"-r1,101,5"},
         "Invalid buffer percentage parameter '101' to the -r (deferred logging) option.",
         0},
        // getopt's refusals always show the question mark it returned.
        {{"-q"}, "Unknown option `-?'", 0},
        {{"-d"}, "Unknown option `-?'", 0},
        {{"-m"}, "Unknown option `-?'", 0},
        {{"a.zom", "b.zom", "c.zom"}, "Too many arguments (rather than options) present.", 0},
        {{"out.zom"}, kNoPort, 0},
        {{"-p", "5000"}, kNoPort, 0},
        {{"-d/dev/null", "-a" + daemonDir + ",4"},
         "Invalid daemon options, the total size (4MB) is too small (minimum is 8MB).",
         0},
        {{"-d/dev/null", "-a" + daemonDir + ",8,16"},
         "Inconsistent daemon options, file size (16MB) is greater than total size (8MB).",
         0},
        // Accepted command lines reach the port, which does not exist: status errno, code 19.
        {{"-d/nonexistent/port", "-o"},
         "Failed to open the serial logging interface '/nonexistent/port'.",
         2},
        {{"-d/nonexistent/port", "-p0", "-o", "-r1,100,5", "-c0x40", "-v1", "-b", "-t", "a", "b"},
         "Failed to open the serial logging interface '/nonexistent/port'.",
         2},
        {{"-d", "/nonexistent/port,/dev/other", "-o"},
         "Failed to open the serial logging interface '/nonexistent/port'.",
         2},
    };
    for (const FaultCase& c : cases) {
        std::string line = testing::PrintToString(c.args);
        Outcome out = RunTool(c.args);
        EXPECT_EQ(out.status, c.status) << line << "\n" << out.err;
        std::string code = c.status == 0 ? "Error 0(14):" : "Error 2(19):";
        EXPECT_NE(out.err.find(code + c.message + "\n"), std::string::npos) << line << "\n"
                                                                            << out.err;
    }
}

TEST(CommandLine, GetoptExplainsTheRefusalFirst) {
    Outcome out = RunTool({"-q"});
    size_t own = out.err.find("invalid option -- 'q'");
    size_t ours = out.err.find("Error 0(14):Unknown option `-?'");
    ASSERT_NE(own, std::string::npos) << out.err;
    ASSERT_NE(ours, std::string::npos) << out.err;
    EXPECT_LT(own, ours);
}

TEST(CommandLine, NoArgumentsAndHelpPrintTheUsage) {
    for (const std::vector<std::string>& args : {std::vector<std::string>{}, {"-h"}}) {
        Outcome out = RunTool(args);
        EXPECT_EQ(out.status, 0);
        EXPECT_EQ(out.err.rfind("zavra_log_serial, Version 1.8.", 0), 0u) << out.err;
        EXPECT_NE(out.err.find("This tool is used to receive a merged OS message stream from a "
                               "serial port. The \nstream data can be saved to a file or sent to "
                               "a socket (or both).\n"),
                  std::string::npos);
        EXPECT_NE(out.err.find("zavra_log_serial [Options] [<filename_root>]"), std::string::npos);
        EXPECT_NE(out.err.find("/dev/mux.ttyACM0/qorvi"), std::string::npos);
        EXPECT_NE(out.err.find("Send the given ZOS script."), std::string::npos);
        EXPECT_NE(out.err.find("Disable the target crash check when a part failure is detected."),
                  std::string::npos);
        // The defaults in the text: base id, socket port, buffer percentage, timeout.
        for (const char* number : {"53", "32768", "50", "60"})
            EXPECT_NE(out.err.find(number), std::string::npos) << number;
        size_t last = 0;
        for (const char* option : {"-a<", "-b ", "-c<", "-d<", "-e<", "-f ", "-h ", "-m<", "-o ",
                                   "-p[", "-r1,", "-r0 ", "-s<", "-t ", "-v<", "-x "}) {
            size_t at = out.err.find(std::string("  ") + option);
            ASSERT_NE(at, std::string::npos) << option;
            EXPECT_GT(at, last) << option << " is out of order";
            last = at;
        }
    }
}

TEST(CommandLine, DatabaseExtensionIgnoresCase) {
    for (const char* name : {"-eDB.ZX", "-edb.Zx"}) {
        Outcome out = RunTool({"-d/nonexistent/port", name});
        EXPECT_EQ(out.err.find("incorrect extension"), std::string::npos) << name << out.err;
        EXPECT_NE(out.status, 0) << out.err;
    }
}

TEST(CommandLine, InterfaceDefinitionFileWithoutMatch) {
    zavra_test::TempDir dir;
    const std::string file = dir.File("ports.txt");
    ASSERT_TRUE(zavra_test::WriteFile(file, "# the modem\n"
                                            "\n"
                                            "VID=1234\n"
                                            "VID=1234, PID=5678, XX=02\n"
                                            "vid = ffff , pid = fffe , mi = 07\n"));
    Outcome out = RunTool({file, "out.zom"});
    EXPECT_EQ(out.status, 0);
    EXPECT_NE(out.err.find("Error: Incorrect interface definition 'VID=1234' in file '" + file +
                           "', incorrect number of parameters.\n"),
              std::string::npos)
        << out.err;
    EXPECT_NE(out.err.find("Error: Incorrect interface definition 'VID=1234, PID=5678, XX=02' in "
                           "file '" +
                           file + "', 'MI' parameter not found.\n"),
              std::string::npos)
        << out.err;
    EXPECT_EQ(out.err.find("the modem"), std::string::npos) << out.err;
    EXPECT_NE(out.err.find("Error 0(14):No port detected matching specification (from file).\n"),
              std::string::npos)
        << out.err;

    Outcome missing = RunTool({dir.File("missing.txt")});
    EXPECT_NE(missing.err.find("Error: Failed to read from file '" + dir.File("missing.txt") + "'"),
              std::string::npos)
        << missing.err;
    EXPECT_NE(missing.err.find("Error 0(14):No port detected matching specification (from file)."),
              std::string::npos);
}

} // namespace
