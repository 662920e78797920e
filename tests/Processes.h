#pragma once

// Other programs that the tests run: shell commands whose output they read, and daemons and publishers
// that they start and end.

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace quorva::testing {

// Standard output of a shell command.
inline std::string Shell(const std::string& command) {
    std::string out;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
            out.append(buffer, n);
        ::pclose(pipe);
    }
    return out;
}

// A shell command in a process of its own (0 when it could not start). Through posix_spawn, since the
// tests have threads of their own.
inline pid_t Spawn(const std::string& command) {
    pid_t pid = 0;
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    return posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) == 0 ? pid : 0;
}

// SIGTERM, then the exit status: -1 when there was no process or it did not exit by itself.
inline int End(pid_t pid) {
    int status = 0;
    if (pid <= 0 || ::kill(pid, SIGTERM) != 0 || ::waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Threads of this process named `name`.
inline int ThreadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string comm;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        count += comm == name;
    }
    return count;
}

} // namespace quorva::testing
