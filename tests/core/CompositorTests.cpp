#include "core/Compositor.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <future>

namespace quorva {
namespace {

using testing::MakeSolidTexture;
using testing::MakeTexture;
using testing::Pixel;
using testing::Pixels;

constexpr Pixel Black{0, 0, 0, 255};
constexpr Pixel Clear{0, 0, 0, 0};
constexpr Pixel Red{0, 0, 255, 255};
constexpr Pixel Green{0, 255, 0, 255};
constexpr int64_t Row = 0;

// One rectangle the size of the picture.
Layout Single(double width, double height) {
    return Layout(Row, {{width, height}}, 0, {});
}

class CompositorTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto queue = testing::MakeQueue();
        ASSERT_TRUE(queue);
        compositor = Compositor::make(queue);
        ASSERT_TRUE(compositor);
    }

    std::shared_ptr<Texture> compose(const Layout& layout,
                                     const std::vector<std::shared_ptr<Texture>>& textures,
                                     bool transparent = false, std::vector<bool> flipped = {}) {
        if (flipped.empty())
            flipped.assign(textures.size(), false);
        return compositor->compose(layout, textures, flipped, transparent);
    }

    // Where the colour changes along a column or a row: the first and last pixel of `colour`.
    static std::pair<int, int> Extent(const Pixels& pixels, bool column, uint32_t at, uint32_t length,
                                      Pixel colour) {
        int first = -1, last = -1;
        for (uint32_t i = 0; i < length; ++i) {
            if ((column ? pixels.at(at, i) : pixels.at(i, at)) == colour) {
                if (first < 0)
                    first = int(i);
                last = int(i);
            }
        }
        return {first, last};
    }

    std::shared_ptr<Compositor> compositor;
};

TEST_F(CompositorTest, FitsASourceRoundingItsShortSideFlooringItsOffsetAndFillingWithinAPixel) {
    // Into 1000 × 1000: 1280 × 720 is 562.5 across, 218.75 in; 1280 × 703 is 549.2 (rounded down this
    // time), 225.4 in. Into 100 × 100, 1009 × 1000 would be 99.1 across, rounded to 99, and leave the
    // last row empty: within a pixel of the rectangle's shape, a source fills it. Each source wide, then
    // turned to be tall.
    struct Case {
        uint32_t side, longSide, shortSide;
        std::pair<int, int> covered;
    };
    for (Case c : {Case{1000, 1280, 720, {218, 780}}, Case{1000, 1280, 703, {225, 773}},
                   Case{100, 1009, 1000, {0, 99}}}) {
        for (bool wide : {true, false}) {
            SCOPED_TRACE(::testing::Message()
                         << c.longSide << " × " << c.shortSide << (wide ? " wide" : " tall"));
            auto target = compose(
                Single(c.side, c.side),
                {MakeSolidTexture(wide ? c.longSide : c.shortSide, wide ? c.shortSide : c.longSide, Red)});
            ASSERT_TRUE(target);
            Pixels pixels(target);
            uint32_t middle = c.side / 2;
            EXPECT_EQ(Extent(pixels, wide, middle, c.side, Red), c.covered);
            for (int edge : {c.covered.first - 1, c.covered.second + 1}) {
                if (edge >= 0 && edge < int(c.side)) {
                    EXPECT_EQ(wide ? pixels.at(middle, edge) : pixels.at(edge, middle), Black) << edge;
                }
            }
            EXPECT_EQ(Extent(pixels, !wide, middle, c.side, Red), std::make_pair(0, int(c.side) - 1))
                << "the long side";
        }
    }
}

TEST_F(CompositorTest, DrawsEachSourceIntoItsOwnRectangleLeavingTheGapAlone) {
    // A row with a gap of 10: (0, 0, 1280, 720) and (1290, 0, 1280, 720) in 2570 × 720.
    Layout layout(Row, {{1280, 720}, {1280, 720}}, 10, {});
    auto target = compose(layout, {MakeSolidTexture(1280, 720, Red), MakeSolidTexture(640, 360, Green)});
    ASSERT_TRUE(target);
    Pixels pixels(target);
    for (uint32_t y : {0u, 359u, 719u}) {
        EXPECT_EQ(Extent(pixels, false, y, 2570, Red), std::make_pair(0, 1279)) << "row " << y;
        EXPECT_EQ(Extent(pixels, false, y, 2570, Green), std::make_pair(1290, 2569)) << "row " << y;
        EXPECT_EQ(Extent(pixels, false, y, 2570, Black), std::make_pair(1280, 1289)) << "row " << y;
    }
}

Pixel Gradient(uint32_t x, uint32_t y) {
    return {uint8_t(4 * x), uint8_t(8 * y), uint8_t(x < 32 ? 40 : 200), 255};
}

TEST_F(CompositorTest, DrawsASourcePixelForPixelAndAFlippedOneUpsideDownButNotMirrored) {
    const uint32_t width = 64, height = 32;
    auto source = MakeTexture(width, height, Gradient);
    // The completion handler gets the drawn target.
    std::promise<std::shared_ptr<Texture>> completed;
    auto upright =
        compositor->compose(Single(width, height), {source}, {false}, false,
                            [&](const std::shared_ptr<Texture>& drawn) { completed.set_value(drawn); });
    ASSERT_TRUE(upright);
    EXPECT_EQ(completed.get_future().get(), upright);
    Pixels uprightPixels(upright);
    auto flipped = compose(Single(width, height), {source}, false, {true});
    ASSERT_TRUE(flipped);
    Pixels flippedPixels(flipped);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            ASSERT_EQ(uprightPixels.at(x, y), Gradient(x, y)) << x << ", " << y;
            ASSERT_EQ(flippedPixels.at(x, y), Gradient(x, height - 1 - y)) << x << ", " << y;
        }
    }
}

TEST_F(CompositorTest, KeepsHalfAlphaOverATransparentBackgroundAndMakesItOpaqueOtherwise) {
    // The second rectangle has no picture: the background shows there.
    Layout layout(Row, {{64, 64}, {64, 64}}, 0, {});
    auto translucent = MakeSolidTexture(64, 64, {200, 100, 50, 128});
    for (bool transparent : {true, false}) {
        auto target = compose(layout, {translucent, nullptr}, transparent);
        ASSERT_TRUE(target);
        Pixels pixels(target);
        EXPECT_EQ(pixels.at(10, 10), (Pixel{200, 100, 50, uint8_t(transparent ? 128 : 255)})) << transparent;
        EXPECT_EQ(pixels.at(100, 10), transparent ? Clear : Black) << transparent;
    }
}

TEST_F(CompositorTest, RefusesPicturesWiderThan16384AndAcceptsOneOf16384Square) {
    auto red = MakeSolidTexture(2, 2, Red);
    EXPECT_FALSE(compose(Single(16385, 100), {red}));
    EXPECT_FALSE(compose(Single(100, 16385), {red}));
    auto largest = compose(Single(16384, 16384), {red});
    ASSERT_TRUE(largest);
    EXPECT_EQ(Pixels(largest, 16383, 16383, 1, 1).at(16383, 16383), Red);
}

TEST_F(CompositorTest, FourTargetsTakeTurnsRefusalsTakeNoTurnAndANewSizeReplacesATarget) {
    Layout layout(Row, {{16, 16}, {16, 16}}, 0, {});
    auto red = MakeSolidTexture(8, 8, Red);
    std::vector<std::shared_ptr<Texture>> targets{compose(layout, {red, red})};
    EXPECT_FALSE(compositor->compose(layout, {red}, {false, false}, false));
    EXPECT_FALSE(compositor->compose(layout, {red, red}, {false}, false));
    EXPECT_FALSE(compositor->compose(layout, {red, red, red}, {false, false, false}, false));
    for (int i = 1; i < 5; ++i)
        targets.push_back(compose(layout, {red, red}));
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(targets[i]);
        for (int j = 0; j < i; ++j)
            EXPECT_NE(targets[i], targets[j]);
    }
    EXPECT_EQ(targets[4], targets[0]);

    // targetOfWidth shares the ring: slot 1 now, then slots 2 and 3 made anew at new sizes.
    EXPECT_EQ(compositor->targetOfWidth(32, 16), targets[1]);
    auto wider = compositor->targetOfWidth(48, 16);
    ASSERT_TRUE(wider);
    EXPECT_NE(wider, targets[2]);
    EXPECT_EQ(wider->width(), 48u);
    auto taller = compositor->targetOfWidth(32, 40);
    ASSERT_TRUE(taller);
    EXPECT_NE(taller, targets[3]) << "only the height differs";
    EXPECT_EQ(taller->height(), 40u);
}

} // namespace
} // namespace quorva
