#include "sources/ToneGenerator.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <numbers>

namespace quorva {

float ToneGenerator::sampleAt(uint64_t index) {
    const uint64_t second = uint64_t(SampleRate);
    uint64_t withinSecond = index % second;
    if (withinSecond < ClickFrames)
        return withinSecond < ClickFrames / 2 ? ClickAmplitude : -ClickAmplitude;
    // The phase comes from the frame's index in whole numbers, so it never drifts however long the
    // tone runs and blocks join wherever they are cut.
    uint64_t phase = (index * Frequency) % second;
    return Amplitude * float(std::sin(2 * std::numbers::pi * double(phase) / SampleRate));
}

std::shared_ptr<SourceSound> ToneGenerator::nextSound(uint64_t frameCount) {
    if (frameCount == 0 || frameCount > SIZE_MAX / (2 * sizeof(float)))
        return nullptr;
    SourceSound::Buffer samples(static_cast<float*>(std::malloc(frameCount * 2 * sizeof(float))));
    if (!samples)
        return nullptr;
    for (uint64_t i = 0; i < frameCount; ++i)
        samples[2 * i] = samples[2 * i + 1] = sampleAt(_position + i);
    auto sound = SourceSound::make(std::move(samples), frameCount, SampleRate);
    if (sound)
        _position += frameCount;
    return sound;
}

} // namespace quorva
