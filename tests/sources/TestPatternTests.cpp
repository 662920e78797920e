#include "sources/TestPattern.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

namespace quorva {
namespace {

using testing::Pixel;
using testing::Pixels;
using testing::ReadPixels;

constexpr Pixel White{255, 255, 255, 255};
constexpr Pixel Black{0, 0, 0, 255};

std::shared_ptr<TestPattern> Pattern(uint32_t width, uint32_t height, bool transparent) {
    auto made = TestPattern::make(width, height, transparent);
    EXPECT_TRUE(made) << made.error().message();
    return made.value();
}

// Frame `frame` of `pattern`. Either helper fails the test where it cannot make what it is asked for: the
// failure says why, and the value() of an error throws, which ends the test.
std::shared_ptr<MemoryPicture> Draw(TestPattern& pattern, uint64_t frame) {
    auto drawn = pattern.drawFrame(frame);
    EXPECT_TRUE(drawn) << drawn.error().message();
    return drawn.value();
}

// How many places the square stops at before it starts again from the left.
uint64_t SquarePositions(const TestPatternGeometry& geometry) {
    return uint64_t((geometry.width - geometry.squareSide) / geometry.squareStep) + 1;
}

// Reads the digits back the way a person would: which of each digit's seven segments are lit.
std::string Digits(const Pixels& pixels, const TestPatternGeometry& geometry) {
    static const uint8_t Shapes[10] = {0x3F, 0x06, 0x5B, 0x4F, 0x66, 0x6D, 0x7D, 0x07, 0x7F, 0x6F};
    std::string digits;
    for (int i = 0; i < TestPatternGeometry::Digits; ++i) {
        Rect cell = geometry.digit(i);
        double w = cell.width, h = cell.height, s = geometry.stroke;
        // The middle of each segment: a (top), b, c (right), d (bottom), e, f (left), g (middle).
        double points[7][2] = {{w / 2, s / 2},     {w - s / 2, h / 4}, {w - s / 2, 3 * h / 4},
                               {w / 2, h - s / 2}, {s / 2, 3 * h / 4}, {s / 2, h / 4},
                               {w / 2, h / 2}};
        uint8_t shape = 0;
        for (int segment = 0; segment < 7; ++segment) {
            Pixel pixel =
                pixels.at(uint32_t(cell.x + points[segment][0]), uint32_t(cell.y + points[segment][1]));
            if (pixel == White)
                shape |= uint8_t(1 << segment);
            else if (pixel != Black)
                return "not a digit at " + std::to_string(i);
        }
        auto found = std::find(std::begin(Shapes), std::end(Shapes), shape);
        digits += found == std::end(Shapes) ? '?' : char('0' + (found - std::begin(Shapes)));
    }
    return digits;
}

// Between them the frames show every digit, and a number beyond eight digits showing its last eight; the
// first three show the square moving every frame. Sizes that cannot be drawn are refused.
TEST(TestPatternTest, ShowsTheFrameNumberInDigitsThatReadBackAndASquareThatMovesEveryFrame) {
    for (auto [width, height] : {std::pair{0u, 1080u}, {1920u, 8u}, {16385u, 1080u}})
        EXPECT_FALSE(TestPattern::make(width, height, false)) << width << " × " << height;
    for (auto [width, height] : {std::pair{1920u, 1080u}, std::pair{1280u, 720u}, std::pair{640u, 360u}}) {
        SCOPED_TRACE(::testing::Message() << width << " × " << height);
        auto source = Pattern(width, height, false);
        const TestPatternGeometry& geometry = source->geometry();
        std::pair<int, int> previous{-1, -1};
        for (uint64_t frame : {0ull, 1ull, 2ull, 90817263ull, 45ull, 12345678954ull}) {
            const Pixels pixels = ReadPixels(*Draw(*source, frame));
            std::string expected = std::to_string(frame % 100000000);
            expected.insert(0, 8 - expected.size(), '0');
            EXPECT_EQ(Digits(pixels, geometry), expected);
            // The columns of the square, found along its middle row.
            std::pair<int, int> columns{-1, -1};
            for (uint32_t x = 0; x < width; ++x) {
                if (pixels.at(x, uint32_t(geometry.squareTop + geometry.squareSide / 2)) == White)
                    columns = {columns.first < 0 ? int(x) : columns.first, int(x)};
            }
            Rect square = geometry.squareAt(frame);
            EXPECT_EQ(columns, std::make_pair(int(square.x), int(square.x + square.width) - 1)) << frame;
            if (frame <= 2) {
                EXPECT_NE(columns, previous) << "the square stays put at frame " << frame;
            }
            previous = columns;
        }
        // At the end of its travel it starts again from the left.
        EXPECT_EQ(geometry.squareAt(SquarePositions(geometry)).x, 0);
    }
}

TEST(TestPatternTest, DrawsSevenOpaqueColourBarsAboveAnOpaqueOrAClearGroundWithItsSquareHalfSeeThrough) {
    // 75 %: white, yellow, cyan, green, magenta, red, blue (as blue, green, red, alpha).
    const Pixel bars[7] = {{191, 191, 191, 255}, {0, 191, 191, 255}, {191, 191, 0, 255}, {0, 191, 0, 255},
                           {191, 0, 191, 255},   {0, 0, 191, 255},   {191, 0, 0, 255}};
    for (bool transparent : {false, true}) {
        SCOPED_TRACE(transparent ? "transparent" : "opaque");
        auto source = Pattern(1920, 1080, transparent);
        auto picture = Draw(*source, 7);
        Pixels pixels = ReadPixels(*picture);
        const TestPatternGeometry& geometry = source->geometry();
        uint32_t y = uint32_t(geometry.counter().y / 2); // above the counter's box
        for (int i = 0; i < 7; ++i)
            EXPECT_EQ(pixels.at(uint32_t((i + 0.5) * 1920 / 7), y), bars[i]) << "bar " << i;
        const Pixel ground = transparent ? Pixel{0, 0, 0, 0} : Pixel{38, 38, 38, 255};
        EXPECT_EQ(pixels.at(1919, uint32_t(geometry.barsBottom) - 1), bars[6]);
        EXPECT_EQ(pixels.at(1919, uint32_t(geometry.barsBottom)), ground);
        EXPECT_EQ(pixels.at(1919, 1079), ground);
        Rect square = geometry.squareAt(7);
        Pixel inside = pixels.at(uint32_t(square.x + square.width / 2), uint32_t(geometry.squareTop + 1));
        EXPECT_EQ(inside.r, 255);
        EXPECT_NEAR(inside.a, transparent ? 128 : 255, 1);
        EXPECT_EQ(Digits(pixels, geometry), "00000007");
    }
}

TEST(TestPatternTest, DrawsIntoAPictureAgainOnlyOnceNobodyHoldsIt) {
    auto source = Pattern(64, 36, false);
    auto first = Draw(*source, 1);
    const std::vector<uint8_t> shown = first->readPixels(0, 0, 64, 36).value();
    auto second = Draw(*source, 2);
    EXPECT_EQ(first->readPixels(0, 0, 64, 36).value(), shown) << "the first, still held here, shows frame 1";
}

// A picture that comes round again has only what moved drawn anew: it must then hold exactly what a
// fresh pattern draws for that frame, whatever frame it showed before. Frames whose squares overlap,
// lie apart, or wrap round to the left edge, and counters that change one digit or all eight.
TEST(TestPatternTest, APictureDrawnAgainHoldsWhatAFreshPatternDrawsForItsNewFrame) {
    const std::pair<uint64_t, uint64_t> changes[] = {
        {5, 6}, {0, 100}, {100, 3}, {99999999, 100000000}, {12345678, 87654321}};
    for (bool transparent : {false, true}) {
        auto reused = Pattern(320, 180, transparent);
        const uint64_t positions = SquarePositions(reused->geometry());
        std::vector<std::pair<uint64_t, uint64_t>> cases(std::begin(changes), std::end(changes));
        cases.emplace_back(positions - 1, positions); // from the right edge back to the left
        for (auto [before, after] : cases) {
            SCOPED_TRACE(::testing::Message() << (transparent ? "transparent, " : "opaque, ") << "frame "
                                              << before << " then " << after);
            auto earlier = Draw(*reused, before);
            std::weak_ptr<MemoryPicture> shown = earlier;
            earlier.reset();
            auto again = Draw(*reused, after);
            ASSERT_FALSE(shown.owner_before(again) || again.owner_before(shown))
                << "the picture did not come round again";

            auto fresh = Pattern(320, 180, transparent);
            auto expected = Draw(*fresh, after);
            const std::vector<uint8_t> drawn = again->readPixels(0, 0, 320, 180).value(),
                                       wanted = expected->readPixels(0, 0, 320, 180).value();
            const auto apart = (std::ranges::mismatch(drawn, wanted).in1 - drawn.begin()) / 4;
            EXPECT_TRUE(drawn == wanted) << "first apart at " << apart % 320 << ", " << apart / 320;
        }
    }
}

} // namespace
} // namespace quorva
