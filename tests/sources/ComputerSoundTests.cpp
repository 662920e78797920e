// Run inside a PipeWire session of their own (with_pipewire.sh), which has no sound output until a test
// makes one.
#include "sources/ComputerSound.h"

#include "tests/Processes.h"
#include "tests/core/Limits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

namespace quorva {
namespace {

using testing::WaitFor;

// (A single channel is doubled by the sound block itself, and tested there.)
TEST(ComputerSoundTest, KeepsTwoChannelsAndSkipsSilenceOnlyWhenAsked) {
    const float six[] = {1, 2, 3, 4, 5, 6, -1, -2, -3, -4, -5, -6};
    auto first = ComputerSound::soundFromSamples(six, 2, 6, 44100, true);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::vector<float>(first->samples(), first->samples() + 4), (std::vector<float>{1, 2, -1, -2}));

    // Silence in the channels kept is skipped only while nothing has been heard; a sound in a dropped
    // channel is not heard.
    const float quiet[] = {0, 0, 0.7f, 0, 0, 0.7f};
    EXPECT_EQ(ComputerSound::soundFromSamples(quiet, 2, 3, 48000, true), nullptr);
    EXPECT_NE(ComputerSound::soundFromSamples(quiet, 2, 3, 48000, false), nullptr);

    EXPECT_EQ(ComputerSound::soundFromSamples(six, 2, 0, 48000, false), nullptr);
    EXPECT_EQ(ComputerSound::soundFromSamples(nullptr, 3, 1, 48000, false), nullptr);
}

// What the capture hands over: how many blocks, and how many of them silent.
struct Heard {
    explicit Heard(ComputerSound& sound) {
        sound.output().setSoundHandler([this](const std::shared_ptr<SourceSound>& block) {
            const bool silent = std::all_of(block->samples(), block->samples() + 2 * block->frameCount(),
                                            [](float sample) { return sample == 0; });
            if (blocks++ == 0)
                firstSilent = silent;
            silentBlocks += silent;
        });
    }
    std::atomic<int> blocks = 0, silentBlocks = 0;
    std::atomic<bool> firstSilent = false;
};

// Plays into the default output until ended: a sine, or silence.
pid_t Play(const char* wave) {
    return testing::Spawn(std::string("exec gst-launch-1.0 -q audiotestsrc wave=") + wave +
                          " ! audio/x-raw,format=F32LE,rate=48000,channels=2 ! pipewiresink >/dev/null 2>&1");
}

TEST(ComputerSoundTest, HearsTheDefaultOutputFromItsFirstSoundOnUntilStopped) {
    ComputerSound sound;
    Heard heard(sound);
    testing::Shell(
        "pw-cli create-node adapter '{ factory.name=support.null-audio-sink node.name=quorva-speakers "
        "media.class=Audio/Sink object.linger=true audio.position=[FL FR] }' >/dev/null");
    const pid_t silence = Play("silence");
    ASSERT_TRUE(WaitFor([&] { return sound.start().ok(); }, 10));
    EXPECT_TRUE(sound.start()); // already capturing: no second stream
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(heard.blocks, 0); // silence before the first sound

    const pid_t tone = Play("sine");
    ASSERT_TRUE(WaitFor([&] { return heard.blocks > 10; }, 10));
    testing::End(tone);
    // From the first sound on, silence is delivered too.
    EXPECT_TRUE(WaitFor([&] { return heard.silentBlocks > 5; }, 10));

    sound.stop();
    const int stopped = heard.blocks;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(heard.blocks, stopped);
    EXPECT_FALSE(heard.firstSilent);
    sound.stop();
    testing::End(silence);
}

} // namespace
} // namespace quorva
