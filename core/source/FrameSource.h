#pragma once

#include "core/source/SourceSound.h"
#include "platform/Picture.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace quorva {

// A connected live source: it delivers pictures and, for some kinds, sound, each on the
// source's own thread. The recorder reaches PipeWire, NDI and the test patterns only through this.
class FrameSource {
public:
    using FrameHandler = std::function<void(const std::shared_ptr<Picture>& picture)>;
    using SoundHandler = std::function<void(const std::shared_ptr<SourceSound>& sound)>;

    virtual ~FrameSource() = default;

    // The title the source was connected under.
    virtual std::string title() const = 0;
    // True when the pictures are stored bottom-up and must be flipped when drawn or encoded.
    virtual bool flipped() const = 0;
    virtual int64_t kind() const = 0;
    // How many pictures a second the source announces; 0 when it does not say.
    virtual double framesPerSecond() const = 0;

    // Called on the source's thread for every new picture. Stored as a copy.
    virtual FrameHandler frameHandler() const = 0;
    virtual void setFrameHandler(FrameHandler handler) = 0;
    // Called on the source's thread for every block of sound. Stored as a copy.
    virtual SoundHandler soundHandler() const = 0;
    virtual void setSoundHandler(SoundHandler handler) = 0;

    // Whether the source is delivering sound now.
    virtual bool hasSound() const = 0;
    // Whether the connection still stands; the controller drops a source that is not alive and
    // connects again.
    virtual bool isAlive() const = 0;
    // Ends the connection. No handler is called once it has returned.
    virtual void stop() = 0;
};

} // namespace quorva
