#include "core/SoundTimeline.h"

#include "platform/Log.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

namespace quorva {
namespace {

// A block whose left samples count up from `first` and right samples count down from -`first`, so that
// where its frames went can be read back.
std::shared_ptr<SourceSound> Ramp(uint64_t frameCount, double rate, float first = 1) {
    std::vector<float> samples;
    for (uint64_t i = 0; i < frameCount; ++i) {
        samples.push_back(first + float(i));
        samples.push_back(-first - float(i));
    }
    return SourceSound::soundWithInterleavedStereoSamples(samples.data(), frameCount, rate);
}

std::vector<float> Samples(const SourceSound& sound) {
    return std::vector<float>(sound.samples(), sound.samples() + 2 * sound.frameCount());
}

bool IsSilence(const SourceSound& sound, uint64_t frameCount) {
    if (sound.frameCount() != frameCount)
        return false;
    for (float sample : Samples(sound))
        if (sample != 0)
            return false;
    return true;
}

using Pieces = std::vector<std::shared_ptr<SourceSound>>;

// What a placement gave, a word a piece: "block" for `block` itself, "silence:N" for N frames of zeros,
// "N@V" for N frames whose first left sample is V (a ramp's frame V − 1).
std::string Shape(const Pieces& pieces, const std::shared_ptr<SourceSound>& block) {
    std::string shape;
    for (const auto& piece : pieces) {
        if (!shape.empty())
            shape += " ";
        if (piece == block)
            shape += "block";
        else if (IsSilence(*piece, piece->frameCount()))
            shape += "silence:" + std::to_string(piece->frameCount());
        else
            shape += std::to_string(piece->frameCount()) + "@" + std::to_string(int(piece->samples()[0]));
    }
    return shape;
}

// Places a fresh ramp of `frameCount` frames arriving at `time` and describes what came out.
std::string Place(SoundTimeline& timeline, uint64_t frameCount, double rate, double time) {
    auto block = Ramp(frameCount, rate);
    return Shape(timeline.piecesForSound(block, time), block);
}

// ---- SourceSound -------------------------------------------------------------------------------------

TEST(SourceSoundPlanar, ChannelsAreInterleavedAcrossTheStride) {
    // Two channels of three frames, each padded to four floats.
    const float planar[] = {1, 2, 3, 99, 4, 5, 6, 99, 7, 8, 9, 99};
    auto stereo = SourceSound::soundWithPlanarSamples(planar, 2, 3, 16, 48000);
    ASSERT_TRUE(stereo);
    EXPECT_EQ(Samples(*stereo), (std::vector<float>{1, 4, 2, 5, 3, 6}));
    EXPECT_EQ(stereo->frameCount(), 3u);
    EXPECT_EQ(stereo->sampleRate(), 48000);

    // A third channel is ignored; a single channel goes to both sides, whatever its stride.
    auto three = SourceSound::soundWithPlanarSamples(planar, 3, 3, 16, 48000);
    ASSERT_TRUE(three);
    EXPECT_EQ(Samples(*three), (std::vector<float>{1, 4, 2, 5, 3, 6}));
    auto mono = SourceSound::soundWithPlanarSamples(planar, 1, 3, 0, 44100);
    ASSERT_TRUE(mono);
    EXPECT_EQ(Samples(*mono), (std::vector<float>{1, 1, 2, 2, 3, 3}));

    // Channels packed back to back: the stride is exactly one channel.
    const float packed[] = {1, 2, 3, 4, 5, 6};
    auto tight = SourceSound::soundWithPlanarSamples(packed, 2, 3, 12, 48000);
    ASSERT_TRUE(tight);
    EXPECT_EQ(Samples(*tight), (std::vector<float>{1, 4, 2, 5, 3, 6}));
}

TEST(SourceSoundPlanar, BadArgumentsGiveNothing) {
    const float planar[] = {1, 2, 3, 4, 5, 6};
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(nullptr, 2, 3, 12, 48000));
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 0, 3, 12, 48000));
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 2, 0, 12, 48000));
    // Refused before anything is read: the array is far shorter than the count.
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 1, uint64_t(1) << 61, 0, 48000));
    for (double rate : {0.0, -48000.0, nan, inf})
        EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 2, 3, 12, rate)) << rate;
    // Channels that would overlap, or a stride that splits a sample.
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 2, 3, 8, 48000));
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 2, 3, 14, 48000));
    // The largest count passes the checks but can never be allocated: nothing, and nothing is read.
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 1, (uint64_t(1) << 61) - 1, 0, 48000));
}

TEST(SourceSoundInterleaved, CopiesTheSamplesAndChecksItsArguments) {
    std::vector<float> samples{0.25f, -0.25f, 0.5f, -0.5f};
    auto sound = SourceSound::soundWithInterleavedStereoSamples(samples.data(), 2, 48000);
    ASSERT_TRUE(sound);
    samples[0] = 7; // the block owns its own copy
    EXPECT_EQ(Samples(*sound), (std::vector<float>{0.25f, -0.25f, 0.5f, -0.5f}));

    EXPECT_FALSE(SourceSound::soundWithInterleavedStereoSamples(nullptr, 2, 48000));
    EXPECT_FALSE(SourceSound::soundWithInterleavedStereoSamples(samples.data(), 0, 48000));
    EXPECT_FALSE(SourceSound::soundWithInterleavedStereoSamples(samples.data(), 2, 0));
    EXPECT_FALSE(SourceSound::soundWithInterleavedStereoSamples(samples.data(), uint64_t(1) << 61, 48000));

    auto tenMilliseconds = Ramp(480, 48000);
    EXPECT_DOUBLE_EQ(tenMilliseconds->duration(), 0.01);
}

TEST(SourceSoundSilence, IsZerosOfTheAskedLength) {
    auto silence = SourceSound::silenceOfFrameCount(5, 44100);
    ASSERT_TRUE(silence);
    EXPECT_TRUE(IsSilence(*silence, 5));
    EXPECT_EQ(silence->sampleRate(), 44100);

    auto empty = SourceSound::silenceOfFrameCount(0, 48000);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->frameCount(), 0u);
    EXPECT_EQ(empty->duration(), 0);
}

TEST(SourceSoundSilence, NoMemoryIsAnExceptionThatSaysHowMuch) {
    const uint64_t largest = std::numeric_limits<uint64_t>::max() / 8;
    try {
        SourceSound::silenceOfFrameCount(largest, 48000);
        FAIL() << "silence of 2^61 frames was made";
    } catch (const SilenceMemoryError& error) {
        EXPECT_STREQ(error.what(), "No memory for 2305843009213693951 frames of silence");
    }
}

TEST(SourceSoundSilenceDeathTest, ProgrammingErrorsAbortWithTheBrokenCondition) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(SourceSound::silenceOfFrameCount(10, 0), "IsUsableRate\\(sampleRate\\)");
    EXPECT_DEATH(SourceSound::silenceOfFrameCount(10, std::numeric_limits<double>::quiet_NaN()),
                 "IsUsableRate\\(sampleRate\\)");
    EXPECT_DEATH(SourceSound::silenceOfFrameCount(std::numeric_limits<uint64_t>::max() / 8 + 1, 48000),
                 "frameCount <= NSUIntegerMax / \\(2 \\* sizeof\\(float\\)\\)");
}

TEST(SourceSoundFromFrame, GivesTheTailTheSameBlockOrNothing) {
    auto sound = Ramp(4, 48000);
    EXPECT_EQ(sound->soundFromFrame(0).get(), sound.get());
    EXPECT_FALSE(sound->soundFromFrame(4));
    EXPECT_FALSE(sound->soundFromFrame(5));
    auto tail = sound->soundFromFrame(3);
    ASSERT_TRUE(tail);
    EXPECT_EQ(Samples(*tail), (std::vector<float>{4, -4}));
    EXPECT_EQ(tail->sampleRate(), 48000);
    auto rest = sound->soundFromFrame(1);
    ASSERT_TRUE(rest);
    EXPECT_EQ(Samples(*rest), (std::vector<float>{2, -2, 3, -3, 4, -4}));
}

// ---- SoundTimeline: anchoring and gaps ---------------------------------------------------------------

TEST(SoundTimelineAnchoring, FirstBlockOfARunIsPlacedWhereItArrived) {
    // 10 ms arriving 1.51 s after the origin began 1.5 s in: 72000 frames of silence come first.
    SoundTimeline timeline(100.0);
    auto block = Ramp(480, 48000);
    Pieces pieces = timeline.piecesForSound(block, 101.51);
    EXPECT_EQ(Shape(pieces, block), "silence:72000 block");
    EXPECT_EQ(pieces[0]->sampleRate(), 48000);
    EXPECT_DOUBLE_EQ(timeline.silenceAdded(), 1.5);
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 1.51);
    EXPECT_EQ(timeline.soundLeftOut(), 0);
}

TEST(SoundTimelineAnchoring, ABlockThatBeganBeforeTheOriginLosesItsEarlyFrames) {
    // One second of sound ending 0.4 s after the origin: its first 600 frames are before movie time 0.
    SoundTimeline timeline(50.0);
    EXPECT_EQ(Place(timeline, 1000, 1000, 50.4), "400@601");
    EXPECT_DOUBLE_EQ(timeline.soundLeftOut(), 0.6);
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 0.4);
}

TEST(SoundTimelineAnchoring, AStaleBlockIsLeftOutWholeAndDoesNotAnchor) {
    SoundTimeline timeline(0.0);
    EXPECT_EQ(Place(timeline, 100, 1000, -0.5), ""); // ended before the origin
    EXPECT_DOUBLE_EQ(timeline.soundLeftOut(), 0.1);
    // Still unanchored, so the next block is placed exactly, 50 frames in, rather than smoothed onto
    // the end of the (empty) track.
    EXPECT_EQ(Place(timeline, 100, 1000, 0.15), "silence:50 block");
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 0.15);
}

TEST(SoundTimelineAnchoring, ABlockOlderThanWhatIsWrittenIsLeftOutWhole) {
    SoundTimeline timeline(0.0);
    EXPECT_EQ(Place(timeline, 1000, 1000, 1.0), "block");
    EXPECT_EQ(Place(timeline, 100, 1000, 0.4), ""); // 0.3 to 0.4 s was written long ago
    EXPECT_DOUBLE_EQ(timeline.soundLeftOut(), 0.1);
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 1.0);
    // The run stays anchored: a block 30 ms late is still smoothed on, not padded.
    EXPECT_EQ(Place(timeline, 10, 1000, 1.04), "block");
}

TEST(SoundTimelineGaps, LongSilenceRepeatsOneCachedTenSecondBlock) {
    SoundTimeline timeline(0.0);
    Pieces first = timeline.piecesForSound(Ramp(480, 48000), 25.01);
    ASSERT_EQ(Shape(first, nullptr), "silence:480000 silence:480000 silence:240000 480@1");
    EXPECT_EQ(first[1], first[0]);
    EXPECT_DOUBLE_EQ(timeline.silenceAdded(), 25);

    // A later gap of the same run reuses the very same block: 12 s = 10 s + 2 s.
    Pieces later = timeline.piecesForSound(Ramp(480, 48000), 37.02);
    ASSERT_EQ(Shape(later, nullptr), "silence:480000 silence:96000 480@1");
    EXPECT_EQ(later[0], first[0]);
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 37.02);

    // Exactly ten seconds is one whole block, the cached one.
    SoundTimeline exact(0.0);
    Pieces tenSeconds = exact.piecesForSound(Ramp(1000, 1000), 11.0);
    ASSERT_EQ(Shape(tenSeconds, nullptr), "silence:10000 1000@1");
    EXPECT_EQ(exact.piecesForSound(Ramp(1000, 1000), 22.0)[0], tenSeconds[0]);
}

// ---- SoundTimeline: jitter and drift -----------------------------------------------------------------

TEST(SoundTimelineSmoothing, SmallLatenessIsAbsorbedWithoutPadding) {
    SoundTimeline timeline(0.0);
    EXPECT_EQ(Place(timeline, 480, 48000, 0.01), "block");
    // 30 ms late: offset 1440 frames, weight 0.005, so the error estimate is only 7.2 frames.
    EXPECT_EQ(Place(timeline, 480, 48000, 0.05), "block");
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 0.02);
}

TEST(SoundTimelineSmoothing, ATenthOfASecondIsTheEdgeOfSmoothing) {
    SoundTimeline timeline(0.0);
    EXPECT_EQ(Place(timeline, 10, 1000, 0.01), "block");
    EXPECT_EQ(Place(timeline, 10, 1000, 0.12), "block");              // 100 frames late: smoothed
    EXPECT_EQ(Place(timeline, 10, 1000, 0.131), "silence:101 block"); // 101: re-anchored exactly
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 0.131);
}

TEST(SoundTimelineSmoothing, APersistentErrorIsCorrectedByTheSmoothedAmount) {
    // One-second blocks weigh 0.5. Two blocks 30 frames late: the estimate goes 15, then 22.5, above
    // the 20-frame limit, and 23 frames of silence are inserted; then the estimate starts over.
    SoundTimeline late(0.0);
    EXPECT_EQ(Place(late, 1000, 1000, 1.0), "block");
    EXPECT_EQ(Place(late, 1000, 1000, 2.03), "block");
    EXPECT_EQ(Place(late, 1000, 1000, 3.03), "silence:23 block");
    EXPECT_DOUBLE_EQ(late.silenceAdded(), 0.023);
    EXPECT_DOUBLE_EQ(late.writtenDuration(), 3.023);
    EXPECT_EQ(Place(late, 1000, 1000, 4.053), "block");

    // The same early: 23 frames are cut from the front.
    SoundTimeline early(0.0);
    EXPECT_EQ(Place(early, 1000, 1000, 1.0), "block");
    EXPECT_EQ(Place(early, 1000, 1000, 1.97), "block");
    EXPECT_EQ(Place(early, 1000, 1000, 2.97), "977@24");
    EXPECT_DOUBLE_EQ(early.soundLeftOut(), 0.023);
    EXPECT_DOUBLE_EQ(early.writtenDuration(), 2.977);

    // 40 frames late gives an estimate of exactly 20 frames: not beyond the limit.
    SoundTimeline edge(0.0);
    EXPECT_EQ(Place(edge, 1000, 1000, 1.0), "block");
    EXPECT_EQ(Place(edge, 1000, 1000, 2.04), "block");
}

TEST(SoundTimelineSmoothing, LongBlocksWeighAtMostOne) {
    // Four-second blocks would weigh 2; capped at 1, an error of 50 frames is taken as it is.
    SoundTimeline timeline(0.0);
    EXPECT_EQ(Place(timeline, 4000, 1000, 4.0), "block");
    EXPECT_EQ(Place(timeline, 4000, 1000, 8.05), "silence:50 block");
}

// ---- SoundTimeline: runs and refusals ----------------------------------------------------------------

TEST(SoundTimelineRuns, ANewRateStartsARunThatIsAnchoredAfresh) {
    SoundTimeline timeline(0.0);
    EXPECT_EQ(Place(timeline, 4800, 48000, 0.2), "silence:4800 block");
    // 50 ms late at the new rate: at the old rate that would have been smoothed away; a new run places
    // it exactly, with 2205 frames of silence at 44100.
    Pieces pieces = timeline.piecesForSound(Ramp(4410, 44100), 0.35);
    EXPECT_EQ(Shape(pieces, nullptr), "silence:2205 4410@1");
    EXPECT_EQ(pieces[0]->sampleRate(), 44100);
    EXPECT_EQ(timeline.rate(), 44100);
    // Totals carry over from the first run.
    EXPECT_DOUBLE_EQ(timeline.silenceAdded(), 0.15);
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 0.35);
}

TEST(SoundTimelineRuns, StartingARunKeepsTheTotalsInSeconds) {
    SoundTimeline timeline(0.0);
    timeline.startRunAtRate(1000);
    EXPECT_EQ(Place(timeline, 1000, 1000, 1.5), "silence:500 block");
    EXPECT_EQ(Place(timeline, 100, 1000, 0.3), "");
    timeline.startRunAtRate(48000);
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 1.5);
    EXPECT_DOUBLE_EQ(timeline.silenceAdded(), 0.5);
    EXPECT_DOUBLE_EQ(timeline.soundLeftOut(), 0.1);
    // The first block of the new run is placed against where the track really is.
    EXPECT_EQ(Place(timeline, 480, 48000, 1.61), "silence:4800 block");
}

TEST(SoundTimelineRefusals, BlocksWithoutAUsableTimeChangeNothing) {
    SoundTimeline timeline(0.0);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    for (double time : {nan, inf, -inf, 86400.02, -86400.0})
        EXPECT_EQ(Place(timeline, 480, 48000, time), "") << time;
    EXPECT_TRUE(timeline.piecesForSound(nullptr, 1.0).empty());
    // Refused before the rate is looked at.
    EXPECT_EQ(timeline.rate(), 0);
    EXPECT_EQ(timeline.writtenDuration(), 0);
    EXPECT_EQ(timeline.soundLeftOut(), 0);

    // Just under a day away is a real gap: 8639 ten-second blocks, 9.99 s, the block.
    EXPECT_EQ(timeline.piecesForSound(Ramp(480, 48000), 86400.0).size(), 8641u);
    EXPECT_DOUBLE_EQ(timeline.writtenDuration(), 86400.0);
}

TEST(SoundTimelineRefusals, SilenceThatCannotBeAllocatedRefusesTheBlock) {
    std::mutex lock;
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) {
        std::lock_guard guard(lock);
        lines.push_back(line);
    });
    // At this rate a one-second gap is more frames than memory can hold.
    SoundTimeline timeline(0.0);
    EXPECT_EQ(Place(timeline, 1, 2e18, 1.0), "");
    SetLogSink({});
    EXPECT_EQ(timeline.writtenDuration(), 0);
    EXPECT_EQ(timeline.silenceAdded(), 0);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("SoundTimeline: No memory for ", 0), 0u) << lines[0];
}

} // namespace
} // namespace quorva
