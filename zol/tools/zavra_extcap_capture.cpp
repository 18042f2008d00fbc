#include "zavra_extcap_capture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <vector>

#include "quzol-pcapng-export.h"
#include "zv-time.h"
#include "zv-ver.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void OnStopSignal(int) {
    g_stop = 1;
}

void InstallSignals() {
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: waiting for Wireshark to open its FIFO must give way to a stop.
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    // Wireshark closing its FIFO is a failed write to handle, not a reason to die.
    signal(SIGPIPE, SIG_IGN);
}

// The tool's output: a FIFO in the crash folder, named as the tool names a capture of its own,
// so that a crash bundle is named after it and lands beside it.
bool MakeCaptureFifo(const std::string& dir, std::string& path) {
    const std::string stem = dir + "/zavra_log_" + ZvTime::GetReverseTimeString();
    for (unsigned attempt = 1; attempt < 100; ++attempt) {
        path = attempt == 1 ? stem + ".zom" : stem + "_" + std::to_string(attempt) + ".zom";
        if (mkfifo(path.c_str(), 0600) == 0)
            return true;
        if (errno != EEXIST)
            return false;
    }
    return false;
}

pid_t StartTool(const ExtcapCaptureOptions& options, const std::string& fifo) {
    std::vector<std::string> args = {options.tool, "-d", options.port, "-v1"};
    if (!options.flush)
        args.push_back("-b");
    if (options.deferred != "0")
        args.insert(args.end(), {"-r", options.deferred});
    if (options.channelId != 0)
        args.insert(args.end(), {"-c", std::to_string(options.channelId)});
    args.push_back(fifo);
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(&arg[0]);
    argv.push_back(nullptr);

    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    const int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
    }
    if (chdir(options.crashDir.c_str()) != 0) {
        fprintf(stderr, "Failed to enter the crash folder '%s' (%s).\n", options.crashDir.c_str(),
                strerror(errno));
        _exit(127);
    }
    execvp(argv[0], argv.data());
    fprintf(stderr, "Failed to start '%s' (%s).\n", options.tool.c_str(), strerror(errno));
    _exit(127);
}

// Everything the tool has written so far; exported while Wireshark still reads.
void Drain(int in, std::vector<unsigned char>& buffer, QoZolPcapngExport& exporter,
           QoPcapngWriter& writer, bool exporting) {
    for (;;) {
        const ssize_t n = read(in, buffer.data(), buffer.size());
        if (n <= 0 && !(n < 0 && errno == EINTR))
            break;
        if (n > 0 && exporting)
            exporter.Feed(buffer.data(), static_cast<unsigned>(n));
    }
    if (exporting)
        writer.Flush();
}

int Capture(const ExtcapCaptureOptions& options, const std::string& fifo) {
    // Opened for reading and writing, the FIFO neither blocks nor reports an end before the tool
    // has opened it; the tool's exit is seen through its status instead.
    const int in = open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (in < 0) {
        fprintf(stderr, "Failed to open '%s' (%s).\n", fifo.c_str(), strerror(errno));
        return 1;
    }
    const int out = open(options.wiresharkFifo.c_str(), O_WRONLY | O_CLOEXEC);
    if (out < 0) {
        close(in);
        if (g_stop)
            return 0;
        fprintf(stderr, "Failed to open '%s' (%s).\n", options.wiresharkFifo.c_str(),
                strerror(errno));
        return 1;
    }
    QoPcapngWriter writer(out);
    QoZolPcapngExport exporter(&writer, options.channelId);
    exporter.AnchorAtArrival();
    ZvAString number;
    ZvVer(1, 8).GetNumberString(number);
    bool exporting = exporter.IsReady() && writer.WriteHeader(("zavra_extcap " + number).c_str());

    const pid_t tool = StartTool(options, fifo);
    if (tool < 0) {
        fprintf(stderr, "Failed to start '%s' (%s).\n", options.tool.c_str(), strerror(errno));
        close(in);
        close(out);
        return 1;
    }
    std::vector<unsigned char> buffer(1 << 20);
    bool stopSent = false;
    int status = 0;
    for (;;) {
        if ((g_stop || !exporting) && !stopSent) {
            kill(tool, SIGTERM);
            stopSent = true;
        }
        struct pollfd wait = {in, POLLIN, 0};
        poll(&wait, 1, 200);
        Drain(in, buffer, exporter, writer, exporting);
        exporting = exporting && !writer.Failed();
        const pid_t ended = waitpid(tool, &status, WNOHANG);
        if (ended == tool || (ended < 0 && errno != EINTR))
            break;
    }
    // What the tool wrote before it ended, and a record it left incomplete.
    Drain(in, buffer, exporter, writer, exporting);
    if (exporting) {
        exporter.Finish();
        writer.Flush();
    }
    close(in);
    close(out);
    if (!WIFEXITED(status))
        return 1;
    // A stop ends the tool's run with the signal's number, as SIGTERM or SIGINT would.
    const int code = WEXITSTATUS(status);
    return code == 0 || (stopSent && (code == SIGTERM || code == SIGINT)) ? 0 : 1;
}

} // namespace

int RunExtcapCapture(const ExtcapCaptureOptions& options) {
    InstallSignals();
    std::string fifo;
    if (!MakeCaptureFifo(options.crashDir, fifo)) {
        fprintf(stderr, "Failed to create a FIFO in the crash folder '%s' (%s).\n",
                options.crashDir.c_str(), strerror(errno));
        return 1;
    }
    const int result = Capture(options, fifo);
    unlink(fifo.c_str());
    return result;
}
