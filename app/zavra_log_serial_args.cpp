// The option loop over "a:be:fhov:c:p::m:d:r:s:tx" and the checks that follow it.
#include <getopt.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "zavra_log_common.h"
#include "zavra_log_serial_args.h"
#include "zavra_log_serial_port_select.h"
#include "zv-device-detect.h"
#include "zv-file-util.h"
#include "zv-listen-address.h"
#include "zv-string-list-ascii.h"

namespace {

const char* const kOptions = "a:be:fhov:c:p::m:d:r:s:tx";

#define ZLBS_OPTION_ERROR(...) error(ZLBS_ERROR_COMMAND_LINE, 0, __VA_ARGS__)

// A comma list, each item trimmed, empty items dropped.
void SplitList(const char* text, ZvAStringList& list) {
    list.SetDelimited(text, ',');
    list.TrimAll();
    list.RemoveEmptyLines();
}

// The daemon's directory must be a directory, made when missing, that the tool can write to: a
// regular file or a read-only directory would otherwise swallow the whole stream unseen.
void CheckDaemonDirectory(const char* dir) {
    if (!ZvFileUtil::IsDir(dir) && !ZvFileUtil::MakeDir(dir))
        ZLBS_OPTION_ERROR("The output directory '%s' given in the -a (daemon mode) option could "
                          "not be created.",
                          dir);
    // access() also refuses a read-only file system to root, whom permission bits do not stop.
    if (access(dir, W_OK | X_OK) != 0)
        ZLBS_OPTION_ERROR("The output directory '%s' given in the -a (daemon mode) option cannot "
                          "be written to (%s).",
                          dir, strerror(errno));
}

void ParseDaemon(const char* text, ZlbsArgData& args) {
    ZvAStringList items;
    SplitList(text, items);
    if (items.Empty())
        ZLBS_OPTION_ERROR("The -a (daemon mode) option requires an argument.");
    args.daemonMode = true;
    args.daemonDirectory = items[0];
    CheckDaemonDirectory(items[0].c_str());
    if (items.Count() > 1)
        args.daemonTotalSize = static_cast<uint64_t>(strtoll(items[1].c_str(), nullptr, 0)) << 20;
    if (items.Count() > 2)
        args.daemonFileSize = static_cast<uint64_t>(strtoll(items[2].c_str(), nullptr, 0)) << 20;
}

void ParseDeferredLogging(const char* text, ZluSendMessages& sender) {
    ZvAStringList items;
    if (text != nullptr)
        SplitList(text, items);
    if (items.Empty())
        ZLBS_OPTION_ERROR("The -r (deferred logging) option requires an argument.");
    if (items.Count() != 1 && items.Count() != 3)
        ZLBS_OPTION_ERROR(
            "The -r (deferred logging) option requires either 1 or 3 arguments (not %u).",
            items.Count());
    if (items.Count() == 1) {
        if (items[0] != "0")
            ZLBS_OPTION_ERROR("Invalid disable parameter '%s' to the -r (deferred logging) option.",
                              items[0].c_str());
        sender.SetDeferredLogging(0, sender.GetDeferredThreshold(), sender.GetDeferredTimeout());
        return;
    }
    if (items[0] != "1")
        ZLBS_OPTION_ERROR("Invalid enable parameter '%s' to the -r (deferred logging) option.",
                          items[0].c_str());
    unsigned long percent = strtoul(items[1].c_str(), nullptr, 0);
    if (percent > 100)
        ZLBS_OPTION_ERROR(
            "Invalid buffer percentage parameter '%s' to the -r (deferred logging) option.",
            items[1].c_str());
    unsigned long timeout = strtoul(items[2].c_str(), nullptr, 0);
    sender.SetDeferredLogging(1, static_cast<unsigned>(percent), static_cast<unsigned>(timeout));
}

// -p<address>:<port>: the server listens on that address alone.
void ParseListenAddress(const char* text, ZlbsArgData& args) {
    ZvListenAddress where;
    ZvAString reason;
    if (!where.Parse(text, reason))
        ZLBS_OPTION_ERROR("Illegal listening address '%s' in the -p option: %s.", text,
                          reason.c_str());
    args.socketAddress = where.Host();
    args.socketPort = static_cast<uint32_t>(where.Port());
}

void ParseDatabaseFile(const char* text, ZlbsArgData& args) {
    if (text == nullptr || *text == 0)
        ZLBS_OPTION_ERROR("The -e (embedded database) requires an argument.");
    const char* ext = ZvFileUtil::GetExt(text);
    if (ext == nullptr || strcasecmp(ext, ".zx") != 0)
        ZLBS_OPTION_ERROR(
            "The -e (embedded database) argument has an incorrect extension (must be '.zx').");
    args.databaseFile = text;
}

// One option of the loop; `option` is what getopt returned.
void HandleOption(int option, const char* arg, ZlbsArgData& args, ZluSendMessages& sender) {
    switch (option) {
    case 'a':
        ParseDaemon(arg, args);
        break;
    case 'b':
        if (arg != nullptr)
            ZLBS_OPTION_ERROR("The -b (flush target buffers) does not take an argument.");
        args.flushTargetBuffers = false;
        break;
    case 'c':
        if (arg == nullptr)
            ZLBS_OPTION_ERROR("The -c (open channel message id) requires an argument.");
        args.openChannelId = static_cast<uint32_t>(strtoul(arg, nullptr, 0));
        break;
    case 'd': {
        ZvAStringList items;
        if (arg != nullptr)
            SplitList(arg, items);
        if (items.Empty())
            ZLBS_OPTION_ERROR("The -d (serial port) option requires an argument.");
        args.devicePath = items[0];
        break;
    }
    case 'e':
        ParseDatabaseFile(arg, args);
        break;
    case 'f':
        if (arg != nullptr)
            ZLBS_OPTION_ERROR("The -f (keep first segment) does not take an argument.");
        args.keepFirstSegment = true;
        break;
    case 'h':
        usage();
    case 'm':
        if (arg == nullptr)
            ZLBS_OPTION_ERROR("The -m (time limited logging) requires an argument.");
        args.timeLimitMs = static_cast<int32_t>(strtol(arg, nullptr, 0));
        break;
    case 'o':
        if (arg != nullptr)
            ZLBS_OPTION_ERROR("The -o (port config) does not take an argument.");
        args.portConfigOnly = true;
        break;
    case 'p':
        args.socketServer = true;
        args.socketPort = ZlbsArgData::kDefaultSocketPort;
        args.socketAddress.clear();
        if (ZvListenAddress::IsAddressForm(arg)) {
            ParseListenAddress(arg, args);
        } else if (arg != nullptr) {
            unsigned long port = strtoul(arg, nullptr, 0);
            if (port > 65535)
                ZLBS_OPTION_ERROR("Illegal port argument '%s'", arg);
            args.socketPort = static_cast<uint32_t>(port);
        }
        break;
    case 'r':
        ParseDeferredLogging(arg, sender);
        break;
    case 's':
        if (arg == nullptr || *arg == 0)
            ZLBS_OPTION_ERROR("The -s (input script) option requires an argument.");
        args.scriptFile = arg;
        break;
    case 't':
        if (arg != nullptr)
            ZLBS_OPTION_ERROR("The -t (disable crash check) option does not take an argument.");
        args.crashCheckDisabled = true;
        break;
    case 'v':
        if (arg != nullptr)
            noisiness = static_cast<int>(strtol(arg, nullptr, 0));
        break;
    case 'x':
        if (arg != nullptr)
            ZLBS_OPTION_ERROR("The -x (port fail exit) does not take an argument.");
        args.exitOnPortFailure = true;
        break;
    default:
        // getopt has already said what was wrong; the message shows the '?' it returned.
        if (isprint(option))
            ZLBS_OPTION_ERROR("Unknown option `-%c'", option);
        ZLBS_OPTION_ERROR("Unknown option `\\x%x'", option);
    }
}

// The -a sizes once all options are known; only with a total size.
void CheckDaemonSizes(ZlbsArgData& args) {
    if (!args.daemonMode)
        return;
    if (args.daemonTotalSize != 0) {
        if (args.daemonFileSize == 0)
            args.daemonFileSize = args.daemonTotalSize / 8;
        if (args.daemonFileSize > args.daemonTotalSize)
            ZLBS_OPTION_ERROR("Inconsistent daemon options, file size (%dMB) is greater than "
                              "total size (%dMB).",
                              static_cast<int>(args.daemonFileSize >> 20),
                              static_cast<int>(args.daemonTotalSize >> 20));
        if (args.daemonTotalSize <
            (static_cast<uint64_t>(ZlbsArgData::kMinDaemonTotalMBytes) << 20))
            ZLBS_OPTION_ERROR(
                "Invalid daemon options, the total size (%dMB) is too small (minimum is %dMB).",
                static_cast<int>(args.daemonTotalSize >> 20),
                static_cast<int>(ZlbsArgData::kMinDaemonTotalMBytes));
    }
    args.filenameRoot.clear();
}

} // namespace

void ZlbsArgData::Clear() {
    socketServer = false;
    devicePath.clear();
    socketPort = 0;
    socketAddress.clear();
    scriptFile.clear();
    filenameRoot.clear();
    openChannelId = 0;
    flushTargetBuffers = true;
    keepFirstSegment = false;
    exitOnPortFailure = false;
    timeLimitMs = 0;
    daemonMode = false;
    daemonTotalSize = 0;
    daemonFileSize = 0;
    portConfigOnly = false;
    crashCheckDisabled = false;
    portSource = ZlbsPortSource::Option;
    definitionFile.clear();
    definitions.clear();
}

void ZlbsParseArguments(int argc, char** argv, ZlbsArgData& args, ZluSendMessages& sender,
                        ZvDeviceDetect& detect) {
    if (argc <= 1)
        usage();
    opterr = 1;
    int option;
    while ((option = getopt(argc, argv, kOptions)) != -1)
        HandleOption(option, optarg, args, sender);

    if (argc - optind > 2)
        ZLBS_OPTION_ERROR("Too many arguments (rather than options) present.");
    args.openChannelId = sender.SetOpenChannelId(args.openChannelId);
    detect.Refresh();

    for (int i = optind; i < argc; ++i) {
        ZvAString argument(argv[i]);
        if (!argument.EndsWith(".txt"))
            args.filenameRoot = argument;
        else
            ZlbsPortFromDefinitionFile(argument, detect, args);
    }
    if (args.devicePath.empty())
        ZlbsPortFromDetection(detect, args);

    if (!args.databaseFile.empty()) {
        // Extraction runs alone: the options that it ignores are forced off.
        args.daemonMode = false;
        args.flushTargetBuffers = true;
        args.socketServer = false;
        args.scriptFile.clear();
        args.filenameRoot.clear();
        args.crashCheckDisabled = true;
        args.portConfigOnly = false;
    }
    CheckDaemonSizes(args);
}
