#include "platform/gpu/Texture.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

namespace quorva {
namespace {

using testing::SharedDevice;

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
