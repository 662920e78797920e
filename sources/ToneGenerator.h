#pragma once

#include "core/source/SourceSound.h"

#include <cstdint>
#include <memory>

namespace quorva {

// The sound of the test patterns: a 1 kHz tone at −12 dBFS, the same on both channels, with a short
// click at the start of every second, so that a recording shows whether sound and pictures stay in
// step. Blocks follow on from one another without a seam. One generator serves one source; it is not
// meant to be called from several threads at once.
class ToneGenerator {
public:
    static constexpr double SampleRate = 48000;
    static constexpr uint64_t Frequency = 1000;
    static constexpr float Amplitude = 0.25f;
    // One millisecond: half of it up, half of it down, loud enough to stand out from the tone.
    static constexpr uint64_t ClickFrames = 48;
    static constexpr float ClickAmplitude = 0.9f;

    // The next `frameCount` frames (a frame holds both channels), continuing where the last block
    // ended. Nothing for zero frames, or when memory runs out (the tone then resumes where it was).
    std::shared_ptr<SourceSound> nextSound(uint64_t frameCount);

    // How many frames the generator has produced so far: the index of the next block's first frame.
    uint64_t position() const { return _position; }

    // The value of frame `index` counted from the start, on either channel.
    static float sampleAt(uint64_t index);

private:
    uint64_t _position = 0;
};

} // namespace quorva
