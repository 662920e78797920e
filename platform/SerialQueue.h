#pragma once

#include "platform/Executor.h"

#include <memory>
#include <string>
#include <thread>

namespace quorva {

// A serial queue: tasks run one at a time, in order, on a thread of the queue's own. Its label is the
// application identifier followed by a component suffix ("org.quorva.QuorvaRecorder.movie-recorder");
// the thread carries the suffix as its name, cut to the 15 characters the kernel keeps, so that it
// reads well in top, gdb and crash reports.
//
// Destruction finishes the work that was asked for: every task whose time has come (all posted tasks,
// and delayed tasks already due) runs before the destructor returns, tasks posted by those tasks
// included; delayed tasks not yet due are dropped. Destroying the queue from one of its own tasks is
// allowed: the thread then finishes the same way on its own after that task returns.
class SerialQueue final : public Executor {
public:
    explicit SerialQueue(const std::string& suffix);
    ~SerialQueue() override;
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const;

    void post(Task task) override;
    void postAfter(double delaySeconds, Task task) override;
    bool isCurrent() const override;

    // Runs the task on the queue and returns once it has run. Called from the queue's own thread it
    // runs the task at once, in place, instead of waiting for itself forever.
    void sync(const Task& task);

    // The name the queue's thread gets for a label: the part after the application identifier, cut
    // to 15 characters.
    static std::string ThreadName(const std::string& label);

private:
    struct State;
    std::shared_ptr<State> _state;
    std::thread _thread;
};

} // namespace quorva
