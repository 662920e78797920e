#pragma once

#include <functional>

namespace quorva {

using Task = std::function<void()>;

// Something that runs tasks one after another on a thread of its own: the main event loop or a serial
// queue. Completion callbacks and group notifications name their target through this interface, so
// that the same code delivers "on the main queue" under Qt's loop, the headless loop or a queue.
class Executor {
public:
    virtual ~Executor() = default;

    // Runs the task on the executor's thread, after every task posted before it.
    virtual void post(Task task) = 0;

    // Runs the task on the executor's thread once the delay (seconds on the media clock) has passed,
    // never earlier. A delay of zero or less behaves as post().
    virtual void postAfter(double delaySeconds, Task task) = 0;

    // Whether the calling thread is the one that runs this executor's tasks.
    virtual bool isCurrent() const = 0;
};

} // namespace quorva
