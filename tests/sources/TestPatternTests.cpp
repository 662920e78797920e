#include "sources/TestPattern.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <future>
#include <set>
#include <string>

namespace quorva {
namespace {

using testing::Pixel;
using testing::Pixels;

constexpr Pixel White{255, 255, 255, 255};
constexpr Pixel Black{0, 0, 0, 255};

class TestPatternTest : public ::testing::Test {
protected:
    void SetUp() override {
        queue = testing::MakeQueue();
        ASSERT_TRUE(queue);
    }

    std::shared_ptr<TestPattern> pattern(uint32_t width, uint32_t height, bool transparent) {
        auto made = TestPattern::make(queue, width, height, transparent);
        EXPECT_TRUE(made) << made.error().message();
        return made ? made.value() : nullptr;
    }

    // Reads the digits back the way a person would: which of each digit's seven segments are lit.
    static std::string Digits(const Pixels& pixels, const TestPatternGeometry& geometry) {
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

    std::shared_ptr<CommandQueue> queue;
};

TEST_F(TestPatternTest, ShowsTheFrameNumberInDigitsThatReadBack) {
    for (auto [width, height] : {std::pair{1920u, 1080u}, std::pair{1280u, 720u}, std::pair{640u, 360u}}) {
        auto source = pattern(width, height, false);
        ASSERT_TRUE(source);
        // Between them every digit, and a number beyond eight digits showing its last eight.
        for (uint64_t frame : {90817263ull, 45ull, 12345678954ull}) {
            auto picture = source->drawFrame(frame);
            ASSERT_TRUE(picture);
            Pixels pixels(picture.value());
            std::string expected = std::to_string(frame % 100000000);
            expected.insert(0, 8 - expected.size(), '0');
            EXPECT_EQ(Digits(pixels, source->geometry()), expected) << width << " × " << height;
        }
    }
}

TEST_F(TestPatternTest, TheSquareMovesEveryFrameAndSizesThatCannotBeDrawnAreRefused) {
    EXPECT_FALSE(TestPattern::make(queue, 0, 1080, false));
    EXPECT_FALSE(TestPattern::make(queue, 1920, 8, false));
    EXPECT_FALSE(TestPattern::make(queue, queue->device()->maximumTextureSize() + 1, 1080, false));
    auto source = pattern(1280, 720, false);
    ASSERT_TRUE(source);
    const TestPatternGeometry& geometry = source->geometry();
    std::pair<int, int> previous{-1, -1};
    for (uint64_t frame : {0ull, 1ull, 2ull, 100ull}) {
        auto picture = source->drawFrame(frame);
        ASSERT_TRUE(picture);
        // The columns of the square, found along its middle row.
        Pixels pixels(picture.value());
        std::pair<int, int> columns{-1, -1};
        for (uint32_t x = 0; x < uint32_t(geometry.width); ++x) {
            if (pixels.at(x, uint32_t(geometry.squareTop + geometry.squareSide / 2)) == White)
                columns = {columns.first < 0 ? int(x) : columns.first, int(x)};
        }
        Rect expected = geometry.squareAt(frame);
        EXPECT_EQ(columns, std::make_pair(int(expected.x), int(expected.x + expected.width) - 1)) << frame;
        EXPECT_NE(columns, previous) << frame;
        previous = columns;
    }
    // At the end of its travel it starts again from the left.
    uint64_t positions = uint64_t((geometry.width - geometry.squareSide) / geometry.squareStep) + 1;
    EXPECT_EQ(geometry.squareAt(positions).x, 0);
}

TEST_F(TestPatternTest, DrawsSevenOpaqueColourBarsAboveAnOpaqueOrAClearGroundWithItsSquareHalfSeeThrough) {
    // 75 %: white, yellow, cyan, green, magenta, red, blue (as blue, green, red, alpha).
    const Pixel bars[7] = {{191, 191, 191, 255}, {0, 191, 191, 255}, {191, 191, 0, 255}, {0, 191, 0, 255},
                           {191, 0, 191, 255},   {0, 0, 191, 255},   {191, 0, 0, 255}};
    for (bool transparent : {false, true}) {
        SCOPED_TRACE(transparent ? "transparent" : "opaque");
        auto source = pattern(1920, 1080, transparent);
        ASSERT_TRUE(source);
        auto picture = source->drawFrame(7);
        ASSERT_TRUE(picture);
        Pixels pixels(picture.value());
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

TEST_F(TestPatternTest, DrawsIntoATextureAgainOnlyOnceNobodyHoldsIt) {
    auto source = pattern(64, 36, false);
    ASSERT_TRUE(source);
    std::promise<std::shared_ptr<Texture>> completed;
    auto first =
        source->drawFrame(1, [&](const std::shared_ptr<Texture>& drawn) { completed.set_value(drawn); });
    ASSERT_TRUE(first);
    EXPECT_EQ(completed.get_future().get(), first.value());
    auto second = source->drawFrame(2);
    ASSERT_TRUE(second);
    EXPECT_NE(second.value(), first.value()) << "the first is still held here";

    // Let go of each picture once drawn: the few textures come round again instead of piling up.
    std::set<Texture*> seen;
    for (uint64_t frame = 3; frame < 23; ++frame) {
        std::promise<void> drawn;
        auto picture = source->drawFrame(frame, [&](const std::shared_ptr<Texture>&) { drawn.set_value(); });
        ASSERT_TRUE(picture);
        seen.insert(picture.value().get());
        drawn.get_future().wait();
    }
    EXPECT_LE(seen.size(), 3u);
}

} // namespace
} // namespace quorva
