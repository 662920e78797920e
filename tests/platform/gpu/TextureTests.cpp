#include "platform/gpu/Texture.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

namespace quorva {
namespace {

using testing::Pixel;
using testing::Pixels;
using testing::SharedDevice;

Pixel Pattern(uint32_t x, uint32_t y) {
    return {uint8_t(x), uint8_t(y), uint8_t(x * 7 + y * 13), uint8_t(255 - x)};
}

TEST(Texture, ReplacedPixelsReadBackExactlyWithPaddedRowsAndFromARegion) {
    auto device = SharedDevice();
    ASSERT_TRUE(device);
    const uint32_t width = 37, height = 23, stride = 48 * 4; // rows padded beyond the picture
    std::vector<uint8_t> bytes(size_t(stride) * height, 0xee);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            Pixel p = Pattern(x, y);
            uint8_t* at = bytes.data() + y * stride + x * 4;
            at[0] = p.b, at[1] = p.g, at[2] = p.r, at[3] = p.a;
        }
    }
    auto texture = device->makeTexture(width, height);
    ASSERT_TRUE(texture) << texture.error().message();
    ASSERT_TRUE(texture.value()->replace(bytes.data(), stride));

    Pixels pixels(texture.value());
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x)
            ASSERT_EQ(pixels.at(x, y), Pattern(x, y)) << x << ", " << y;
    }
    Pixels region(texture.value(), 30, 20, 7, 3);
    EXPECT_EQ(region.at(30, 20), Pattern(30, 20));
    EXPECT_EQ(region.at(36, 22), Pattern(36, 22));
}

TEST(Texture, RefusesEmptyOversizedAndBadlyStridedPicturesAndOutsideRegions) {
    auto device = SharedDevice();
    ASSERT_TRUE(device);
    uint32_t largest = device->maximumTextureSize();
    EXPECT_FALSE(device->makeTexture(0, 10));
    EXPECT_FALSE(device->makeTexture(10, 0));
    EXPECT_FALSE(device->makeTexture(largest + 1, 1));
    EXPECT_FALSE(device->makeTexture(1, largest + 1));
    EXPECT_TRUE(device->makeTexture(largest, 1));

    auto texture = device->makeTexture(8, 8);
    ASSERT_TRUE(texture);
    std::vector<uint8_t> bytes(64 * 8);
    EXPECT_FALSE(texture.value()->replace(bytes.data(), 31)) << "short rows";
    EXPECT_FALSE(texture.value()->replace(bytes.data(), 34)) << "rows in part pixels";
    ASSERT_TRUE(texture.value()->replace(bytes.data(), 32));
    EXPECT_FALSE(texture.value()->readPixels(8, 0, 1, 1));
    EXPECT_FALSE(texture.value()->readPixels(4, 4, 5, 1));
    EXPECT_FALSE(texture.value()->readPixels(0, 0, 0, 1));
    EXPECT_TRUE(texture.value()->readPixels(7, 7, 1, 1));
}

} // namespace
} // namespace quorva
