#pragma once

#include "core/source/SourceOutput.h"
#include "platform/Error.h"

namespace quorva {

// The computer's own sound, captured on demand.
//
// Threads: started and stopped on one thread (the main thread, in the program); starting may block while
// the capture is linked, up to a few seconds. Its sound handler runs on the capture's thread.
class SoundSource {
public:
    virtual ~SoundSource() = default;

    // Begins capture; refused, with the reason, when it cannot begin.
    virtual Result<> start() = 0;
    // No handler is called once it has returned. The output stays open: the next start delivers again.
    virtual void stop() = 0;

    // Where the captured blocks go, as sound; its frame handler is never called.
    virtual SourceOutput& output() = 0;
};

} // namespace quorva
