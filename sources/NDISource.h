#pragma once

#include "core/source/FrameSource.h"
#include "platform/Error.h"
#include "platform/PictureEngine.h"
#include "sources/NDILibrary.h"

#include <memory>
#include <string>
#include <thread>

namespace quorva {

// One NDI source, received on a thread of its own. The receiver asks for BGRX and BGRA pictures only,
// which are copied once into pictures of the engine (BGRX made opaque on the way, its fourth byte
// meaning nothing) and handed over without a conversion; pictures in any other layout are dropped and
// logged once. Planar float sound becomes sound blocks; any other sound is left out and logged once.
class NDISource final : public FrameSource {
public:
    // How long a source counts as sending sound after its last block, and as alive after it was made
    // before its connection is asked about: a sender takes a moment to answer a new receiver.
    static constexpr double SoundInterval = 3.0;
    static constexpr double ConnectionGrace = 3.0;

    // A receiver for the source `name` at `url` (empty: wherever the runtime finds it), listed as `title`.
    // Fails when the runtime is not available or makes no receiver.
    static Result<std::shared_ptr<NDISource>> make(const std::string& title, const std::string& name,
                                                   const std::string& url,
                                                   std::shared_ptr<const NDILibrary> library,
                                                   std::shared_ptr<PictureEngine> engine);
    ~NDISource() override;
    NDISource(const NDISource&) = delete;
    NDISource& operator=(const NDISource&) = delete;

    std::string title() const override;
    bool flipped() const override { return false; }
    int64_t kind() const override;
    // As the last picture said.
    double framesPerSecond() const override;
    SourceOutput& output() override;
    // While a block of sound arrived in the last three seconds.
    bool hasSound() const override;
    // For three seconds after it was made, then while the sender counts the connection.
    bool isAlive() const override;
    // From a handler, the receiver goes once the handler has returned.
    void stop() override;

    struct State;

private:
    NDISource(std::shared_ptr<State> state);

    const std::shared_ptr<State> _state;
    std::thread _thread;
};

} // namespace quorva
