// System calls made by a running process, counted from outside it: with perf's tracepoint
// counters when this machine allows them (cheap enough not to change how the process reads), else
// with `strace -c -f` (which slows it down, so its reads come back fuller). Both attach to a
// running process and all its threads and report when told to stop.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "bench_spawn.h"

namespace bench {

struct SyscallCounts {
    bool counted = false;
    uint64_t total = 0, read = 0, write = 0, poll = 0, futex = 0, send = 0;
};

class SyscallCounter {
public:
    // "perf", "strace" or "" when neither can count here.
    static std::string Available() {
        static const std::string which = Probe();
        return which;
    }

    // Starts counting the system calls of `pid` (every thread); the report goes to `reportPath`.
    bool Attach(pid_t pid, const std::string& reportPath) {
        m_report = reportPath;
        m_tool = Available();
        const std::string target = std::to_string(pid);
        if (m_tool == "perf")
            m_pid = Run({"perf", "stat", "-x,", "-e", kPerfEvents, "-p", target, "-o", m_report});
        else if (m_tool == "strace")
            m_pid = Run({"strace", "-c", "-f", "-p", target, "-o", m_report});
        if (m_pid > 0)
            usleep(500000); // both attach before they say so; give them the time
        return m_pid > 0;
    }

    // Stops counting and reads the report.
    SyscallCounts Detach() {
        SyscallCounts counts;
        if (m_pid <= 0)
            return counts;
        kill(m_pid, SIGINT);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        FILE* f = fopen(m_report.c_str(), "r");
        char line[512];
        while (f != nullptr && fgets(line, sizeof line, f) != nullptr) {
            uint64_t calls = 0;
            std::string name;
            if (m_tool == "perf" ? ParsePerfLine(line, calls, name)
                                 : ParseStraceLine(line, calls, name)) {
                counts.counted = true;
                Add(counts, name, calls);
            }
        }
        if (f != nullptr)
            fclose(f);
        unlink(m_report.c_str());
        return counts;
    }

private:
    static constexpr const char* kPerfEvents =
        "raw_syscalls:sys_enter,syscalls:sys_enter_read,syscalls:sys_enter_write,"
        "syscalls:sys_enter_poll,syscalls:sys_enter_ppoll,syscalls:sys_enter_futex,"
        "syscalls:sys_enter_sendto";

    static std::string Probe() {
        if (Wait(Run({"perf", "stat", "-x,", "-e", kPerfEvents, "-o", "/dev/null", "true"})))
            return "perf";
        if (Wait(Run({"strace", "-c", "-o", "/dev/null", "true"})))
            return "strace";
        return "";
    }

    // Runs a counter with its report in a file, nothing on the terminal.
    static pid_t Run(const std::vector<std::string>& args) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        const pid_t pid = Spawn(args, -1, null);
        if (null >= 0)
            close(null);
        return pid;
    }

    static bool Wait(pid_t pid) {
        int status = 0;
        return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
               WEXITSTATUS(status) == 0;
    }

    // "count,unit,event,..." with the event "raw_syscalls:sys_enter" or "syscalls:sys_enter_NAME".
    static bool ParsePerfLine(const char* line, uint64_t& calls, std::string& name) {
        char* end = nullptr;
        calls = strtoull(line, &end, 10);
        if (end == line || *end != ',')
            return false;
        const char* event = strchr(end + 1, ',');
        if (event == nullptr)
            return false;
        std::string rest(event + 1);
        rest = rest.substr(0, rest.find(','));
        if (rest == "raw_syscalls:sys_enter")
            name = "total";
        else if (rest.rfind("syscalls:sys_enter_", 0) == 0)
            name = rest.substr(strlen("syscalls:sys_enter_"));
        else
            return false;
        return true;
    }

    // "% time  seconds  usecs/call  calls  [errors]  syscall": the calls are the fourth column.
    static bool ParseStraceLine(const char* line, uint64_t& calls, std::string& name) {
        std::istringstream in(line);
        std::vector<std::string> tokens;
        for (std::string t; in >> t;)
            tokens.push_back(t);
        if (tokens.size() < 5 || tokens[3].find_first_not_of("0123456789") != std::string::npos)
            return false;
        calls = strtoull(tokens[3].c_str(), nullptr, 10);
        name = tokens.back();
        return true;
    }

    static void Add(SyscallCounts& counts, const std::string& name, uint64_t calls) {
        if (name == "total")
            counts.total += calls;
        else if (name == "read")
            counts.read += calls;
        else if (name == "write")
            counts.write += calls;
        else if (name == "poll" || name == "ppoll")
            counts.poll += calls;
        else if (name == "futex")
            counts.futex += calls;
        else if (name == "sendto")
            counts.send += calls;
    }

    std::string m_tool;
    std::string m_report;
    pid_t m_pid = -1;
};

} // namespace bench
