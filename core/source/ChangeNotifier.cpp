#include "core/source/ChangeNotifier.h"

#include <utility>

namespace quorva {

void ChangeNotifier::setHandler(Handler handler) {
    std::shared_ptr<const Handler> replaced =
        handler ? std::make_shared<const Handler>(std::move(handler)) : nullptr;
    std::lock_guard guard(_lock);
    std::swap(_handler, replaced);
    // The old handler, and whatever it holds, goes after the lock.
}

void ChangeNotifier::notify() const {
    std::lock_guard guard(_lock);
    if (std::shared_ptr<const Handler> handler = _handler)
        (*handler)();
}

} // namespace quorva
