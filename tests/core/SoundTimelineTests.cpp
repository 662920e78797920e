#include "core/movie/SoundTimeline.h"

#include "platform/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace quorva {
namespace {

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
constexpr double Inf = std::numeric_limits<double>::infinity();

// A block whose left samples count up from 1 and right samples count down from -1, so that where its
// frames went can be read back.
std::shared_ptr<SourceSound> Ramp(uint64_t frameCount, double rate) {
    std::vector<float> samples;
    for (uint64_t i = 0; i < frameCount; ++i)
        samples.insert(samples.end(), {1 + float(i), -1 - float(i)});
    return SourceSound::soundWithInterleavedStereoSamples(samples.data(), frameCount, rate);
}

std::vector<float> Samples(const SourceSound& sound) {
    return std::vector<float>(sound.samples(), sound.samples() + 2 * sound.frameCount());
}

using Pieces = std::vector<std::shared_ptr<SourceSound>>;

// What a placement gave, a word a piece: "block" for `block` itself, "silence:N" for N frames of zeros,
// "N@V" for N frames whose first left sample is V (a ramp's frame V − 1).
std::string Shape(const Pieces& pieces, const std::shared_ptr<SourceSound>& block) {
    std::string shape;
    for (const auto& piece : pieces) {
        std::vector<float> samples = Samples(*piece);
        shape += shape.empty() ? "" : " ";
        if (piece == block)
            shape += "block";
        else if (std::all_of(samples.begin(), samples.end(), [](float s) { return s == 0; }))
            shape += "silence:" + std::to_string(piece->frameCount());
        else
            shape += std::to_string(piece->frameCount()) + "@" + std::to_string(int(samples[0]));
    }
    return shape;
}

// Places a fresh ramp of `frameCount` frames arriving at `time` and describes what came out.
std::string Place(SoundTimeline& timeline, uint64_t frameCount, double rate, double time) {
    auto block = Ramp(frameCount, rate);
    Pieces pieces = timeline.piecesForSound(block, time);
    for (const auto& piece : pieces)
        EXPECT_EQ(piece->sampleRate(), rate) << "silence at the block's rate";
    return Shape(pieces, block);
}

TEST(SourceSound, ChannelsAreInterleavedAcrossTheStrideAndCopiedAndBadArgumentsGiveNothing) {
    const float planar[] = {1, 2, 3, 99, 4, 5, 6, 99, 7, 8, 9, 99}, packed[] = {1, 2, 3, 4, 5, 6};
    auto expect = [](const float* samples, uint64_t channels, uint64_t stride, std::vector<float> expected) {
        auto sound = SourceSound::soundWithPlanarSamples(samples, channels, 3, stride, 44100);
        ASSERT_TRUE(sound) << channels << " channels, stride " << stride;
        EXPECT_EQ(Samples(*sound), expected) << channels << " channels, stride " << stride;
    };
    // Two channels of three frames, each padded to four floats; a third channel is ignored; a single
    // channel goes to both sides, whatever its stride; packed channels have a stride of one channel.
    expect(planar, 2, 16, {1, 4, 2, 5, 3, 6});
    expect(planar, 3, 16, {1, 4, 2, 5, 3, 6});
    expect(planar, 1, 0, {1, 1, 2, 2, 3, 3});
    expect(packed, 2, 12, {1, 4, 2, 5, 3, 6});

    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(nullptr, 2, 3, 12, 48000));
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 0, 3, 12, 48000));
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 2, 0, 12, 48000));
    for (double rate : {0.0, -48000.0, NaN, Inf})
        EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 2, 3, 12, rate)) << rate;
    // Channels that would overlap, or a stride that splits a sample.
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 2, 3, 8, 48000));
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 2, 3, 14, 48000));
    // Refused before anything is read: the array is far shorter than the count; the largest count
    // passes the checks but can never be allocated.
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 1, uint64_t(1) << 61, 0, 48000));
    EXPECT_FALSE(SourceSound::soundWithPlanarSamples(planar, 1, (uint64_t(1) << 61) - 1, 0, 48000));

    // Interleaved samples are copied; tails share nothing but their frames.
    std::vector<float> samples{1, -1, 2, -2, 3, -3, 4, -4};
    auto sound = SourceSound::soundWithInterleavedStereoSamples(samples.data(), 4, 400);
    ASSERT_TRUE(sound);
    samples[0] = 7; // the block owns its own copy
    EXPECT_EQ(Samples(*sound), (std::vector<float>{1, -1, 2, -2, 3, -3, 4, -4}));
    EXPECT_FALSE(SourceSound::soundWithInterleavedStereoSamples(nullptr, 2, 48000));
    EXPECT_FALSE(SourceSound::soundWithInterleavedStereoSamples(samples.data(), 0, 48000));
    EXPECT_FALSE(SourceSound::soundWithInterleavedStereoSamples(samples.data(), 2, 0));
    EXPECT_FALSE(SourceSound::soundWithInterleavedStereoSamples(samples.data(), uint64_t(1) << 61, 48000));

    // A tail's frames and rate are the timeline's case of a block that began before its origin.
    EXPECT_EQ(sound->soundFromFrame(0), sound);
    EXPECT_FALSE(sound->soundFromFrame(4));
    // Silence itself, and its refusal for want of memory, are the timeline's cases below: a zero-length
    // one is made all the same.
    EXPECT_EQ(SourceSound::silenceOfFrameCount(0, 48000)->frameCount(), 0u);
}

// Plays `script`, steps separated by ";": "F R T = SHAPE" places a ramp of F frames at rate R that
// arrived at T and expects SHAPE; "rate R" starts a run.
void Play(SoundTimeline& timeline, const std::string& script) {
    std::istringstream steps(script);
    for (std::string step; std::getline(steps, step, ';');) {
        std::istringstream in(step);
        std::string word, shape;
        uint64_t frames = 0;
        double rate = 0, time = 0;
        if (step.find("rate") != std::string::npos) {
            in >> word >> rate;
            timeline.startRunAtRate(rate);
            continue;
        }
        in >> frames >> rate >> time >> word;
        std::getline(in >> std::ws, shape);
        EXPECT_EQ(Place(timeline, frames, rate, time), shape) << step;
    }
}

TEST(SoundTimeline, PlacesEachBlockAnchoringSmoothingAndStartingRuns) {
    struct Case {
        const char* name;
        double origin;
        const char* script;
        double written, silence, leftOut;
    };
    const Case cases[] = {
        // 10 ms arriving 1.51 s after the origin began 1.5 s in.
        {"first block", 100, "480 48000 101.51 = silence:72000 block", 1.51, 1.5, 0},
        // One second ending 0.4 s after the origin: its first 600 frames are before movie time 0.
        {"began before the origin", 50, "1000 1000 50.4 = 400@601", 0.4, 0, 0.6},
        // A block that ended before the origin does not anchor: the next one is placed exactly, not
        // smoothed onto the end of the empty track.
        {"stale", 0, "100 1000 -0.5 =; 100 1000 0.15 = silence:50 block", 0.15, 0.05, 0.1},
        // 0.3 to 0.4 s was written long ago; the run stays anchored, so 30 ms late is still smoothed.
        {"older than the track", 0, "1000 1000 1 = block; 100 1000 0.4 =; 10 1000 1.04 = block", 1.01, 0,
         0.1},
        // 30 ms late: offset 1440 frames, weight 0.005, so the error estimate is only 7.2 frames.
        {"jitter", 0, "480 48000 0.01 = block; 480 48000 0.05 = block", 0.02, 0, 0},
        // 100 frames late is smoothed, 101 re-anchors exactly.
        {"edge of smoothing", 0,
         "10 1000 0.01 = block; 10 1000 0.12 = block; 10 1000 0.131 = silence:101 block", 0.131, 0.101, 0},
        // One-second blocks weigh 0.5. 30 frames late twice: the estimate goes 15, then 22.5, above the
        // 20-frame limit, and 23 frames are inserted; then the estimate starts over.
        {"persistently late", 0,
         "1000 1000 1 = block; 1000 1000 2.03 = block; 1000 1000 3.03 = silence:23 block; "
         "1000 1000 4.053 = block",
         4.023, 0.023, 0},
        {"persistently early", 0, "1000 1000 1 = block; 1000 1000 1.97 = block; 1000 1000 2.97 = 977@24",
         2.977, 0, 0.023},
        // 40 frames late gives an estimate of exactly 20 frames: not beyond the limit.
        {"estimate at the limit", 0, "1000 1000 1 = block; 1000 1000 2.04 = block", 2, 0, 0},
        // Four-second blocks would weigh 2; capped at 1, an error of 50 frames is taken as it is.
        {"long blocks", 0, "4000 1000 4 = block; 4000 1000 8.05 = silence:50 block", 8.05, 0.05, 0},
        // 50 ms late at a new rate would be smoothed at the old one; a new run places it exactly.
        {"new rate", 0, "4800 48000 0.2 = silence:4800 block; 4410 44100 0.35 = silence:2205 block", 0.35,
         0.15, 0},
        // Totals carry over in seconds, and the new run is placed against where the track really is.
        {"new run", 0,
         "rate 1000; 1000 1000 1.5 = silence:500 block; 100 1000 0.3 =; rate 48000; "
         "480 48000 1.61 = silence:4800 block",
         1.61, 0.6, 0.1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SoundTimeline timeline(c.origin);
        Play(timeline, c.script);
        EXPECT_DOUBLE_EQ(timeline.writtenDuration(), c.written);
        EXPECT_DOUBLE_EQ(timeline.silenceAdded(), c.silence);
        EXPECT_DOUBLE_EQ(timeline.soundLeftOut(), c.leftOut);
    }
}

TEST(SoundTimeline, LongSilenceRepeatsOneCachedTenSecondBlock) {
    SoundTimeline timeline(0.0);
    Pieces first = timeline.piecesForSound(Ramp(480, 48000), 25.01);
    ASSERT_EQ(Shape(first, nullptr), "silence:480000 silence:480000 silence:240000 480@1");
    EXPECT_EQ(first[1], first[0]);
    // A later gap of the same run reuses the very same block: 12 s = 10 s + 2 s.
    Pieces later = timeline.piecesForSound(Ramp(480, 48000), 37.02);
    ASSERT_EQ(Shape(later, nullptr), "silence:480000 silence:96000 480@1");
    EXPECT_EQ(later[0], first[0]);
    EXPECT_DOUBLE_EQ(timeline.silenceAdded(), 37);

    // Exactly ten seconds is one whole block, the cached one.
    SoundTimeline exact(0.0);
    Pieces tenSeconds = exact.piecesForSound(Ramp(1000, 1000), 11.0);
    ASSERT_EQ(Shape(tenSeconds, nullptr), "silence:10000 1000@1");
    EXPECT_EQ(exact.piecesForSound(Ramp(1000, 1000), 22.0)[0], tenSeconds[0]);
}

TEST(SoundTimeline, BlocksWithoutAUsableTimeOrMemoryForTheirSilenceChangeNothing) {
    SoundTimeline timeline(0.0);
    for (double time : {NaN, Inf, -Inf, 86400.02, -86400.0})
        EXPECT_EQ(Place(timeline, 480, 48000, time), "") << time;
    EXPECT_TRUE(timeline.piecesForSound(nullptr, 1.0).empty());
    // Refused before the rate is looked at.
    EXPECT_EQ(std::tuple(timeline.rate(), timeline.writtenDuration(), timeline.soundLeftOut()),
              std::tuple(0, 0, 0));
    // Just under a day away is a real gap: 8639 ten-second blocks, 9.99 s, the block.
    EXPECT_EQ(timeline.piecesForSound(Ramp(480, 48000), 86400.0).size(), 8641u);

    // At this rate a one-second gap is more frames than memory can hold.
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) { lines.push_back(line); });
    SoundTimeline huge(0.0);
    EXPECT_EQ(Place(huge, 1, 2e18, 1.0), "");
    SetLogSink({});
    EXPECT_EQ(std::tuple(huge.writtenDuration(), huge.silenceAdded()), std::tuple(0, 0));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("SoundTimeline: No memory for ", 0), 0u) << lines[0];
}

} // namespace
} // namespace quorva
