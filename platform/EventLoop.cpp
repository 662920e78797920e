#include "platform/EventLoop.h"

#include "platform/Log.h"

#include <mutex>
#include <utility>

namespace quorva {

namespace {

std::mutex& MainLoopLock() {
    static std::mutex lock;
    return lock;
}

std::shared_ptr<EventLoop>& MainLoopSlot() {
    static std::shared_ptr<EventLoop> loop;
    return loop;
}

} // namespace

void EventLoop::setMainLoop(std::shared_ptr<EventLoop> loop) {
    std::shared_ptr<EventLoop> previous;
    {
        std::lock_guard guard(MainLoopLock());
        previous = std::exchange(MainLoopSlot(), std::move(loop));
    }
    // `previous` may be the last reference: let it go outside the lock, its destructor can do anything.
}

std::shared_ptr<EventLoop> EventLoop::mainLoop() {
    std::lock_guard guard(MainLoopLock());
    return MainLoopSlot();
}

bool EventLoop::postToMain(Task task) {
    auto loop = mainLoop();
    if (!loop) {
        Log("EventLoop: ", "no main loop is set; a task for the main queue was dropped");
        return false;
    }
    loop->post(std::move(task));
    return true;
}

} // namespace quorva
