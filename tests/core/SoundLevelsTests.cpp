#include "core/source/SoundLevels.h"
#include "core/source/SourceSound.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <numbers>
#include <thread>
#include <vector>

namespace quorva {
namespace {

// `frames` of a 1 kHz sine at 48 kHz, `left` and `right` its amplitudes on each side.
std::shared_ptr<SourceSound> Sine(uint64_t frames, float left, float right, uint64_t start = 0) {
    std::vector<float> samples;
    for (uint64_t i = start; i < start + frames; ++i) {
        const auto value = float(std::sin(2 * std::numbers::pi * 1000 * double(i) / 48000));
        samples.insert(samples.end(), {left * value, right * value});
    }
    return SourceSound::soundWithInterleavedStereoSamples(samples.data(), frames, 48000);
}

std::shared_ptr<SourceSound> Constant(uint64_t frames, float value) {
    std::vector<float> samples(2 * frames, value);
    return SourceSound::soundWithInterleavedStereoSamples(samples.data(), frames, 48000);
}

// A tone's peak and RMS read its level on each side; a reading holds what came since the last one, and
// when the last block came and clipped stays known.
TEST(SoundLevels, EachReadingHoldsEachSidesLevelsSinceTheLastAndAFullScaleSampleClips) {
    SoundLevels levels;
    for (uint64_t block = 0; block < 10; ++block)
        levels.measure(*Sine(480, 0.25f, 0.1f, block * 480), 1 + double(block) / 100);
    const SoundLevels::Reading tone = levels.read();
    EXPECT_EQ(tone.frames, (std::array<uint64_t, 2>{4800, 4800}));
    const double left = 20 * std::log10(0.25), right = 20 * std::log10(0.1);
    EXPECT_NEAR(tone.peakDecibels(0), left, 0.05);
    EXPECT_NEAR(tone.rmsDecibels(0), left, 0.05) << "a sine reads its peak level, as AES17 has it";
    EXPECT_NEAR(tone.peakDecibels(1), right, 0.05);
    EXPECT_NEAR(tone.rmsDecibels(1), right, 0.05);
    EXPECT_DOUBLE_EQ(tone.lastSound, 1.09);

    levels.measure(*Constant(10, 0.99f), 2);
    EXPECT_NEAR(levels.read().peakDecibels(0), 20 * std::log10(0.99), 0.01);
    const SoundLevels::Reading nothing = levels.read();
    EXPECT_EQ(nothing.frames[0], 0u);
    EXPECT_EQ(nothing.peakDecibels(0), SoundLevels::Floor);
    EXPECT_EQ(nothing.rmsDecibels(1), SoundLevels::Floor);
    EXPECT_EQ(nothing.lastSound, 2);
    EXPECT_EQ(nothing.lastClip, 0) << "0.99 is not a clip";

    levels.measure(*Constant(10, -1.0f), 3);
    levels.measure(*Constant(100, 0), 4);
    const SoundLevels::Reading reading = levels.read();
    EXPECT_EQ(reading.frames[1], 110u);
    EXPECT_EQ(reading.lastClip, 3);
    EXPECT_NEAR(reading.peakDecibels(0), 0, 1e-6);
}

// The sound's thread measures while the window reads: every frame is counted once on each channel, and
// no reading pairs one block's samples with another's frame count.
TEST(SoundLevels, ReadingWhileMeasuringLosesNothingAndMixesNothing) {
    SoundLevels levels;
    constexpr uint64_t Blocks = 20000, Frames = 64;
    std::atomic<bool> done = false;
    std::atomic<int> readings = 0;
    std::thread sound([&] {
        // Blocks of 64 frames at 0.5, whose mean square is 0.25 however they are grouped. Halfway, it
        // waits for a reading, so that one is taken while it measures however the threads are scheduled.
        const auto block = Constant(Frames, 0.5f);
        for (uint64_t i = 0; i < Blocks; ++i) {
            while (i == Blocks / 2 && readings == 0)
                std::this_thread::yield();
            levels.measure(*block, double(i));
        }
        done = true;
    });
    std::array<uint64_t, 2> frames{};
    for (bool last = false; !last;) {
        last = done;
        const SoundLevels::Reading reading = levels.read();
        for (size_t channel = 0; channel < 2; ++channel) {
            frames[channel] += reading.frames[channel];
            if (reading.frames[channel] > 0) {
                ASSERT_NEAR(reading.meanSquare[channel], 0.25, 1e-4);
            }
        }
        readings += reading.frames[0] > 0;
    }
    sound.join();
    EXPECT_EQ(frames, (std::array<uint64_t, 2>{Blocks * Frames, Blocks * Frames}));
    EXPECT_GT(readings, 1);
}

} // namespace
} // namespace quorva
