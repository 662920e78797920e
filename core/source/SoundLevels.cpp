#include "core/source/SoundLevels.h"
#include "core/source/SourceSound.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace quorva {

namespace {

// Past this many frames unread (about six hours at 48 kHz: nobody reads), a block starts the sums anew
// rather than add to sums that a float can no longer tell from the block added to them.
constexpr uint64_t MostFramesSummed = uint64_t(1) << 30;

uint64_t Packed(float sum, uint64_t frames) {
    return uint64_t(std::bit_cast<uint32_t>(sum)) << 32 | frames;
}
float SumOf(uint64_t packed) {
    return std::bit_cast<float>(uint32_t(packed >> 32));
}
uint64_t FramesOf(uint64_t packed) {
    return packed & 0xffffffffu;
}

double Decibels(double amplitude) {
    return amplitude > 0 ? std::max(SoundLevels::Floor, 20 * std::log10(amplitude)) : SoundLevels::Floor;
}

} // namespace

double SoundLevels::Reading::peakDecibels(size_t channel) const {
    return Decibels(peak[channel]);
}

double SoundLevels::Reading::rmsDecibels(size_t channel) const {
    // A sine's RMS is its peak over √2: AES17 adds those 3.01 dB back.
    return Decibels(std::sqrt(2 * meanSquare[channel]));
}

void SoundLevels::measure(const SourceSound& sound, double time) {
    const uint64_t frames = sound.frameCount();
    if (frames == 0)
        return;
    const float* samples = sound.samples();
    std::array<float, Channels> peaks{}, sums{};
    for (uint64_t i = 0; i < frames; ++i) {
        for (size_t channel = 0; channel < Channels; ++channel) {
            const float sample = samples[Channels * i + channel];
            peaks[channel] = std::max(peaks[channel], std::fabs(sample));
            sums[channel] += sample * sample;
        }
    }
    for (size_t channel = 0; channel < Channels; ++channel) {
        // NaN never compares larger, so it leaves the peak alone.
        const uint32_t bits = std::bit_cast<uint32_t>(peaks[channel]);
        uint32_t peak = _peaks[channel].load(std::memory_order_relaxed);
        while (bits > peak && !_peaks[channel].compare_exchange_weak(peak, bits, std::memory_order_relaxed)) {
        }
        uint64_t summed = _sums[channel].load(std::memory_order_relaxed);
        uint64_t next;
        do {
            next = FramesOf(summed) + frames > MostFramesSummed
                       ? Packed(sums[channel], std::min(frames, MostFramesSummed))
                       : Packed(SumOf(summed) + sums[channel], FramesOf(summed) + frames);
        } while (!_sums[channel].compare_exchange_weak(summed, next, std::memory_order_relaxed));
    }
    if (std::max(peaks[0], peaks[1]) >= ClipLevel)
        _lastClip.store(time, std::memory_order_relaxed);
    _lastSound.store(time, std::memory_order_relaxed);
}

SoundLevels::Reading SoundLevels::read() {
    Reading reading;
    for (size_t channel = 0; channel < Channels; ++channel) {
        reading.peak[channel] = std::bit_cast<float>(_peaks[channel].exchange(0, std::memory_order_relaxed));
        const uint64_t summed = _sums[channel].exchange(0, std::memory_order_relaxed);
        reading.frames[channel] = FramesOf(summed);
        reading.meanSquare[channel] =
            reading.frames[channel] > 0 ? double(SumOf(summed)) / double(reading.frames[channel]) : 0;
    }
    reading.lastClip = _lastClip.load(std::memory_order_relaxed);
    reading.lastSound = _lastSound.load(std::memory_order_relaxed);
    return reading;
}

} // namespace quorva
