#pragma once

#include "platform/EventLoop.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace quorva {

// The event loop without a window: one heap of due tasks ordered by time (then by posting order)
// and a condition variable that sleeps until the earliest is due or something new arrives.
//
// The loop's thread is the one that made it, until a thread calls run(); from then on it is the thread
// that ran it last. A stop() that comes while the loop is not running is kept for the next run(),
// which then returns at once, so a stop from another thread can never be lost to a race with run().
// Tasks still pending when the loop is destroyed are dropped without running.
class HeadlessEventLoop final : public EventLoop {
public:
    HeadlessEventLoop();
    ~HeadlessEventLoop() override;
    HeadlessEventLoop(const HeadlessEventLoop&) = delete;
    HeadlessEventLoop& operator=(const HeadlessEventLoop&) = delete;

    void post(Task task) override;
    void postAfter(double delaySeconds, Task task) override;
    bool isCurrent() const override;

    TimerId scheduleTimer(double intervalSeconds, std::function<void()> tick) override;
    void cancelTimer(TimerId timer) override;

    void run() override;
    void stop() override;

    // Runs the loop until `done` answers true (asked before the first task and after each one), stop()
    // or the time-out, and answers whether `done` became true. Tests wait with it for completions that
    // arrive on the main queue.
    bool runUntil(const std::function<bool()>& done, double timeoutSeconds);

private:
    using Clock = std::chrono::steady_clock;

    struct Entry {
        Clock::time_point due;
        uint64_t order; // posting order, so that tasks due at the same instant keep it
        TimerId timer;  // non-zero for a timer's tick; the task is then empty
        Task task;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.due != b.due ? a.due > b.due : a.order > b.order;
        }
    };
    struct Timer {
        Clock::duration interval;
        std::shared_ptr<std::function<void()>> tick;
    };

    void enqueue(Clock::time_point due, TimerId timer, Task task);
    // Runs until stopped, `done` holds or the deadline passes; answers whether `done` held.
    bool loop(const std::function<bool()>* done, Clock::time_point deadline);

    mutable std::mutex _lock;
    std::condition_variable _wake;
    std::vector<Entry> _heap;
    std::map<TimerId, Timer> _timers;
    uint64_t _nextOrder = 0;
    TimerId _nextTimer = 1;
    bool _stopRequested = false;
    std::atomic<std::thread::id> _thread;
};

} // namespace quorva
