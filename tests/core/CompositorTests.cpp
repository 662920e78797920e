#include "core/Compositor.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

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
        auto device = testing::SharedDevice();
        ASSERT_TRUE(device);
        auto made = CommandQueue::make(device);
        ASSERT_TRUE(made);
        queue = made.value();
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

    std::shared_ptr<CommandQueue> queue;
    std::shared_ptr<Compositor> compositor;
};

// A source, and the rows (or columns) it covers when fitted into a 1000 × 1000 rectangle.
struct Fitted {
    uint32_t longSide, shortSide;
    std::pair<int, int> covered;
};

// 1280 × 720: 562.5 high, 218.75 down; 1280 × 703: 549.2 high (rounded down this time), 225.4 down.
const Fitted FittedSources[] = {{1280, 720, {218, 780}}, {1280, 703, {225, 773}}};

TEST_F(CompositorTest, FitsAWiderSourceRoundingItsHeightAndFlooringItsOffset) {
    for (const Fitted& source : FittedSources) {
        auto target = compose(Single(1000, 1000), {MakeSolidTexture(source.longSide, source.shortSide, Red)});
        ASSERT_TRUE(target);
        ASSERT_EQ(target->width(), 1000u);
        ASSERT_EQ(target->height(), 1000u);
        Pixels pixels(target);
        EXPECT_EQ(Extent(pixels, true, 500, 1000, Red), source.covered) << source.shortSide;
        EXPECT_EQ(pixels.at(500, source.covered.first - 1), Black);
        EXPECT_EQ(pixels.at(500, source.covered.second + 1), Black);
        EXPECT_EQ(Extent(pixels, false, 500, 1000, Red), std::make_pair(0, 999)) << "the full width";
    }
}

TEST_F(CompositorTest, FitsATallerSourceRoundingItsWidthAndFlooringItsOffset) {
    for (const Fitted& source : FittedSources) {
        auto target = compose(Single(1000, 1000), {MakeSolidTexture(source.shortSide, source.longSide, Red)});
        ASSERT_TRUE(target);
        Pixels pixels(target);
        EXPECT_EQ(Extent(pixels, false, 500, 1000, Red), source.covered) << source.shortSide;
        EXPECT_EQ(Extent(pixels, true, 500, 1000, Red), std::make_pair(0, 999));
    }
}

TEST_F(CompositorTest, ASourceWithinAPixelOfTheRectanglesShapeFillsItExactly) {
    // Fitted, these would leave the last column or row empty (99.1 pixels, rounded to 99).
    for (auto [width, height] : {std::pair{1009u, 1000u}, std::pair{1000u, 1009u}}) {
        auto target = compose(Single(100, 100), {MakeSolidTexture(width, height, Red)});
        ASSERT_TRUE(target);
        Pixels pixels(target);
        for (uint32_t y = 0; y < 100; ++y) {
            for (uint32_t x = 0; x < 100; ++x)
                ASSERT_EQ(pixels.at(x, y), Red) << width << " × " << height << " at " << x << ", " << y;
        }
    }
}

TEST_F(CompositorTest, DrawsEachSourceIntoItsOwnRectangleLeavingTheGapAlone) {
    // A row with a gap of 10: (0, 0, 1280, 720) and (1290, 0, 1280, 720) in 2570 × 720.
    Layout layout(Row, {{1280, 720}, {1280, 720}}, 10, {});
    ASSERT_EQ(layout.size(), (Size{2570, 720}));
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
    auto upright = compose(Single(width, height), {source}, false, {false});
    ASSERT_TRUE(upright);
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
    auto transparent = compose(layout, {translucent, nullptr}, true);
    ASSERT_TRUE(transparent);
    Pixels clearPixels(transparent);
    EXPECT_EQ(clearPixels.at(10, 10), (Pixel{200, 100, 50, 128}));
    EXPECT_EQ(clearPixels.at(100, 10), Clear);

    auto opaque = compose(layout, {translucent, nullptr}, false);
    ASSERT_TRUE(opaque);
    Pixels opaquePixels(opaque);
    EXPECT_EQ(opaquePixels.at(10, 10), (Pixel{200, 100, 50, 255}));
    EXPECT_EQ(opaquePixels.at(100, 10), Black);
}

TEST_F(CompositorTest, RefusesListsThatDoNotMatchTheLayoutWithoutUsingARingSlot) {
    Layout layout(Row, {{64, 64}, {64, 64}}, 0, {});
    auto red = MakeSolidTexture(8, 8, Red);
    auto first = compose(layout, {red, red});
    ASSERT_TRUE(first);
    EXPECT_FALSE(compositor->compose(layout, {red}, {false, false}, false));
    EXPECT_FALSE(compositor->compose(layout, {red, red}, {false}, false));
    EXPECT_FALSE(compositor->compose(layout, {red, red, red}, {false, false, false}, false));
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(compose(layout, {red, red}));
    EXPECT_EQ(compose(layout, {red, red}), first) << "the refusals did not move the ring";
}

TEST_F(CompositorTest, RefusesPicturesWiderThan16384AndAcceptsOneOf16384Square) {
    auto red = MakeSolidTexture(2, 2, Red);
    Layout tooWide = Single(16385, 100);
    ASSERT_GT(tooWide.size().width, 16384);
    EXPECT_FALSE(compose(tooWide, {red}));
    EXPECT_FALSE(compose(Single(100, 16385), {red}));

    auto largest = compose(Single(16384, 16384), {red});
    ASSERT_TRUE(largest);
    EXPECT_EQ(largest->width(), 16384u);
    EXPECT_EQ(Pixels(largest, 16383, 16383, 1, 1).at(16383, 16383), Red);
    EXPECT_EQ(Pixels(largest, 0, 0, 1, 1).at(0, 0), Red);
}

TEST_F(CompositorTest, TheFifthCompositionReusesTheFirstTargetAndANewSizeReplacesIt) {
    auto red = MakeSolidTexture(8, 8, Red);
    std::vector<std::shared_ptr<Texture>> targets;
    for (int i = 0; i < 5; ++i)
        targets.push_back(compose(Single(32, 32), {red}));
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(targets[i]);
        for (int j = 0; j < i; ++j)
            EXPECT_NE(targets[i], targets[j]);
    }
    EXPECT_EQ(targets[4], targets[0]);

    // targetOfWidth shares the ring: slot 1 now, and slot 2 made anew at the new size.
    EXPECT_EQ(compositor->targetOfWidth(32, 32), targets[1]);
    auto resized = compositor->targetOfWidth(48, 32);
    ASSERT_TRUE(resized);
    EXPECT_NE(resized, targets[2]);
    EXPECT_EQ(resized->width(), 48u);
    EXPECT_EQ(resized->height(), 32u);
    auto taller = compositor->targetOfWidth(32, 40);
    ASSERT_TRUE(taller);
    EXPECT_NE(taller, targets[3]) << "only the height differs";
    EXPECT_EQ(taller->height(), 40u);
}

TEST_F(CompositorTest, TheCompletionHandlerGetsTheDrawnTargetOnTheGpusThread) {
    std::promise<std::pair<std::shared_ptr<Texture>, std::thread::id>> completed;
    auto target = compositor->compose(Single(64, 64), {MakeSolidTexture(8, 8, Green)}, {false}, false,
                                      [&](const std::shared_ptr<Texture>& drawn) {
                                          completed.set_value({drawn, std::this_thread::get_id()});
                                      });
    ASSERT_TRUE(target);
    auto [drawn, thread] = completed.get_future().get();
    EXPECT_EQ(drawn, target);
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(Pixels(drawn, 63, 63, 1, 1).at(63, 63), Green);
}

} // namespace
} // namespace quorva
