#include "core/source/SourceOutput.h"

#include <utility>

namespace quorva {

namespace {

template <typename Handler>
std::shared_ptr<const Handler> Shared(Handler handler) {
    return handler ? std::make_shared<const Handler>(std::move(handler)) : nullptr;
}

} // namespace

void SourceOutput::setFrameHandler(FrameHandler handler) {
    std::shared_ptr<const FrameHandler> replaced = Shared(std::move(handler));
    std::lock_guard guard(_lock);
    if (!_closed)
        std::swap(_frameHandler, replaced);
    // The old handler, and whatever it holds, goes after the lock.
}

void SourceOutput::setSoundHandler(SoundHandler handler) {
    std::shared_ptr<const SoundHandler> replaced = Shared(std::move(handler));
    std::lock_guard guard(_lock);
    if (!_closed)
        std::swap(_soundHandler, replaced);
}

void SourceOutput::close() {
    std::shared_ptr<const FrameHandler> frameHandler;
    std::shared_ptr<const SoundHandler> soundHandler;
    std::lock_guard guard(_lock);
    _closed = true;
    std::swap(frameHandler, _frameHandler);
    std::swap(soundHandler, _soundHandler);
}

bool SourceOutput::wantsFrames() const {
    std::lock_guard guard(_lock);
    return _frameHandler != nullptr;
}

void SourceOutput::deliverFrame(const std::shared_ptr<Picture>& picture) const {
    std::lock_guard guard(_lock);
    if (std::shared_ptr<const FrameHandler> handler = _frameHandler)
        (*handler)(picture);
}

void SourceOutput::deliverSound(const std::shared_ptr<SourceSound>& sound) const {
    std::lock_guard guard(_lock);
    if (std::shared_ptr<const SoundHandler> handler = _soundHandler)
        (*handler)(sound);
}

} // namespace quorva
