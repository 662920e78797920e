#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

namespace quorva {

// A sample rate that sound can be placed at: a finite number above 0.
bool IsUsableRate(double sampleRate);

// Thrown by SourceSound::silenceOfFrameCount when there is no memory for the silence. Making silence has
// no "nothing" answer: its callers have already decided to write that silence, deep inside placing a
// block, and an exception carries the failure out of there without threading a failure value through
// every step. It never leaves the sound code: the sound timeline catches it and refuses the block.
class SilenceMemoryError : public std::bad_alloc {
public:
    explicit SilenceMemoryError(uint64_t frameCount);
    const char* what() const noexcept override { return _message; }

private:
    // Formatted in place: allocating the message could fail for the very reason it reports.
    char _message[64];
};

// An immutable block of 32-bit float stereo samples, interleaved left, right, with its sample rate. It
// owns its samples; blocks are shared between threads and movies by reference. Every factory answers
// nothing (nullptr) for bad arguments or when memory runs out.
class SourceSound : public std::enable_shared_from_this<SourceSound> {
    struct Private {};

public:
    struct FreeSamples {
        void operator()(float* samples) const { std::free(samples); }
    };
    // Samples from malloc or calloc, 2 floats a frame.
    using Buffer = std::unique_ptr<float[], FreeSamples>;

    // Takes ownership of `buffer`, which holds `frameCount` interleaved stereo frames.
    static std::shared_ptr<SourceSound> make(Buffer buffer, uint64_t frameCount, double sampleRate);

    // Copies planar float channels, each `channelStrideInBytes` after the previous one. Left is channel
    // 0 and right channel 1; a single channel goes to both sides; channels past the second are ignored.
    static std::shared_ptr<SourceSound> soundWithPlanarSamples(const float* samples, uint64_t channelCount,
                                                               uint64_t frameCount,
                                                               uint64_t channelStrideInBytes,
                                                               double sampleRate);
    // Copies `frameCount` interleaved stereo frames.
    static std::shared_ptr<SourceSound>
    soundWithInterleavedStereoSamples(const float* samples, uint64_t frameCount, double sampleRate);
    // A block of zeros; a count of 0 gives an empty block. Asking with an unusable rate or more frames
    // than memory could ever address is a programming error and aborts, in every build. Running out of
    // memory throws SilenceMemoryError.
    static std::shared_ptr<SourceSound> silenceOfFrameCount(uint64_t frameCount, double sampleRate);

    SourceSound(Private, Buffer buffer, uint64_t frameCount, double sampleRate);
    SourceSound(const SourceSound&) = delete;
    SourceSound& operator=(const SourceSound&) = delete;

    double sampleRate() const { return _sampleRate; }
    uint64_t frameCount() const { return _frameCount; }
    // 2 × frameCount floats: left, right, left, right…
    const float* samples() const { return _buffer.get(); }
    double duration() const { return double(_frameCount) / _sampleRate; }

    // The frames from `frame` on: this very block for 0, nothing when `frame` is past the end.
    std::shared_ptr<SourceSound> soundFromFrame(uint64_t frame) const;

private:
    const Buffer _buffer;
    const double _sampleRate;
    const uint64_t _frameCount;
};

} // namespace quorva
