#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace quorva {

class SourceSound;

// How loud a sound is, for its meter: the loudest sample and the mean square of the samples of each
// channel, over the blocks measured since the last reading, and when a block last clipped. The blocks
// are those that go to the movies, measured on the sound's own thread as they pass: that side only
// updates a few atomic numbers, never locks, allocates or waits, so that a meter costs the recording
// nothing. One reader (the window, on a timer) takes what was measured.
class SoundLevels {
public:
    static constexpr size_t Channels = 2;
    // A sample this loud or louder counts as clipped: full scale, less what rounding may take off.
    static constexpr float ClipLevel = 0.999f;
    // The quietest level a reading gives, in dBFS; silence reads this.
    static constexpr double Floor = -120;

    // What was measured between two readings.
    struct Reading {
        // Each channel on its own: a block measured while a reading is taken may fall into this reading
        // on one channel and into the next on the other.
        std::array<float, Channels> peak{};        // the loudest sample's size, 0…1 being full scale
        std::array<double, Channels> meanSquare{}; // of the samples
        std::array<uint64_t, Channels> frames{};   // measured; 0 when no sound came
        double lastClip = 0;                       // media clock time of the last clipped block; 0: none
        double lastSound = 0;                      // media clock time of the last block; 0: none

        // dBFS. The RMS level reads as AES17 has it: a sine at full scale reads 0 dBFS, so that a tone
        // reads the same level as its peak. Both read Floor for silence or no sound.
        double peakDecibels(size_t channel) const;
        double rmsDecibels(size_t channel) const;
    };

    SoundLevels() = default;
    SoundLevels(const SoundLevels&) = delete;
    SoundLevels& operator=(const SoundLevels&) = delete;

    // On the sound's thread, for each block, stamped with the time it arrived at.
    void measure(const SourceSound& sound, double time);
    // What was measured since the last reading, which starts the next one. One reader at a time.
    Reading read();

private:
    // Per channel, the sum of squares (a float's bits, high half) and the frames it covers (low half)
    // in one word, so that a reader never takes one without the other.
    std::array<std::atomic<uint64_t>, Channels> _sums{};
    // Per channel, the loudest sample's bits: non-negative floats order as their bits do.
    std::array<std::atomic<uint32_t>, Channels> _peaks{};
    std::atomic<double> _lastClip{0};
    std::atomic<double> _lastSound{0};
};

} // namespace quorva
