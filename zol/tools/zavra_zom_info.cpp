// zavra_zom_info <file>: prints what a capture or record file contains.
// zavra_zom_info [-c <id>] --pcapng <out> <in>: writes its records as pcapng packets for Wireshark
// ("-" for standard input or output, so that a live stream can pass through).
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quzol-info.h"
#include "quzol-pcapng-stream.h"

namespace {

const char* const kUsage = "Usage: zavra_zom_info <file>\n"
                           "       zavra_zom_info [-c <id>] --pcapng <out> <in>\n";

int Summary(const char* path) {
    QoZolInfoResult info;
    ZvAString error;
    if (!QoZolInfo::GetInfo(path, info, nullptr, &error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    ZvAString text;
    QoZolInfo::Format(path, info, text);
    fputs(text.c_str(), stdout);
    return 0;
}

int Export(const char* out, const char* in, unsigned baseId) {
    // A reader that goes away (Wireshark closed) is a write error to report, not a signal.
    signal(SIGPIPE, SIG_IGN);
    const bool inStdin = strcmp(in, "-") == 0;
    const bool outStdout = strcmp(out, "-") == 0;
    const char* inName = inStdin ? "standard input" : in;
    const char* outName = outStdout ? "standard output" : out;
    const int inFd = inStdin ? STDIN_FILENO : open(in, O_RDONLY | O_CLOEXEC);
    if (inFd < 0) {
        fprintf(stderr, "Failed to open '%s' (%s).\n", in, strerror(errno));
        return 1;
    }
    const int outFd =
        outStdout ? STDOUT_FILENO : open(out, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (outFd < 0) {
        fprintf(stderr, "Failed to open '%s' (%s).\n", out, strerror(errno));
        return 1;
    }
    ZvAString error;
    bool done = QoZolExportPcapng(inFd, outFd, baseId, inName, outName, error);
    if (!outStdout && close(outFd) != 0 && done) {
        error.Printf("Failed to write to '%s' (%s).", outName, strerror(errno));
        done = false;
    }
    if (!done)
        fprintf(stderr, "%s\n", error.c_str());
    return done ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && argv[1][0] != '-')
        return Summary(argv[1]);
    unsigned baseId = 0;
    int arg = 1;
    if (argc == 6 && strcmp(argv[1], "-c") == 0) {
        char* end = nullptr;
        errno = 0;
        const unsigned long value = strtoul(argv[2], &end, 0);
        if (errno != 0 || end == argv[2] || *end != 0 || value > 0xFFFF) {
            fprintf(stderr, "Invalid message id '%s' to the -c option.\n", argv[2]);
            return 2;
        }
        baseId = static_cast<unsigned>(value);
        arg = 3;
    }
    if (argc == arg + 3 && strcmp(argv[arg], "--pcapng") == 0)
        return Export(argv[arg + 1], argv[arg + 2], baseId);
    fputs(kUsage, stderr);
    return 2;
}
