#pragma once

#include "core/source/FrameSource.h"
#include "platform/Error.h"
#include "platform/PictureEngine.h"

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace quorva {

// One built-in test source's picture: its title, size, rate and whether its background is clear.
struct TestPatternFormat {
    std::string title;
    uint32_t width = 0;
    uint32_t height = 0;
    double rate = 0; // pictures a second
    bool transparent = false;
};

// A live test source, delivered the way a network source delivers: on a thread of its own, each picture
// drawn in memory and handed over to the picture engine, at the format's rate on the media clock, with
// the tone (1 kHz, a click each second) as sound in blocks that keep up with the clock. A source that
// falls behind skips pictures rather than sending a burst, and its frame counter shows the gap.
class TestPatternSource final : public FrameSource {
public:
    static Result<std::shared_ptr<TestPatternSource>> make(const TestPatternFormat& format,
                                                           const std::shared_ptr<PictureEngine>& engine);
    ~TestPatternSource() override;
    TestPatternSource(const TestPatternSource&) = delete;
    TestPatternSource& operator=(const TestPatternSource&) = delete;

    std::string title() const override;
    bool flipped() const override { return false; }
    int64_t kind() const override;
    double framesPerSecond() const override;
    SourceOutput& output() override;
    bool hasSound() const override { return isAlive(); }
    bool isAlive() const override;
    // From a handler, the thread ends once the handler has returned.
    void stop() override;

private:
    struct State;
    explicit TestPatternSource(std::shared_ptr<State> state);
    static void run(const std::shared_ptr<State>& state);

    // Shared with the thread, so that a source let go of from its own handler stays valid until the
    // thread has returned.
    std::shared_ptr<State> _state;
    std::thread _thread;
};

} // namespace quorva
