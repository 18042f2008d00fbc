// A child program run for a test: its standard error is captured through a pipe by a background
// thread, so a test can send signals and collect the exit status and messages with a time-out.
// The destructor kills a child that is still running.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zavra_test {

class Process {
public:
    Process() = default;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    // Starts `path` with `args` (argv[1]...), standard output discarded. False, with the reason in
    // Error(), when the program cannot start.
    bool Start(const std::string& path, const std::vector<std::string>& args);
    bool Running() { return m_pid > 0 && !Reap(false); }
    pid_t Pid() const { return m_pid; }
    bool Signal(int signalNumber);
    // Waits until the child has ended and its standard error is drained; false on time-out.
    bool Wait(int timeoutMs);
    // Kills the child (SIGKILL) and waits for it.
    void Kill();

    // Valid after a successful Wait: the exit code, or -1 when the child died from a signal.
    int ExitCode() const { return m_exitCode; }
    // The signal that ended the child, 0 when it exited normally.
    int TermSignal() const { return m_termSignal; }
    // What the child has written to standard error so far.
    std::string Stderr() const;
    const std::string& Error() const { return m_error; }

private:
    void ReadOutput(int fd);
    bool Reap(bool block);

    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_exitCode = -1;
    int m_termSignal = 0;
    std::string m_error;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_stderr;
    bool m_outputClosed = false;
    std::thread m_reader;
};

// Describes an ended child for assertion messages: "exit 2" or "signal 9", then its stderr.
std::string Describe(const Process& process);

// Runs `command` with sh and puts its standard output in `out`; the exit status, -1 on a signal.
int Shell(const std::string& command, std::string& out);

// Polls `done` every `stepMs` until it holds (true) or `timeoutMs` have passed (false).
bool WaitUntil(const std::function<bool()>& done, int timeoutMs, int stepMs = 20);
// How many times `text` occurs in `all`.
int CountOf(const std::string& all, const std::string& text);

} // namespace zavra_test
