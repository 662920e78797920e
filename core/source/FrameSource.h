#pragma once

#include "core/source/SourceOutput.h"

#include <cstdint>
#include <string>

namespace quorva {

// A connected live source: it delivers pictures and, for some kinds, sound, each on the
// source's own thread. The recorder reaches PipeWire, NDI and the test patterns only through this.
//
// Threads: made by a directory on the thread that connects (the main thread, in the program); asked and
// stopped on any thread. Its handlers run on the source's own thread (see SourceOutput).
class FrameSource {
public:
    virtual ~FrameSource() = default;

    // The title the source was connected under.
    virtual std::string title() const = 0;
    // True when the pictures are stored bottom-up and must be flipped when drawn or encoded.
    virtual bool flipped() const = 0;
    virtual int64_t kind() const = 0;
    // How many pictures a second the source announces; 0 when it does not say.
    virtual double framesPerSecond() const = 0;

    // Where its pictures and sound go: the same for the source's whole life, closed by stop.
    virtual SourceOutput& output() = 0;

    // Whether the source is delivering sound now.
    virtual bool hasSound() const = 0;
    // Whether the connection still stands; the controller drops a source that is not alive and
    // connects again.
    virtual bool isAlive() const = 0;
    // Ends the connection and closes the output. No handler is called once it has returned; called from a
    // handler, on the source's own thread, it returns at once and the source ends after the handler.
    virtual void stop() = 0;
};

} // namespace quorva
