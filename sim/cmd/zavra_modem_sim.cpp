// zavra_modem_sim: a modem on a pseudo-terminal, for trying the logging tool without hardware.
#include "zsim-modem.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

// Long options without a letter.
enum {
    kAtPort = 256,
    kAtSocket,
    kCrashAfterBytes,
    kCrashAfterMs,
    kCrashRestartMs,
    kCoreDumpSize,
    kCrashInfo,
    kCrashFault,
    kGadget,
    kUdc,
    kUpDelayMs,
};

const char kUsage[] =
    "Usage: zavra_modem_sim [options]\n"
    "A simulated modem: a pseudo-terminal that answers like the target's logging port.\n"
    "Prints the port's path on standard output, then the AT port's path (with --at-port), then\n"
    "the TCP AT port's number (with --at-socket), one a line; then a progress line on standard\n"
    "error. SIGINT or SIGTERM end it cleanly; SIGUSR1 makes the port fail and come back;\n"
    "SIGUSR2 crashes the modem.\n"
    "\n"
    "Port:\n"
    "  -d, --dir DIR            directory for the port link (default: a new temporary one)\n"
    "  -n, --name NAME          name of the port link (default: modem-log)\n"
    "  -c, --base-id N          the host's base message id (default 0, meaning 0x35)\n"
    "Log stream (flows while the host has the channel open):\n"
    "  -r, --rate BYTES         bytes per second (default 0: as fast as the port takes)\n"
    "  -s, --seed N             seed of the generated stream (default 1)\n"
    "  -N, --stop-after BYTES   send exactly this many stream bytes, then stay quiet\n"
    "  -l, --layouts A|B|AB     record layouts to generate (default AB)\n"
    "  -K, --kors LIST          processors to generate for, e.g. 01 (default 012)\n"
    "  -M, --max-body BYTES     largest record body (default 1024)\n"
    "  -g, --garbage-every N    a run of garbage after about every N records\n"
    "  -T, --truncate-every N   a truncated record after about every N records\n"
    "  -p, --play FILE          send this file's bytes instead of generated records\n"
    "  -o, --always             send even while the channel is closed\n"
    "Database (answers the hash and data requests):\n"
    "  -z, --db FILE.zx         file to serve\n"
    "  -k, --db-chunk BYTES     data bytes per data confirm (default 2048)\n"
    "  -L, --db-layout A|B      layout of the confirms (default A)\n"
    "  -F, --db-fault NAME      none, silence, silence-data, hash-status, hash-zero, oversize,\n"
    "                           data-status, short-data, too-much-data, second-attempt\n"
    "Port failure:\n"
    "  -b, --fail-after-bytes N fail once this many bytes went out on the port\n"
    "  -m, --fail-after-ms N    fail this long after the port came up\n"
    "  -D, --down-ms N          how long the port stays away (default 300)\n"
    "Crash (the logging port hangs up; the AT port comes back in the loader with the crash data):\n"
    "      --at-port            an AT port pty beside the logging port (link name modem-at)\n"
    "      --at-socket          also an AT port on 127.0.0.1 (a free port number, printed)\n"
    "      --crash-after-bytes N  crash once this many stream bytes went out\n"
    "      --crash-after-ms N   crash this long after the start\n"
    "      --crash-restart-ms N how long the AT port is away after the crash (default 500)\n"
    "      --core-dump-size N   bytes of the external RAM image (default 1M)\n"
    "      --crash-info FILE    serve this file as the crash information (default: built in)\n"
    "      --crash-fault NAME   none, no-full-dump, dump-error, no-dump-available,\n"
    "                           split-header, extra-after-header, silent-mid-dump,\n"
    "                           never-comes-back, info-200, info-201, modem-mode,\n"
    "                           oversize-announced\n"
    "Real USB (a configfs gadget with ACM functions acm.0, acm.1 and acm.2, as script/usbrig "
    "makes):\n"
    "      --gadget DIR         serve the ports on this gadget: the log port on acm.2, the AT "
    "port\n"
    "                           on acm.0 (acm.1 in the loader after a crash); a hang-up or crash\n"
    "                           unplugs it\n"
    "      --udc NAME           the gadget's USB device controller (default dummy_udc.0)\n"
    "      --up-delay-ms N      after each plug the modem opens its side this much later\n"
    "Records kept:\n"
    "  -t, --tee FILE           every byte sent to the host, in order\n"
    "  -R, --rx FILE            every byte received from the host, in order\n"
    "  -j, --transcript FILE    received records, one JSON object per line\n"
    "  -q, --quiet              no progress line\n"
    "  -h, --help               this text\n"
    "Sizes take the suffixes K, M and G (binary).\n";

bool ParseNumber(const char* text, unsigned long long& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtoull(text, &end, 0);
    if (errno || end == text) {
        return false;
    }
    switch (*end) {
    case 'K':
    case 'k':
        value <<= 10, ++end;
        break;
    case 'M':
    case 'm':
        value <<= 20, ++end;
        break;
    case 'G':
    case 'g':
        value <<= 30, ++end;
        break;
    default:
        break;
    }
    return *end == 0;
}

bool ParseLayout(const char* text, zsim::Layout& layout) {
    if (std::strcmp(text, "A") == 0 || std::strcmp(text, "a") == 0) {
        layout = zsim::Layout::A;
    } else if (std::strcmp(text, "B") == 0 || std::strcmp(text, "b") == 0) {
        layout = zsim::Layout::B;
    } else {
        return false;
    }
    return true;
}

int Fail(const char* format, const char* argument) {
    std::fprintf(stderr, "zavra_modem_sim: ");
    std::fprintf(stderr, format, argument);
    std::fprintf(stderr, "\n");
    return 1;
}

void PrintProgress(const zsim::ModemCounters& c, bool final) {
    std::fprintf(
        stderr, "\rsent %llu bytes, %llu records; received %llu records; channel %s; port %s%s%s",
        static_cast<unsigned long long>(c.sent), static_cast<unsigned long long>(c.records),
        static_cast<unsigned long long>(c.hostRecords), c.channelOpen ? "open" : "closed",
        c.portUp ? "up" : "down", c.crashed ? " (crashed)" : "", final ? "\n" : "   ");
    std::fflush(stderr);
}

void PrintSummary(const zsim::ModemCounters& c) {
    const auto& n = c.recordsByLayoutKor;
    std::fprintf(
        stderr,
        "Modem sent %llu bytes: %llu records (A: KOR0 %llu, KOR1 %llu; B: KOR0 %llu, "
        "KOR1 %llu, KOR2 %llu), %llu garbage bytes, %llu truncated records.\n"
        "The host read %llu bytes, left %llu unread, and sent %llu records.\n",
        static_cast<unsigned long long>(c.sent), static_cast<unsigned long long>(c.records),
        static_cast<unsigned long long>(n[0][0]), static_cast<unsigned long long>(n[0][1]),
        static_cast<unsigned long long>(n[1][0]), static_cast<unsigned long long>(n[1][1]),
        static_cast<unsigned long long>(n[1][2]), static_cast<unsigned long long>(c.garbageBytes),
        static_cast<unsigned long long>(c.truncatedRecords),
        static_cast<unsigned long long>(c.delivered), static_cast<unsigned long long>(c.discarded),
        static_cast<unsigned long long>(c.hostRecords));
}

} // namespace

int main(int argc, char** argv) {
    static const option kOptions[] = {
        {"dir", required_argument, nullptr, 'd'},
        {"name", required_argument, nullptr, 'n'},
        {"base-id", required_argument, nullptr, 'c'},
        {"rate", required_argument, nullptr, 'r'},
        {"seed", required_argument, nullptr, 's'},
        {"stop-after", required_argument, nullptr, 'N'},
        {"layouts", required_argument, nullptr, 'l'},
        {"kors", required_argument, nullptr, 'K'},
        {"max-body", required_argument, nullptr, 'M'},
        {"garbage-every", required_argument, nullptr, 'g'},
        {"truncate-every", required_argument, nullptr, 'T'},
        {"play", required_argument, nullptr, 'p'},
        {"always", no_argument, nullptr, 'o'},
        {"db", required_argument, nullptr, 'z'},
        {"db-chunk", required_argument, nullptr, 'k'},
        {"db-layout", required_argument, nullptr, 'L'},
        {"db-fault", required_argument, nullptr, 'F'},
        {"fail-after-bytes", required_argument, nullptr, 'b'},
        {"fail-after-ms", required_argument, nullptr, 'm'},
        {"down-ms", required_argument, nullptr, 'D'},
        {"tee", required_argument, nullptr, 't'},
        {"rx", required_argument, nullptr, 'R'},
        {"transcript", required_argument, nullptr, 'j'},
        {"quiet", no_argument, nullptr, 'q'},
        {"help", no_argument, nullptr, 'h'},
        {"at-port", no_argument, nullptr, kAtPort},
        {"at-socket", no_argument, nullptr, kAtSocket},
        {"crash-after-bytes", required_argument, nullptr, kCrashAfterBytes},
        {"crash-after-ms", required_argument, nullptr, kCrashAfterMs},
        {"crash-restart-ms", required_argument, nullptr, kCrashRestartMs},
        {"core-dump-size", required_argument, nullptr, kCoreDumpSize},
        {"crash-info", required_argument, nullptr, kCrashInfo},
        {"crash-fault", required_argument, nullptr, kCrashFault},
        {"gadget", required_argument, nullptr, kGadget},
        {"udc", required_argument, nullptr, kUdc},
        {"up-delay-ms", required_argument, nullptr, kUpDelayMs},
        {nullptr, 0, nullptr, 0},
    };
    zsim::ModemOptions options;
    zsim::GadgetSetup gadget;
    gadget.udc = "dummy_udc.0";
    unsigned upDelayMs = 0;
    bool quiet = false;
    int opt;
    while ((opt = getopt_long(argc, argv, "d:n:c:r:s:N:l:K:M:g:T:p:oz:k:L:F:b:m:D:t:R:j:qh",
                              kOptions, nullptr)) != -1) {
        unsigned long long number = 0;
        bool numeric = (opt < 256 && std::strchr("crsNMgTkbmD", opt) != nullptr) ||
                       opt == kCrashAfterBytes || opt == kCrashAfterMs || opt == kCrashRestartMs ||
                       opt == kCoreDumpSize || opt == kUpDelayMs;
        if (numeric && !ParseNumber(optarg, number)) {
            return Fail("Invalid number '%s'.", optarg);
        }
        unsigned small = static_cast<unsigned>(number);
        switch (opt) {
        case 'd':
            options.dir = optarg;
            break;
        case 'n':
            options.portName = optarg;
            break;
        case 'c':
            options.baseId = small;
            break;
        case 'r':
            options.gen.bytesPerSecond = number;
            break;
        case 's':
            options.gen.seed = small;
            break;
        case 'N':
            options.gen.stopAfterBytes = number;
            break;
        case 'l':
            options.gen.layoutA = std::strpbrk(optarg, "Aa") != nullptr;
            options.gen.layoutB = std::strpbrk(optarg, "Bb") != nullptr;
            if (!options.gen.layoutA && !options.gen.layoutB) {
                return Fail("Invalid layouts '%s'.", optarg);
            }
            break;
        case 'K':
            options.gen.korMask = 0;
            for (const char* p = optarg; *p; ++p) {
                if (*p < '0' || *p > '2') {
                    return Fail("Invalid processor list '%s'.", optarg);
                }
                options.gen.korMask |= 1u << (*p - '0');
            }
            break;
        case 'M':
            options.gen.maxBody = small;
            break;
        case 'g':
            options.gen.garbageEvery = small;
            break;
        case 'T':
            options.gen.truncateEvery = small;
            break;
        case 'p':
            options.gen.playFile = optarg;
            break;
        case 'o':
            options.gen.flowWithoutOpen = true;
            break;
        case 'z':
            options.db.zxFile = optarg;
            break;
        case 'k':
            options.db.chunkSize = small;
            break;
        case 'L':
            if (!ParseLayout(optarg, options.db.layout)) {
                return Fail("Invalid layout '%s'.", optarg);
            }
            break;
        case 'F':
            if (!zsim::DbFaultFromName(optarg, options.db.fault)) {
                return Fail("Unknown database fault '%s'.", optarg);
            }
            break;
        case 'b':
            options.fail.afterBytes = number;
            break;
        case 'm':
            options.fail.afterMs = small;
            break;
        case 'D':
            options.fail.downMs = small;
            break;
        case 't':
            options.teeFile = optarg;
            break;
        case 'R':
            options.rxFile = optarg;
            break;
        case 'j':
            options.transcriptFile = optarg;
            break;
        case 'q':
            quiet = true;
            break;
        case 'h':
            std::fputs(kUsage, stdout);
            return 0;
        case kAtPort:
            options.crash.atPort = true;
            break;
        case kAtSocket:
            options.crash.atSocket = true;
            break;
        case kCrashAfterBytes:
            options.crash.afterBytes = number;
            break;
        case kCrashAfterMs:
            options.crash.afterMs = small;
            break;
        case kCrashRestartMs:
            options.crash.restartMs = small;
            break;
        case kCoreDumpSize:
            options.crash.coreDumpSize = number;
            break;
        case kCrashInfo:
            options.crash.crashInfoFile = optarg;
            break;
        case kCrashFault:
            if (!zsim::CrashFaultFromName(optarg, options.crash.fault)) {
                return Fail("Unknown crash fault '%s'.", optarg);
            }
            break;
        case kGadget:
            gadget.dir = optarg;
            break;
        case kUdc:
            gadget.udc = optarg;
            break;
        case kUpDelayMs:
            upDelayMs = small;
            break;
        default:
            std::fputs(kUsage, stderr);
            return 1;
        }
    }
    if (optind < argc) {
        return Fail("Unexpected argument '%s'.", argv[optind]);
    }
    if (!gadget.dir.empty()) {
        std::string error;
        options.gadget = std::make_shared<zsim::Gadget>();
        if (!options.gadget->Open(gadget, &error)) {
            return Fail("%s", error.c_str());
        }
        options.gadget->SetUpDelay(upDelayMs);
    }
    bool ownDir = options.dir.empty();
    if (ownDir) {
        char pattern[] = "/tmp/zavra-modem-XXXXXX";
        if (!mkdtemp(pattern)) {
            return Fail("Failed to create a directory in '%s'.", "/tmp");
        }
        options.dir = pattern;
    }
    options.keepRawInMemory = false; // the command may run for days

    // Signals are taken synchronously by the main loop; the modem's thread inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    zsim::Modem modem;
    if (!modem.Start(options)) {
        return Fail("%s", modem.Error().c_str());
    }
    std::printf("%s\n", modem.PortPath().c_str());
    if (options.crash.atPort) {
        std::printf("%s\n", modem.AtPortPath().c_str());
    }
    if (options.crash.atSocket) {
        std::printf("%d\n", modem.AtSocketPort());
    }
    std::fflush(stdout);

    int signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (signalFd < 0) {
        modem.Stop();
        return Fail("Failed to watch for signals (%s).", std::strerror(errno));
    }
    for (;;) {
        pollfd pfd{signalFd, POLLIN, 0};
        int sig = 0;
        signalfd_siginfo info;
        if (poll(&pfd, 1, 500) > 0 && read(signalFd, &info, sizeof info) == sizeof info) {
            sig = static_cast<int>(info.ssi_signo);
        }
        if (sig == SIGINT || sig == SIGTERM) {
            break;
        }
        if (sig == SIGUSR1) {
            modem.Apply(zsim::Control::HangUp(options.fail.downMs));
        } else if (sig == SIGUSR2) {
            modem.Apply(zsim::Control::Crash());
        }
        modem.FlushFiles();
        if (!quiet) {
            PrintProgress(modem.Counters(), false);
        }
    }
    close(signalFd);
    modem.Stop();
    if (!quiet) {
        PrintProgress(modem.Counters(), true);
    }
    PrintSummary(modem.Counters());
    if (ownDir) {
        rmdir(options.dir.c_str());
    }
    return 0;
}
