#include "platform/HeadlessEventLoop.h"

#include "platform/MediaClock.h"

#include <algorithm>

namespace quorva {

namespace {

// Below this a repeating timer would only spin the processor.
constexpr double ShortestTimerInterval = 0.0001;

} // namespace

HeadlessEventLoop::HeadlessEventLoop() : _thread(std::this_thread::get_id()) {}

HeadlessEventLoop::~HeadlessEventLoop() = default;

void HeadlessEventLoop::enqueue(Clock::time_point due, TimerId timer, Task task) {
    // Notified under the lock: the task may be the one after which the loop is destroyed, and this
    // call must be done with the loop by then.
    std::lock_guard guard(_lock);
    _heap.push_back(Entry{due, _nextOrder++, timer, std::move(task)});
    std::push_heap(_heap.begin(), _heap.end(), Later{});
    _wake.notify_one();
}

void HeadlessEventLoop::post(Task task) {
    enqueue(Clock::now(), 0, std::move(task));
}

void HeadlessEventLoop::postAfter(double delaySeconds, Task task) {
    enqueue(MediaClock::deadlineAfter(delaySeconds), 0, std::move(task));
}

bool HeadlessEventLoop::isCurrent() const {
    return _thread.load() == std::this_thread::get_id();
}

TimerId HeadlessEventLoop::scheduleTimer(double intervalSeconds, std::function<void()> tick) {
    double seconds = std::max(intervalSeconds, ShortestTimerInterval);
    auto interval = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    TimerId id;
    {
        std::lock_guard guard(_lock);
        id = _nextTimer++;
        _timers.emplace(id, Timer{interval, std::make_shared<std::function<void()>>(std::move(tick))});
    }
    enqueue(MediaClock::deadlineAfter(seconds), id, {});
    return id;
}

void HeadlessEventLoop::cancelTimer(TimerId timer) {
    std::lock_guard guard(_lock);
    // Its pending entry stays in the heap and is discarded when it comes due.
    _timers.erase(timer);
}

void HeadlessEventLoop::stop() {
    std::lock_guard guard(_lock);
    _stopRequested = true;
    _wake.notify_all();
}

void HeadlessEventLoop::run() {
    loop(nullptr, Clock::time_point::max());
}

bool HeadlessEventLoop::runUntil(const std::function<bool()>& done, double timeoutSeconds) {
    return loop(&done, MediaClock::deadlineAfter(timeoutSeconds));
}

bool HeadlessEventLoop::loop(const std::function<bool()>* done, Clock::time_point deadline) {
    _thread = std::this_thread::get_id();
    std::unique_lock lock(_lock);
    for (;;) {
        if (_stopRequested) {
            _stopRequested = false;
            return false;
        }
        if (done) {
            lock.unlock();
            bool finished = (*done)();
            lock.lock();
            if (finished)
                return true;
        }
        auto now = Clock::now();
        if (now >= deadline)
            return false;
        if (_heap.empty() || _heap.front().due > now) {
            auto wakeAt = _heap.empty() ? deadline : std::min(deadline, _heap.front().due);
            if (wakeAt == Clock::time_point::max())
                _wake.wait(lock);
            else
                _wake.wait_until(lock, wakeAt);
            continue;
        }

        std::pop_heap(_heap.begin(), _heap.end(), Later{});
        Entry entry = std::move(_heap.back());
        _heap.pop_back();

        Task task = std::move(entry.task);
        if (entry.timer != 0) {
            auto found = _timers.find(entry.timer);
            if (found == _timers.end())
                continue; // cancelled
            const Timer& timer = found->second;
            // Keep the rhythm of the original schedule, but skip ticks that the loop was too busy for.
            auto next = entry.due + timer.interval;
            if (next <= now)
                next = now + timer.interval;
            _heap.push_back(Entry{next, _nextOrder++, entry.timer, {}});
            std::push_heap(_heap.begin(), _heap.end(), Later{});
            task = [tick = timer.tick] { (*tick)(); };
        }

        lock.unlock();
        task();
        // The task's captures may own anything; let them go before taking the lock again.
        task = nullptr;
        lock.lock();
    }
}

} // namespace quorva
