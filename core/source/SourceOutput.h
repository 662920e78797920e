#pragma once

#include "core/source/SourceSound.h"
#include "platform/Picture.h"

#include <functional>
#include <memory>
#include <mutex>

namespace quorva {

// Where a source hands over its pictures and sound: the two handlers that the recorder sets, kept for the
// source, and called by it for every picture and every block.
//
// Threads: the handlers are set and the output closed on any thread (the main thread, in the program);
// deliverFrame and deliverSound run on the source's own thread. All of it happens under one lock, held
// across each handler call, so that once a handler is replaced or the output closed on another thread,
// the old handler is not running and never runs again. The lock is recursive: a handler may set the
// handlers, close the output or stop its source from inside the call. A handler therefore must not wait
// for a thread that sets this output's handlers.
class SourceOutput {
public:
    using FrameHandler = std::function<void(const std::shared_ptr<Picture>& picture)>;
    using SoundHandler = std::function<void(const std::shared_ptr<SourceSound>& sound)>;

    // Stored as a copy; an empty handler stops the calls. Ignored once the output is closed.
    void setFrameHandler(FrameHandler handler);
    void setSoundHandler(SoundHandler handler);
    // Lets go of both handlers and refuses any later one: a source closes its output as it stops.
    void close();

    // Whether a picture would reach anyone now: a source may spare itself the work of one that would not.
    bool wantsFrames() const;
    void deliverFrame(const std::shared_ptr<Picture>& picture) const;
    void deliverSound(const std::shared_ptr<SourceSound>& sound) const;

private:
    mutable std::recursive_mutex _lock; // guards what follows
    bool _closed = false;
    // Shared, so that a call under way keeps its handler even when the handler replaces itself.
    std::shared_ptr<const FrameHandler> _frameHandler;
    std::shared_ptr<const SoundHandler> _soundHandler;
};

} // namespace quorva
