#pragma once

#include "platform/Executor.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace quorva {

// Names a repeating timer so that it can be cancelled. Zero is never a timer.
using TimerId = uint64_t;

// The main thread's event loop. The window runs it on Qt's loop; headless runs and tests use
// HeadlessEventLoop. The controller, its settings and every completion "on the main queue" run here.
class EventLoop : public Executor {
public:
    // Calls `tick` on the loop's thread every `intervalSeconds` (the first time one interval from now)
    // until cancelled. When the loop falls behind, missed ticks are skipped rather than bunched up.
    // Intervals below a tenth of a millisecond are raised to it.
    virtual TimerId scheduleTimer(double intervalSeconds, std::function<void()> tick) = 0;

    // Stops a timer. Called on the loop's thread (the tick itself included), no tick follows; called
    // from another thread, a tick that the loop has already begun may still run once. Unknown or
    // already cancelled ids are ignored.
    virtual void cancelTimer(TimerId timer) = 0;

    // Runs tasks and timers on the calling thread until stop().
    virtual void run() = 0;

    // Makes run() return once the task running now, if any, is done. Callable from any thread.
    virtual void stop() = 0;

    // The process-wide main loop that "on the main queue" refers to. Start-up sets it before anything
    // that delivers completions exists; tests set their own. Setting an empty pointer clears it.
    static void setMainLoop(std::shared_ptr<EventLoop> loop);
    static std::shared_ptr<EventLoop> mainLoop();

    // Posts to the main loop. Without one the task cannot run anywhere sensible: it is dropped and
    // logged, and the answer is false.
    static bool postToMain(Task task);
};

} // namespace quorva
