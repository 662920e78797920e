#include "platform/SerialQueue.h"

#include "platform/Error.h"
#include "platform/MediaClock.h"
#include "platform/Semaphore.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <vector>

namespace quorva {

using Clock = std::chrono::steady_clock;

struct SerialQueue::State {
    struct Entry {
        Clock::time_point due;
        uint64_t order;
        Task task;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.due != b.due ? a.due > b.due : a.order > b.order;
        }
    };

    explicit State(std::string label) : label(std::move(label)) {}

    void enqueue(Clock::time_point due, Task task) {
        std::lock_guard guard(lock);
        heap.push_back(Entry{due, nextOrder++, std::move(task)});
        std::push_heap(heap.begin(), heap.end(), Later{});
        wake.notify_one();
    }

    void shutDown() {
        std::lock_guard guard(lock);
        stopping = true;
        wake.notify_one();
    }

    void work();

    const std::string label;
    std::mutex lock;
    std::condition_variable wake;
    std::vector<Entry> heap;
    uint64_t nextOrder = 0;
    bool stopping = false;
};

namespace {

// The queue whose task the calling thread is running, if any.
thread_local const void* CurrentQueue = nullptr;

} // namespace

void SerialQueue::State::work() {
    CurrentQueue = this;
    std::string name = ThreadName(label);
    pthread_setname_np(pthread_self(), name.c_str());

    std::unique_lock guard(lock);
    for (;;) {
        auto now = Clock::now();
        bool due = !heap.empty() && heap.front().due <= now;
        if (!due) {
            if (stopping)
                break; // what is left was not due yet: dropped
            if (heap.empty()) {
                wake.wait(guard);
            } else {
                // A copy: the heap may grow, and move its entries, while we sleep.
                Clock::time_point earliest = heap.front().due;
                wake.wait_until(guard, earliest);
            }
            continue;
        }
        std::pop_heap(heap.begin(), heap.end(), Later{});
        Task task = std::move(heap.back().task);
        heap.pop_back();
        guard.unlock();
        task();
        task = nullptr; // release its captures outside the lock
        guard.lock();
    }
    std::vector<Entry> dropped = std::move(heap);
    heap.clear();
    guard.unlock();
    // `dropped` is destroyed here, outside the lock, since a task's captures may own anything.
}

std::string SerialQueue::ThreadName(const std::string& label) {
    std::string prefix = std::string(ApplicationIdentifier) + ".";
    std::string name = label.rfind(prefix, 0) == 0 ? label.substr(prefix.size()) : label;
    if (name.empty())
        name = "queue";
    return name.substr(0, 15);
}

SerialQueue::SerialQueue(const std::string& suffix)
    : _state(std::make_shared<State>(std::string(ApplicationIdentifier) + "." + suffix)) {
    // The thread holds the state too, so that it can finish on its own if the queue is destroyed
    // from one of its tasks.
    _thread = std::thread([state = _state] { state->work(); });
}

SerialQueue::~SerialQueue() {
    _state->shutDown();
    if (isCurrent())
        _thread.detach();
    else
        _thread.join();
}

const std::string& SerialQueue::label() const {
    return _state->label;
}

void SerialQueue::post(Task task) {
    _state->enqueue(Clock::now(), std::move(task));
}

void SerialQueue::postAfter(double delaySeconds, Task task) {
    _state->enqueue(MediaClock::deadlineAfter(delaySeconds), std::move(task));
}

bool SerialQueue::isCurrent() const {
    return CurrentQueue == _state.get();
}

void SerialQueue::sync(const Task& task) {
    if (isCurrent()) {
        task();
        return;
    }
    Semaphore done;
    post([&] {
        task();
        done.signal();
    });
    done.wait();
}

} // namespace quorva
