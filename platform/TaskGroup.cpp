#include "platform/TaskGroup.h"

#include "platform/Log.h"
#include "platform/MediaClock.h"

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

namespace quorva {

struct TaskGroup::State {
    std::mutex lock;
    std::condition_variable empty;
    int64_t count = 0;
    std::vector<std::pair<std::shared_ptr<Executor>, Task>> notifications;
};

TaskGroup::TaskGroup() : _state(std::make_shared<State>()) {}

void TaskGroup::enter() {
    std::lock_guard guard(_state->lock);
    ++_state->count;
}

void TaskGroup::leave() {
    std::vector<std::pair<std::shared_ptr<Executor>, Task>> due;
    {
        std::lock_guard guard(_state->lock);
        if (_state->count == 0) {
            // An unbalanced leave means someone's count is wrong; going on would fire notifications
            // for work that is still running.
            Log("TaskGroup: ", "leave() without a matching enter()");
            std::abort();
        }
        if (--_state->count > 0)
            return;
        due.swap(_state->notifications);
        _state->empty.notify_all();
    }
    for (auto& [target, task] : due)
        target->post(std::move(task));
}

void TaskGroup::notify(std::shared_ptr<Executor> target, Task task) {
    {
        std::lock_guard guard(_state->lock);
        if (_state->count > 0) {
            _state->notifications.emplace_back(std::move(target), std::move(task));
            return;
        }
    }
    target->post(std::move(task));
}

void TaskGroup::post(Executor& target, Task task) {
    enter();
    target.post([state = _state, task = std::move(task)] {
        task();
        TaskGroup(state).leave();
    });
}

bool TaskGroup::wait(std::optional<double> timeoutSeconds) {
    std::unique_lock lock(_state->lock);
    auto done = [this] { return _state->count == 0; };
    if (!timeoutSeconds) {
        _state->empty.wait(lock, done);
        return true;
    }
    return _state->empty.wait_until(lock, MediaClock::deadlineAfter(*timeoutSeconds), done);
}

} // namespace quorva
