#include "core/composition/Compositor.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <memory>
#include <set>

namespace quorva {
namespace {

using testing::NearPixel;
using testing::Pixel;
using testing::Pixels;

constexpr Pixel Black{0, 0, 0, 255};
constexpr Pixel Clear{0, 0, 0, 0};
constexpr Pixel Red{0, 0, 255, 255};
constexpr Pixel Green{0, 255, 0, 255};
constexpr LayoutKind Row = LayoutKind::Row;

// One rectangle the size of the picture.
Layout Single(double width, double height) {
    return Layout(Row, {{width, height}}, 0, {});
}

// Every test runs on both engines and expects the same pixels of each.
class CompositorTest : public testing::EachEngineTest {
protected:
    void SetUp() override {
        EachEngineTest::SetUp();
        if (HasFatalFailure())
            return;
        auto made = Compositor::make(engine);
        ASSERT_TRUE(made) << made.error().message();
        compositor = made.value();
    }

    std::shared_ptr<Picture> solid(uint32_t width, uint32_t height, Pixel pixel) {
        return testing::MakeSolidPicture(*engine, width, height, pixel);
    }
    Pixels pixels(const std::shared_ptr<Picture>& picture) { return testing::ReadPixels(*engine, picture); }

    // Answers the target once it is drawn, which the completion handler is given: then only the pool and
    // the caller hold it. (That a target is read back drawn while its drawing is still under way is the
    // engines' to check.)
    std::shared_ptr<Picture> compose(const Layout& layout,
                                     const std::vector<std::shared_ptr<Picture>>& pictures,
                                     bool transparent = false, std::vector<bool> flipped = {}) {
        if (flipped.empty())
            flipped.assign(pictures.size(), false);
        std::promise<std::shared_ptr<Picture>> completed;
        auto target =
            compositor->compose(layout, pictures, flipped, transparent,
                                [&](const std::shared_ptr<Picture>& drawn) { completed.set_value(drawn); });
        if (target) {
            EXPECT_EQ(completed.get_future().get(), target);
        }
        return target;
    }

    // Where the colour changes along a column or a row: the first and last pixel of `colour` (or near it,
    // for a scaled picture).
    static std::pair<int, int> Extent(const Pixels& pixels, bool column, uint32_t at, uint32_t length,
                                      Pixel colour) {
        int first = -1, last = -1;
        for (uint32_t i = 0; i < length; ++i) {
            if (NearPixel(column ? pixels.at(at, i) : pixels.at(i, at), colour)) {
                if (first < 0)
                    first = int(i);
                last = int(i);
            }
        }
        return {first, last};
    }

    std::shared_ptr<Compositor> compositor;
};

TEST_P(CompositorTest, FitsASourceRoundingItsShortSideFlooringItsOffsetAndFillingWithinAPixel) {
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
            auto target =
                compose(Single(c.side, c.side),
                        {solid(wide ? c.longSide : c.shortSide, wide ? c.shortSide : c.longSide, Red)});
            ASSERT_TRUE(target);
            Pixels drawn = pixels(target);
            uint32_t middle = c.side / 2;
            EXPECT_EQ(Extent(drawn, wide, middle, c.side, Red), c.covered);
            for (int edge : {c.covered.first - 1, c.covered.second + 1}) {
                if (edge >= 0 && edge < int(c.side)) {
                    EXPECT_EQ(wide ? drawn.at(middle, edge) : drawn.at(edge, middle), Black) << edge;
                }
            }
            EXPECT_EQ(Extent(drawn, !wide, middle, c.side, Red), std::make_pair(0, int(c.side) - 1))
                << "the long side";
        }
    }
}

Pixel Gradient(uint32_t x, uint32_t y) {
    return {uint8_t(4 * x), uint8_t(8 * y), uint8_t(x < 32 ? 40 : 200), 255};
}

TEST_P(CompositorTest, DrawsASourcePixelForPixelAndAFlippedOneUpsideDownButNotMirrored) {
    const uint32_t width = 64, height = 32;
    auto source = testing::MakePicture(*engine, width, height, Gradient);
    auto upright = compose(Single(width, height), {source});
    ASSERT_TRUE(upright);
    Pixels uprightPixels = pixels(upright);
    auto flipped = compose(Single(width, height), {source}, false, {true});
    ASSERT_TRUE(flipped);
    Pixels flippedPixels = pixels(flipped);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            ASSERT_EQ(uprightPixels.at(x, y), Gradient(x, y)) << x << ", " << y;
            ASSERT_EQ(flippedPixels.at(x, y), Gradient(x, height - 1 - y)) << x << ", " << y;
        }
    }
}

// Twice as large (as 960 × 540 into 1920 × 1080), a ramp shows the blend of the two source pixels
// nearest to each pixel's centre, and the edge pixel past the outermost centres, on both engines alike.
TEST_P(CompositorTest, ScalesASourceUpByBlendingTheSourcePixelsAroundEachPixelCentre) {
    auto ramp = testing::MakePicture(*engine, 16, 8, [](uint32_t x, uint32_t y) {
        return Pixel{0, uint8_t(8 * y + 4), uint8_t(8 * x + 4), 255};
    });
    auto target = compose(Single(32, 16), {ramp});
    ASSERT_TRUE(target);
    Pixels drawn = pixels(target);
    // Pixel centres map onto pixel centres: pixel x samples the source at x / 2 − 0.25, which makes red
    // 4x + 2 between the outermost source centres and the edge pixel's value past them; green likewise.
    // libyuv, on the processor, aligns the outermost pixels instead and weighs columns 127/128: up to
    // four levels off here, where a pixel out of place would be eight.
    for (uint32_t y = 0; y < 16; ++y) {
        for (uint32_t x = 0; x < 32; ++x) {
            const Pixel pixel = drawn.at(x, y);
            EXPECT_NEAR(pixel.r, std::clamp(4 * int(x) + 2, 4, 124), 4) << x << ", " << y;
            EXPECT_NEAR(pixel.g, std::clamp(4 * int(y) + 2, 4, 60), 4) << x << ", " << y;
            EXPECT_EQ(pixel.a, 255);
        }
    }
}

// A target comes back once nobody holds it; whatever it showed then must not show through the next
// picture drawn into it, whether the pictures, the background or the size changed. A picture's half alpha
// is kept over a clear background and made opaque over black.
TEST_P(CompositorTest, EveryCompositionStartsFromItsOwnBackgroundWhateverItsTargetShowedBefore) {
    Layout pair(Row, {{16, 16}, {16, 16}}, 0, {});
    auto wide = solid(16, 8, Red); // fills rows 4 to 11 of its rectangle
    auto half = solid(16, 16, {200, 100, 50, 128});
    struct Step {
        const char* what;
        Layout layout;
        std::vector<std::shared_ptr<Picture>> pictures;
        bool transparent;
        Pixel background;
    };
    const Step steps[] = {
        {"both drawn over a clear background", pair, {wide, half}, true, Clear},
        {"both drawn over black", pair, {wide, half}, false, Black},
        {"the second left empty", pair, {wide, nullptr}, false, Black},
        {"the same over a clear background", pair, {wide, nullptr}, true, Clear},
        {"the same over black again", pair, {wide, nullptr}, false, Black},
        {"the same placement in a smaller target", Single(16, 16), {wide}, false, Black},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        auto target = compose(step.layout, step.pictures, step.transparent);
        ASSERT_TRUE(target);
        Pixels drawn = pixels(target);
        for (uint32_t x = 0; x < target->width(); x += 5) {
            for (uint32_t y : {0u, 3u, 12u, 15u}) {
                const bool halfHere = x >= 16 && step.pictures.size() > 1 && step.pictures[1];
                const Pixel shown{200, 100, 50, uint8_t(step.transparent ? 128 : 255)};
                ASSERT_EQ(drawn.at(x, y), halfHere ? shown : step.background) << x << ", " << y;
            }
        }
        EXPECT_EQ(drawn.at(3, 4), Red);
        EXPECT_EQ(drawn.at(12, 11), Red);
    }
}

TEST_P(CompositorTest, RefusesWhatItCannotDrawAndNeverDrawsIntoATargetSomeoneHolds) {
    Layout layout(Row, {{16, 16}, {16, 16}}, 0, {});
    auto red = solid(16, 16, Red), green = solid(16, 16, Green);
    EXPECT_FALSE(compositor->compose(layout, {red}, {false, false}, false));
    EXPECT_FALSE(compositor->compose(layout, {red, red}, {false}, false));
    EXPECT_FALSE(compositor->compose(layout, {red, red, red}, {false, false, false}, false));

    // The first target, drawn, is held here alone while the second composition runs: it keeps its own
    // pixels.
    auto first = compose(layout, {red, nullptr});
    ASSERT_TRUE(first);
    ASSERT_TRUE(compose(layout, {green, green}));
    Pixels firstPixels = pixels(first);
    EXPECT_EQ(firstPixels.at(4, 4), Red);
    EXPECT_EQ(firstPixels.at(20, 4), Black);

    // Let go of each target once it is drawn: the few targets come round again instead of piling up.
    first.reset();
    std::set<std::weak_ptr<Picture>, std::owner_less<>> seen;
    for (int i = 0; i < 20; ++i) {
        auto target = compose(layout, {red, green});
        ASSERT_TRUE(target);
        seen.insert(target);
    }
    EXPECT_LE(seen.size(), 3u);

    // Pictures wider than 16384 are refused; one of 16384 square is drawn.
    EXPECT_FALSE(compose(Single(16385, 100), {red}));
    EXPECT_FALSE(compose(Single(100, 16385), {red}));
    auto largest = compose(Single(16384, 16384), {red});
    ASSERT_TRUE(largest);
    EXPECT_PRED2(NearPixel, testing::ReadPixels(*engine, largest, 16383, 16383, 1, 1).at(16383, 16383), Red);
}

INSTANTIATE_TEST_SUITE_P(EachEngine, CompositorTest, testing::EngineNames, testing::EngineTestName);

} // namespace
} // namespace quorva
