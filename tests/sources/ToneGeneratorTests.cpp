#include "sources/ToneGenerator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace quorva {
namespace {

// The left channel of blocks of these sizes, one after the other, checking that both channels match.
std::vector<float> Generate(ToneGenerator& generator, const std::vector<uint64_t>& blocks) {
    std::vector<float> left;
    for (uint64_t frames : blocks) {
        auto sound = generator.nextSound(frames);
        EXPECT_TRUE(sound);
        if (!sound)
            continue;
        EXPECT_EQ(sound->frameCount(), frames);
        for (uint64_t i = 0; i < frames; ++i) {
            EXPECT_EQ(sound->samples()[2 * i], sound->samples()[2 * i + 1]) << "frame " << i;
            left.push_back(sound->samples()[2 * i]);
        }
    }
    return left;
}

TEST(ToneGenerator, BlocksJoinWithoutASeamWhereverTheyAreCut) {
    ToneGenerator whole, pieces;
    std::vector<float> once = Generate(whole, {2 * 48000 + 500});
    // Cuts inside a tone period, inside the click, and right at a second.
    std::vector<float> cut = Generate(pieces, {1, 47, 10, 479, 47463, 20, 48000, 480});
    EXPECT_EQ(cut, once) << "first apart at frame " << std::ranges::mismatch(cut, once).in1 - cut.begin();
    EXPECT_EQ(pieces.nextSound(0), nullptr);
    EXPECT_EQ(pieces.position(), 2 * 48000 + 500u) << "after the blocks, and an empty one adds nothing";
}

TEST(ToneGenerator, IsAThousandHertzToneAtAQuarterOfFullScaleWithAOneMillisecondClickEverySecond) {
    ToneGenerator generator;
    // A block boundary falls inside the second click: it is placed by the frame's index all the same.
    std::vector<float> left = Generate(generator, {48010, 48000, 100});
    // From 0.1 s to 0.9 s, between the clicks: where the tone crosses zero upwards, to a fraction of a
    // frame, gives its frequency.
    std::vector<double> crossings;
    float peak = 0;
    for (size_t i = 4800; i < 43200; ++i) {
        if (left[i - 1] < 0 && left[i] >= 0)
            crossings.push_back(double(i - 1) + left[i - 1] / (left[i - 1] - left[i]));
        peak = std::max(peak, std::abs(left[i]));
    }
    ASSERT_EQ(crossings.size(), 800u);
    double frequency = (crossings.size() - 1) / (crossings.back() - crossings.front()) * 48000;
    EXPECT_NEAR(frequency, 1000, 0.01);
    EXPECT_NEAR(peak, 0.25, 0.001);

    // Loud in the first millisecond of each second, and nowhere else.
    size_t misplaced = 0;
    for (size_t i = 0; i < left.size(); ++i)
        misplaced += (std::abs(left[i]) > 0.5f) != (i % 48000 < 48);
    EXPECT_EQ(misplaced, 0u) << "samples loud outside the clicks or quiet inside them";
    // Up, then down: a click without a lasting offset.
    EXPECT_GT(left[48000], 0.5f);
    EXPECT_LT(left[48047], -0.5f);
    EXPECT_EQ(ToneGenerator::sampleAt(uint64_t(48000) * 3600 * 24), left[0]) << "a day later, the same";
}

} // namespace
} // namespace quorva
