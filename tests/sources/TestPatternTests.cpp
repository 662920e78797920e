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
        auto device = testing::SharedDevice();
        ASSERT_TRUE(device);
        auto made = CommandQueue::make(device);
        ASSERT_TRUE(made);
        queue = made.value();
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

    // The columns of the moving square, found along its middle row.
    static std::pair<int, int> SquareColumns(const Pixels& pixels, const TestPatternGeometry& geometry,
                                             Pixel colour) {
        uint32_t y = uint32_t(geometry.squareTop + geometry.squareSide / 2);
        int first = -1, last = -1;
        for (uint32_t x = 0; x < uint32_t(geometry.width); ++x) {
            if (pixels.at(x, y) == colour) {
                if (first < 0)
                    first = int(x);
                last = int(x);
            }
        }
        return {first, last};
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

TEST_F(TestPatternTest, TheSquareMovesEveryFrame) {
    auto source = pattern(1280, 720, false);
    ASSERT_TRUE(source);
    const TestPatternGeometry& geometry = source->geometry();
    std::pair<int, int> previous{-1, -1};
    for (uint64_t frame : {0ull, 1ull, 2ull, 100ull}) {
        auto picture = source->drawFrame(frame);
        ASSERT_TRUE(picture);
        auto columns = SquareColumns(Pixels(picture.value()), geometry, White);
        Rect expected = geometry.squareAt(frame);
        EXPECT_EQ(columns, std::make_pair(int(expected.x), int(expected.x + expected.width) - 1)) << frame;
        EXPECT_NE(columns, previous) << frame;
        previous = columns;
    }
    // At the end of its travel it starts again from the left.
    uint64_t positions = uint64_t((geometry.width - geometry.squareSide) / geometry.squareStep) + 1;
    EXPECT_EQ(geometry.squareAt(positions).x, 0);
}

TEST_F(TestPatternTest, DrawsSevenColourBarsAboveAnOpaqueGround) {
    auto source = pattern(1920, 1080, false);
    ASSERT_TRUE(source);
    auto picture = source->drawFrame(7);
    ASSERT_TRUE(picture);
    Pixels pixels(picture.value());
    const TestPatternGeometry& geometry = source->geometry();
    // 75 %: white, yellow, cyan, green, magenta, red, blue (as blue, green, red, alpha).
    const Pixel bars[7] = {{191, 191, 191, 255}, {0, 191, 191, 255}, {191, 191, 0, 255}, {0, 191, 0, 255},
                           {191, 0, 191, 255},   {0, 0, 191, 255},   {191, 0, 0, 255}};
    uint32_t y = uint32_t(geometry.counter().y / 2); // above the counter's box
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(pixels.at(uint32_t((i + 0.5) * 1920 / 7), y), bars[i]) << "bar " << i;
    EXPECT_EQ(pixels.at(1919, uint32_t(geometry.barsBottom) - 1), bars[6]);
    EXPECT_EQ(pixels.at(1919, uint32_t(geometry.barsBottom)), (Pixel{38, 38, 38, 255}));
    EXPECT_EQ(pixels.at(1919, 1079), (Pixel{38, 38, 38, 255}));
}

TEST_F(TestPatternTest, TheTransparentVariantHasAClearGroundAndAHalfTransparentSquare) {
    auto source = pattern(1280, 720, true);
    ASSERT_TRUE(source);
    EXPECT_TRUE(source->isTransparent());
    auto picture = source->drawFrame(0);
    ASSERT_TRUE(picture);
    Pixels pixels(picture.value());
    const TestPatternGeometry& geometry = source->geometry();
    EXPECT_EQ(pixels.at(1279, 719), (Pixel{0, 0, 0, 0}));
    EXPECT_EQ(pixels.at(640, uint32_t(geometry.barsBottom)), (Pixel{0, 0, 0, 0}));
    EXPECT_EQ(pixels.at(0, 0).a, 255) << "the bars stay opaque";
    Pixel square = pixels.at(uint32_t(geometry.squareSide / 2), uint32_t(geometry.squareTop + 1));
    EXPECT_EQ(square.r, 255);
    EXPECT_NEAR(square.a, 128, 1);
    EXPECT_EQ(Digits(pixels, geometry), "00000000");
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

TEST_F(TestPatternTest, RefusesSizesItCannotDraw) {
    EXPECT_FALSE(TestPattern::make(queue, 0, 1080, false));
    EXPECT_FALSE(TestPattern::make(queue, 1920, 8, false));
    EXPECT_FALSE(TestPattern::make(queue, queue->device()->maximumTextureSize() + 1, 1080, false));
}

} // namespace
} // namespace quorva
