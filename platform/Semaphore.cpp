#include "platform/Semaphore.h"

#include "platform/MediaClock.h"

namespace quorva {

void Semaphore::signal() {
    // Notified under the lock: a waiter that returns may destroy the semaphore at once, and must not
    // find this call still touching it.
    std::lock_guard guard(_lock);
    ++_value;
    _changed.notify_one();
}

bool Semaphore::wait(std::optional<double> timeoutSeconds) {
    std::unique_lock lock(_lock);
    auto available = [this] { return _value > 0; };
    if (!timeoutSeconds) {
        _changed.wait(lock, available);
    } else if (!_changed.wait_until(lock, MediaClock::deadlineAfter(*timeoutSeconds), available)) {
        return false;
    }
    --_value;
    return true;
}

} // namespace quorva
