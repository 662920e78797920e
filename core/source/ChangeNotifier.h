#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace quorva {

// Tells one listener that something changed: a directory's list of sources, in the program.
//
// Threads: the handler is set on any thread; notify runs on whichever thread learns of the change. Both
// happen under one lock, held across the call, so that once the handler is replaced or cleared on
// another thread, the old one is not running and never runs again. The lock is recursive: the handler
// may set the handler again, or read what changed from its owner, from inside the call.
class ChangeNotifier {
public:
    using Handler = std::function<void()>;

    // Stored as a copy; an empty handler stops the calls.
    void setHandler(Handler handler);
    void notify() const;

private:
    mutable std::recursive_mutex _lock; // guards _handler
    // Shared, so that a call under way keeps its handler even when the handler replaces itself.
    std::shared_ptr<const Handler> _handler;
};

} // namespace quorva
