#include "platform/cpu/PictureKernels.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

namespace quorva::cpu {
namespace {

constexpr uint8_t Untouched = 0xCD;

// The GPU's conversion in floating point: Y, U and V on the 8-bit scale.
std::array<double, 3> Yuv(const uint8_t* bgra) {
    const double r = bgra[2] / 255.0, g = bgra[1] / 255.0, b = bgra[0] / 255.0;
    const double y = 0.2126 * r + 0.7152 * g + 0.0722 * b;
    return {16 + 219 * y, 128 + 224 * (b - y) / 1.8556, 128 + 224 * (r - y) / 1.5748};
}

// Each kernel the processor can run (SSSE3, AVX2, ..., and the fallback without SIMD), as the one called:
// each works on a different number of pixels a step, so each meets the ends of rows differently.
template <class Check>
void ForEachTarget(Check check) {
    for (int64_t target : hwy::SupportedAndGeneratedTargets()) {
        SCOPED_TRACE(hwy::TargetName(target));
        hwy::SetSupportedTargetsForTest(target);
        check();
    }
    hwy::SetSupportedTargetsForTest(0);
}

struct Picture {
    uint32_t width, height;
    ptrdiff_t stride;
    std::vector<uint8_t> bytes;
    const uint8_t* at(uint32_t x, uint32_t y) const { return bytes.data() + y * stride + 4 * x; }
};

// Random pixels, rows a few bytes apart more than they need.
Picture Random(uint32_t width, uint32_t height, uint32_t seed) {
    Picture picture{width, height, ptrdiff_t(4 * width + 12), {}};
    picture.bytes.resize(size_t(picture.stride) * height);
    std::mt19937 random(seed);
    for (uint8_t& byte : picture.bytes)
        byte = uint8_t(random());
    return picture;
}

// Every sample within 1 of the float formula rounded (alpha exact), and every byte that holds none
// untouched.
void ExpectMatchesFormula(const Picture& picture, FrameLayout layout) {
    const FrameFormat format = FrameFormat::padded(layout, picture.width, picture.height);
    std::vector<uint8_t> frame(format.bytes, Untouched);
    ConvertPicture(picture.bytes.data(), picture.stride, format, frame.data());
    std::vector<bool> sample(frame.size());
    const bool ten = layout != FrameLayout::YUV420P;
    const uint32_t across = layout == FrameLayout::YUVA444P10 ? 1 : 2;
    const uint32_t down = layout == FrameLayout::YUV420P ? 2 : 1;
    for (size_t p = 0; p < format.planes.size(); ++p) {
        const bool chroma = p == 1 || p == 2;
        const uint32_t w = chroma ? across : 1, h = chroma ? down : 1;
        for (uint32_t y = 0; y < format.planes[p].rows; ++y)
            for (uint32_t x = 0; x < (picture.width + w - 1) / w; ++x) {
                // The mean over the sample's block; an odd last column or row stands in for its neighbour.
                double value = 0;
                for (uint32_t dy = 0; dy < h; ++dy)
                    for (uint32_t dx = 0; dx < w; ++dx) {
                        const uint8_t* pixel = picture.at(std::min(x * w + dx, picture.width - 1),
                                                          std::min(y * h + dy, picture.height - 1));
                        value += (p == 3 ? pixel[3] * 1023.0 / 255 / 4 : Yuv(pixel)[p]) / (w * h);
                    }
                const double expected =
                    std::clamp(std::round(ten ? value * 4 : value), 0.0, ten ? 1023.0 : 255.0);
                const size_t at = format.planes[p].offset + y * format.planes[p].stride + x * (ten ? 2 : 1);
                const int actual = ten ? frame[at] | frame[at + 1] << 8 : frame[at];
                sample[at] = sample[at + ten] = true;
                if (std::abs(actual - expected) > (p == 3 ? 0 : 1)) {
                    ADD_FAILURE() << "plane " << p << " at " << x << "," << y << ": " << actual << " for "
                                  << (ten ? value * 4 : value);
                    return;
                }
            }
    }
    for (size_t i = 0; i < frame.size(); ++i)
        if (!sample[i] && frame[i] != Untouched) {
            ADD_FAILURE() << "byte " << i << " written outside the samples";
            return;
        }
}

TEST(PictureKernelsTest, AllGreysThePrimariesAndRandomPicturesOfOddAndUnevenSizesMatchTheFormula) {
    // 256 greys in pairs of columns, then black, white and the six primaries and secondaries, two rows
    // alike, alpha running through every value.
    Picture greys{2 * 264, 2, 4 * 2 * 264, {}};
    for (uint32_t y = 0; y < 2; ++y)
        for (uint32_t x = 0; x < greys.width; ++x) {
            const uint32_t i = x / 2;
            for (uint32_t c = 0; c < 3; ++c) // blue, green, red: bits 0, 1, 2 of the colour's number
                greys.bytes.push_back(uint8_t(i < 256 ? i : ((i - 256) >> c & 1) * 255));
            greys.bytes.push_back(uint8_t(x));
        }
    std::vector<Picture> pictures{greys};
    // Widths below, at and past each kernel's step (2, 16, 32 or 64 pixels), odd and even.
    const std::pair<uint32_t, uint32_t> sizes[] = {{1, 1},  {3, 3},  {16, 2},  {33, 5},
                                                   {64, 2}, {65, 3}, {127, 4}, {130, 1}};
    for (auto [width, height] : sizes)
        pictures.push_back(Random(width, height, width * 7 + height));
    ForEachTarget([&] {
        for (const Picture& picture : pictures)
            for (FrameLayout layout :
                 {FrameLayout::YUV420P, FrameLayout::YUV422P10, FrameLayout::YUVA444P10}) {
                SCOPED_TRACE(testing::Message()
                             << picture.width << "x" << picture.height << " layout " << int(layout));
                ExpectMatchesFormula(picture, layout);
            }
    });
}

TEST(PictureKernelsTest, MakeOpaqueSetsTheAlphaOfTheRegionOnly) {
    ForEachTarget([] {
        for (uint32_t width : {1u, 3u, 16u, 17u, 70u}) {
            SCOPED_TRACE(width);
            const Picture before = Random(80, 3, width);
            Picture after = before;
            // From the second pixel of the second row, so that nothing is aligned.
            MakeOpaque(after.bytes.data() + after.stride + 4, after.stride, width, 2);
            for (size_t i = 0; i < after.bytes.size(); ++i) {
                const size_t y = i / after.stride, x = i % after.stride / 4;
                const bool alpha = y >= 1 && x >= 1 && x <= width && i % 4 == 3 && i % after.stride < 320;
                ASSERT_EQ(alpha ? 255 : before.bytes[i], after.bytes[i]) << "byte " << i;
            }
        }
    });
}

} // namespace
} // namespace quorva::cpu
