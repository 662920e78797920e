#include "core/source/SourceSound.h"

#include "platform/Log.h"

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

namespace quorva {

namespace {

constexpr uint64_t LargestPlanarFrameCount = (uint64_t(1) << 61) - 1;
constexpr uint64_t LargestSilenceFrameCount = std::numeric_limits<uint64_t>::max() / (2 * sizeof(float));

// Programming errors in making silence stop the program in every build: silence of an unusable rate
// would poison every later time computation, and a count that large is a broken computation upstream.
[[noreturn]] void AssertionFailed(const char* condition) {
    Log("SourceSound: ", std::string("assertion failed: ") + condition);
    std::abort();
}

// Room for `frameCount` stereo frames, or nothing. Sizes beyond what any allocation can give are
// refused here rather than passed on, so that they read as running out of memory everywhere.
SourceSound::Buffer AllocateFrames(uint64_t frameCount, bool zeroed) {
    if (frameCount > uint64_t(std::numeric_limits<ptrdiff_t>::max()) / (2 * sizeof(float)))
        return nullptr;
    size_t count = size_t(frameCount) * 2;
    void* memory = zeroed ? std::calloc(count, sizeof(float)) : std::malloc(count * sizeof(float));
    return SourceSound::Buffer(static_cast<float*>(memory));
}

} // namespace

bool IsUsableRate(double sampleRate) {
    return std::isfinite(sampleRate) && sampleRate > 0;
}

SilenceMemoryError::SilenceMemoryError(uint64_t frameCount) {
    std::snprintf(_message, sizeof _message, "No memory for %llu frames of silence",
                  static_cast<unsigned long long>(frameCount));
}

SourceSound::SourceSound(Private, Buffer buffer, uint64_t frameCount, double sampleRate)
    : _buffer(std::move(buffer)), _sampleRate(sampleRate), _frameCount(frameCount) {}

std::shared_ptr<SourceSound> SourceSound::make(Buffer buffer, uint64_t frameCount, double sampleRate) {
    try {
        return std::make_shared<SourceSound>(Private{}, std::move(buffer), frameCount, sampleRate);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::shared_ptr<SourceSound> SourceSound::soundWithPlanarSamples(const float* samples, uint64_t channelCount,
                                                                 uint64_t frameCount,
                                                                 uint64_t channelStrideInBytes,
                                                                 double sampleRate) {
    if (!samples || channelCount == 0 || frameCount == 0 || frameCount > LargestPlanarFrameCount ||
        !IsUsableRate(sampleRate))
        return nullptr;
    if (channelCount >= 2 &&
        (channelStrideInBytes < frameCount * sizeof(float) || channelStrideInBytes % sizeof(float) != 0))
        return nullptr;
    Buffer buffer = AllocateFrames(frameCount, false);
    if (!buffer)
        return nullptr;
    const float* left = samples;
    const float* right = channelCount >= 2 ? samples + channelStrideInBytes / sizeof(float) : samples;
    float* out = buffer.get();
    for (uint64_t i = 0; i < frameCount; ++i) {
        out[2 * i] = left[i];
        out[2 * i + 1] = right[i];
    }
    return make(std::move(buffer), frameCount, sampleRate);
}

std::shared_ptr<SourceSound>
SourceSound::soundWithInterleavedStereoSamples(const float* samples, uint64_t frameCount, double sampleRate) {
    if (!samples || frameCount == 0 || frameCount > LargestPlanarFrameCount || !IsUsableRate(sampleRate))
        return nullptr;
    Buffer buffer = AllocateFrames(frameCount, false);
    if (!buffer)
        return nullptr;
    std::memcpy(buffer.get(), samples, size_t(frameCount) * 2 * sizeof(float));
    return make(std::move(buffer), frameCount, sampleRate);
}

std::shared_ptr<SourceSound> SourceSound::silenceOfFrameCount(uint64_t frameCount, double sampleRate) {
    if (!IsUsableRate(sampleRate))
        AssertionFailed("IsUsableRate(sampleRate)");
    if (!(frameCount <= LargestSilenceFrameCount))
        AssertionFailed("frameCount <= NSUIntegerMax / (2 * sizeof(float))");
    Buffer buffer;
    if (frameCount > 0) {
        // calloc, not malloc and a fill: long silences get pages that the system zeroes on first use.
        buffer = AllocateFrames(frameCount, true);
        if (!buffer)
            throw SilenceMemoryError(frameCount);
    }
    std::shared_ptr<SourceSound> silence = make(std::move(buffer), frameCount, sampleRate);
    if (!silence)
        throw SilenceMemoryError(frameCount);
    return silence;
}

std::shared_ptr<SourceSound> SourceSound::soundFromFrame(uint64_t frame) const {
    if (frame >= _frameCount)
        return nullptr;
    if (frame == 0)
        return std::const_pointer_cast<SourceSound>(shared_from_this()); // immutable, so sharing is safe
    uint64_t frameCount = _frameCount - frame;
    Buffer buffer = AllocateFrames(frameCount, false);
    if (!buffer)
        return nullptr;
    std::memcpy(buffer.get(), _buffer.get() + 2 * frame, size_t(frameCount) * 2 * sizeof(float));
    return make(std::move(buffer), frameCount, _sampleRate);
}

} // namespace quorva
