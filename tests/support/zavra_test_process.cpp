#include "zavra_test_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

extern char** environ;

namespace zavra_test {

Process::~Process() {
    Kill();
    if (m_reader.joinable())
        m_reader.join();
}

bool Process::Start(const std::string& path, const std::vector<std::string>& args) {
    int errPipe[2];
    if (m_pid > 0 || pipe2(errPipe, O_CLOEXEC) != 0)
        return m_error = m_pid > 0 ? "A process was already started." : "pipe failed", false;
    std::vector<char*> argv{const_cast<char*>(path.c_str())};
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    // Nothing else of the test leaks into the child: a simulator's pty master held open there
    // would keep the port alive after the simulator hangs up.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    // The child starts with default signal handling and nothing blocked, whatever the test does.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int s : {SIGINT, SIGTERM, SIGPIPE})
        sigaddset(&defaults, s);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    int rc = posix_spawn(&m_pid, path.c_str(), &actions, &attr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    close(errPipe[1]);
    if (rc != 0) {
        m_pid = -1;
        close(errPipe[0]);
        return m_error = "Cannot start '" + path + "': " + strerror(rc), false;
    }
    m_reader = std::thread(&Process::ReadOutput, this, errPipe[0]);
    return true;
}

void Process::ReadOutput(int fd) {
    char buffer[4096];
    for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) != 0;) {
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            break;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stderr.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_outputClosed = true;
    m_changed.notify_all();
}

bool Process::Reap(bool block) {
    if (m_pid <= 0 || m_reaped)
        return m_reaped;
    int status = 0;
    pid_t done;
    do
        done = waitpid(m_pid, &status, block ? 0 : WNOHANG);
    while (done < 0 && errno == EINTR);
    if (done != m_pid)
        return false;
    m_reaped = true;
    m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    m_termSignal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return true;
}

bool Process::Signal(int signalNumber) {
    return Running() && kill(m_pid, signalNumber) == 0;
}

bool Process::Wait(int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!Reap(false)) {
        if (m_pid <= 0 || std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // The child is gone; its pipe closes unless a grandchild holds it, so bound this wait too.
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, deadline + std::chrono::seconds(2),
                                [this] { return m_outputClosed; });
}

void Process::Kill() {
    if (Running()) {
        kill(m_pid, SIGKILL);
        Reap(true);
    }
}

std::string Process::Stderr() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stderr;
}

std::string Describe(const Process& process) {
    std::string text = process.TermSignal() != 0 ? "signal " + std::to_string(process.TermSignal())
                                                 : "exit " + std::to_string(process.ExitCode());
    return text + "; stderr:\n" + process.Stderr();
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs, int stepMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(stepMs));
    }
    return true;
}

int CountOf(const std::string& all, const std::string& text) {
    int count = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
        ++count;
    return count;
}

int Shell(const std::string& command, std::string& out) {
    out.clear();
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return -1;
    char buffer[65536];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) != 0;)
        out.append(buffer, n);
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace zavra_test
