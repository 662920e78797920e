#pragma once

#include <thread>

namespace quorva {

// Waits for `thread` to end; called on that very thread (a handler that stops its own source), lets it
// end by itself once the call returns, since a thread cannot wait for itself. Nothing for a thread already
// waited for.
inline void JoinUnlessSelf(std::thread& thread) {
    if (!thread.joinable())
        return;
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else
        thread.join();
}

} // namespace quorva
