#pragma once

#include "platform/Executor.h"

#include <memory>
#include <optional>
#include <utility>

namespace quorva {

// Counts work under way so that someone can learn when all of it is done: enter() when a piece
// starts, leave() when it ends. notify() and wait() answer for the moment the count falls to zero.
// A movie recorder counts its frames in flight this way before it finishes the movie.
//
// Copies share one count. Leaving more often than entering is a programming error and aborts.
class TaskGroup {
public:
    TaskGroup();

    void enter();
    void leave();

    // Posts `task` on `target` once the count is zero: at once if it is zero now, else when the last
    // piece leaves. Each notification fires once. The target is kept alive until then.
    void notify(std::shared_ptr<Executor> target, Task task);

    // Enters, runs `task` on `target`, then leaves.
    void post(Executor& target, Task task);

    // Blocks until the count is zero and answers true, or answers false once the time-out (seconds)
    // has passed first. Without a time-out it waits as long as it takes.
    bool wait(std::optional<double> timeoutSeconds = std::nullopt);

private:
    struct State;
    explicit TaskGroup(std::shared_ptr<State> state) : _state(std::move(state)) {}
    std::shared_ptr<State> _state;
};

} // namespace quorva
