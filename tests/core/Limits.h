#pragma once

// Limits that the tests of movie writing put on themselves: every wait has a deadline, so that a fault
// fails the test instead of hanging the run, and a limit on the size of files stands in for a full disk
// where no small disk can be mounted.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <sys/resource.h>
#include <thread>

namespace quorva::testing {

// Whether `done` came true within `seconds`, asked every `step` seconds: a millisecond where asking costs
// little, longer where each answer takes a request to another process.
[[nodiscard]] inline bool WaitFor(const std::function<bool()>& done, double seconds = 60,
                                  double step = 0.001) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::duration<double>(step));
    }
    return true;
}

// While it lives, writing a file past `bytes` fails (EFBIG, "File too large") the way writing to a full
// disk does, for the whole process.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &_saved), 0);
        // Otherwise the kernel kills the process at the limit rather than failing the write.
        _handler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = _saved;
        limit.rlim_cur = bytes;
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &_saved);
        std::signal(SIGXFSZ, _handler);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit _saved{};
    void (*_handler)(int) = SIG_DFL;
};

} // namespace quorva::testing
