#include "platform/ProcessorTime.h"

#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <string>

namespace quorva {

std::set<pid_t> ProcessThreads() {
    std::set<pid_t> threads;
    if (DIR* folder = opendir("/proc/self/task")) {
        while (const dirent* entry = readdir(folder)) {
            if (entry->d_name[0] != '.')
                threads.insert(pid_t(std::atoi(entry->d_name)));
        }
        closedir(folder);
    }
    return threads;
}

std::optional<int64_t> ThreadRunTime(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/schedstat");
    long long nanoseconds = -1;
    if (!(stat >> nanoseconds) || nanoseconds < 0)
        return std::nullopt;
    return nanoseconds;
}

Stopwatch::Stopwatch(std::vector<pid_t> threads)
    : _threads(std::move(threads)), _start(total()), _wallStart(std::chrono::steady_clock::now()) {}

double Stopwatch::seconds() const {
    std::optional<int64_t> end = total();
    if (_start && end)
        return double(*end - *_start) / 1e9;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - _wallStart).count();
}

std::optional<int64_t> Stopwatch::total() const {
    int64_t sum = 0;
    for (pid_t thread : _threads) {
        std::optional<int64_t> time = ThreadRunTime(thread);
        if (!time)
            return std::nullopt;
        sum += *time;
    }
    return sum;
}

} // namespace quorva
