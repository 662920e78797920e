#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <sys/types.h>
#include <vector>

namespace quorva {

// The threads of this process now, by their thread ids: what a library started is told apart by taking
// them before and after.
std::set<pid_t> ProcessThreads();

// Nanoseconds that a thread of this process has run, from the scheduler's own account; nothing when
// it cannot be read (the thread has ended, or the kernel keeps no such account).
std::optional<int64_t> ThreadRunTime(pid_t thread);

// The processor time that a set of threads spends from its making on, which is what their work costs
// whatever else the process or the machine is doing; the time on the wall when the scheduler's account
// of one of them cannot be read (never less than the cost where the work runs one thread at a time).
//
// Threads: made and read on any one thread at a time; it reads the threads' accounts, never stops them.
class Stopwatch {
public:
    explicit Stopwatch(std::vector<pid_t> threads);

    double seconds() const;

private:
    std::optional<int64_t> total() const;

    std::vector<pid_t> _threads;
    std::optional<int64_t> _start;
    std::chrono::steady_clock::time_point _wallStart;
};

} // namespace quorva
