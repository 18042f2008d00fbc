#include "zavra_test_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

extern char** environ;

namespace zavra_test {

Process::~Process() {
    if (m_pid > 0 && !m_reaped)
        Kill();
    if (m_reader.joinable())
        m_reader.join();
}

bool Process::Start(const std::string& path, const std::vector<std::string>& args,
                    const std::vector<std::string>& extraEnv) {
    if (m_pid > 0) {
        m_error = "A process was already started.";
        return false;
    }
    int outPipe[2];
    int errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0)
        return m_error = "pipe failed", false;
    if (pipe2(errPipe, O_CLOEXEC) != 0) {
        close(outPipe[0]);
        close(outPipe[1]);
        return m_error = "pipe failed", false;
    }

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (char** e = environ; *e != nullptr; ++e)
        envp.push_back(*e);
    for (const std::string& entry : extraEnv)
        envp.push_back(const_cast<char*>(entry.c_str()));
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    // Nothing else of the test leaks into the child: a simulator's pty master held open there
    // would keep the port alive after the simulator hangs up.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    // The child starts with default signal handling and nothing blocked, whatever the test does.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t pid = -1;
    int rc = posix_spawn(&pid, path.c_str(), &actions, &attr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    close(outPipe[1]);
    close(errPipe[1]);
    if (rc != 0) {
        close(outPipe[0]);
        close(errPipe[0]);
        m_error = "Cannot start '" + path + "': " + strerror(rc);
        return false;
    }
    m_pid = pid;
    m_reader = std::thread(&Process::ReadOutput, this, outPipe[0], errPipe[0]);
    return true;
}

void Process::ReadOutput(int outFd, int errFd) {
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    int open = 2;
    char buffer[4096];
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
            if (got > 0) {
                std::lock_guard<std::mutex> lock(m_mutex);
                (i == 0 ? m_stdout : m_stderr).append(buffer, static_cast<size_t>(got));
                m_changed.notify_all();
            } else if (got == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (pollfd& p : fds)
        if (p.fd >= 0)
            close(p.fd);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_outputClosed = true;
    m_changed.notify_all();
}

bool Process::Reap(bool block) {
    if (m_pid <= 0)
        return false;
    if (m_reaped)
        return true;
    int status = 0;
    pid_t done;
    do
        done = waitpid(m_pid, &status, block ? 0 : WNOHANG);
    while (done < 0 && errno == EINTR);
    if (done != m_pid)
        return false;
    m_reaped = true;
    if (WIFEXITED(status)) {
        m_exitCode = WEXITSTATUS(status);
        m_termSignal = 0;
    } else if (WIFSIGNALED(status)) {
        m_exitCode = -1;
        m_termSignal = WTERMSIG(status);
    }
    return true;
}

bool Process::Running() {
    return m_pid > 0 && !Reap(false);
}

bool Process::Signal(int signalNumber) {
    if (m_pid <= 0 || m_reaped)
        return false;
    return kill(m_pid, signalNumber) == 0;
}

bool Process::Wait(int timeoutMs) {
    if (m_pid <= 0)
        return false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!Reap(false)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // The child is gone; its pipes close unless a grandchild holds them, so bound this wait too.
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, deadline + std::chrono::seconds(2),
                                [this] { return m_outputClosed; });
}

void Process::Kill() {
    if (m_pid <= 0 || m_reaped)
        return;
    kill(m_pid, SIGKILL);
    Reap(true);
}

std::string Process::Stdout() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stdout;
}

std::string Process::Stderr() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stderr;
}

bool Process::WaitForText(const std::string* stream, const std::string& text, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return stream->find(text) != std::string::npos || m_outputClosed;
    }) && stream->find(text) != std::string::npos;
}

bool Process::WaitForStderr(const std::string& text, int timeoutMs) {
    return WaitForText(&m_stderr, text, timeoutMs);
}

bool Process::WaitForStdout(const std::string& text, int timeoutMs) {
    return WaitForText(&m_stdout, text, timeoutMs);
}

std::string Describe(const Process& process) {
    std::string text = process.TermSignal() != 0 ? "signal " + std::to_string(process.TermSignal())
                                                 : "exit " + std::to_string(process.ExitCode());
    return text + "; stderr:\n" + process.Stderr();
}

} // namespace zavra_test
