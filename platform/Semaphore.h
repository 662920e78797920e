#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>

namespace quorva {

// A counting semaphore: signal() adds one, wait() takes one, blocking while there is none. Used where a
// thread must wait for work done elsewhere (a socket closed on its queue, values read on the main
// thread) with a bound on how long.
class Semaphore {
public:
    explicit Semaphore(int64_t value = 0) : _value(value) {}
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void signal();

    // Takes one unit. Without a time-out, waits as long as it takes and answers true. With one, answers
    // false if no unit came within that many seconds (zero or less only checks); nothing is taken then.
    bool wait(std::optional<double> timeoutSeconds = std::nullopt);

private:
    std::mutex _lock;
    std::condition_variable _changed;
    int64_t _value;
};

} // namespace quorva
