#include "sources/TestPatternSource.h"

#include "core/source/SourceDescription.h"
#include "platform/JoinThread.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"
#include "sources/TestPattern.h"
#include "sources/ToneGenerator.h"

#include <condition_variable>
#include <mutex>

namespace quorva {

namespace {

const char* const LogPrefix = "TestPattern: ";

} // namespace

struct TestPatternSource::State {
    // Declared first so that it goes last: whoever waits for the handlers to be let go knows that the
    // pictures are gone too.
    SourceOutput output;
    // Guarded by `lock`.
    bool stopping = false;
    bool failed = false;
    mutable std::mutex lock;
    std::condition_variable stopped;
    TestPatternFormat format;
    std::shared_ptr<TestPattern> pattern;
    std::shared_ptr<PictureEngine> engine;
};

Result<std::shared_ptr<TestPatternSource>>
TestPatternSource::make(const TestPatternFormat& format, const std::shared_ptr<PictureEngine>& engine) {
    if (!engine || format.width == 0 || format.height == 0 || !(format.rate > 0))
        return Error(std::string(ApplicationIdentifier) + ".TestPattern", -1,
                     "The test pattern " + format.title + " cannot be drawn");
    auto pattern = TestPattern::make(format.width, format.height, format.transparent);
    if (!pattern)
        return pattern.error();
    auto state = std::make_shared<State>();
    state->format = format;
    state->pattern = std::move(pattern.value());
    state->engine = engine;
    return std::shared_ptr<TestPatternSource>(new TestPatternSource(std::move(state)));
}

TestPatternSource::TestPatternSource(std::shared_ptr<State> state)
    : _state(std::move(state)), _thread([state = _state] { run(state); }) {}

TestPatternSource::~TestPatternSource() {
    stop();
}

std::string TestPatternSource::title() const {
    return _state->format.title;
}

int64_t TestPatternSource::kind() const {
    return SourceKindPattern;
}

double TestPatternSource::framesPerSecond() const {
    return _state->format.rate;
}

SourceOutput& TestPatternSource::output() {
    return _state->output;
}

bool TestPatternSource::isAlive() const {
    std::lock_guard guard(_state->lock);
    return !_state->stopping && !_state->failed;
}

void TestPatternSource::stop() {
    _state->output.close();
    {
        std::lock_guard guard(_state->lock);
        _state->stopping = true;
        _state->stopped.notify_all();
    }
    JoinUnlessSelf(_thread);
}

void TestPatternSource::run(const std::shared_ptr<State>& state) {
    const TestPatternFormat& format = state->format;
    ToneGenerator tone;
    const double start = MediaClock::now();
    uint64_t frame = 0;
    for (;;) {
        Result<std::shared_ptr<Picture>> picture = [&]() -> Result<std::shared_ptr<Picture>> {
            Result<std::shared_ptr<MemoryPicture>> drawn = state->pattern->drawFrame(frame);
            if (!drawn)
                return drawn.error();
            return state->engine->adopt(drawn.value());
        }();
        if (!picture) {
            Log(LogPrefix, format.title + " stopped: " + picture.error().message());
            std::lock_guard guard(state->lock);
            state->failed = true;
            return;
        }

        {
            std::lock_guard guard(state->lock);
            if (state->stopping)
                return;
        }
        // Let go of the picture at once, so that the pattern can draw into it again when the
        // receiver is done with it.
        state->output.deliverFrame(std::shared_ptr<Picture>(std::move(picture.value())));

        // Sound follows the clock, not the pictures, so a late picture never stretches it.
        double now = MediaClock::now();
        auto due = uint64_t((now - start) * ToneGenerator::SampleRate);
        if (due > tone.position()) {
            if (auto sound = tone.nextSound(due - tone.position()))
                state->output.deliverSound(sound);
        }

        ++frame;
        double next = start + double(frame) / format.rate;
        if (now > next + 1.0 / format.rate) {
            // Too slow for this rate (a software GPU, a busy machine): leave the missed slots out.
            frame = uint64_t((now - start) * format.rate) + 1;
            next = start + double(frame) / format.rate;
        }
        std::unique_lock lock(state->lock);
        if (state->stopped.wait_until(lock, MediaClock::deadlineAfter(next - MediaClock::now()),
                                      [&] { return state->stopping; }))
            return;
    }
}

} // namespace quorva
