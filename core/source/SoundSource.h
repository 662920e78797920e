#pragma once

#include "core/source/SourceSound.h"
#include "platform/Error.h"

#include <functional>
#include <memory>

namespace quorva {

// The computer's own sound, captured on demand.
class SoundSource {
public:
    using SoundHandler = std::function<void(const std::shared_ptr<SourceSound>& sound)>;

    virtual ~SoundSource() = default;

    // Begins capture; refused, with the reason, when it cannot begin.
    virtual Result<> start() = 0;
    virtual void stop() = 0;

    // Called with each captured block. Stored as a copy.
    virtual SoundHandler soundHandler() const = 0;
    virtual void setSoundHandler(SoundHandler handler) = 0;
};

} // namespace quorva
