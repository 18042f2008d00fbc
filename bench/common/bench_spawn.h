// Starting the programs a benchmark measures, and taking their CPU time when they end: standard
// input and output from the caller's descriptors, standard error to /dev/null so that a
// program's own messages never mix with the figures.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <string>
#include <vector>

extern char** environ;

namespace bench {

// Starts `args` (the program searched on PATH); -1 for a descriptor leaves it inherited. Returns
// the child's pid, or -1 when it could not be started.
inline pid_t Spawn(const std::vector<std::string>& args, int stdinFd = -1, int stdoutFd = -1) {
    std::vector<char*> argv;
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdinFd >= 0)
        posix_spawn_file_actions_adddup2(&actions, stdinFd, 0);
    if (stdoutFd >= 0)
        posix_spawn_file_actions_adddup2(&actions, stdoutFd, 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Waits for the child `pid` to end; its CPU seconds, user and system (0 when it cannot be waited
// for).
inline double WaitForCpuSeconds(pid_t pid) {
    int status = 0;
    rusage usage{};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid)
        return 0;
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

} // namespace bench
