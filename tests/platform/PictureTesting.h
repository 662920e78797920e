#pragma once

// Helpers for the tests that hold pictures: both picture engines, pictures made from a function of
// their pixels, and their pixels read back, so that one test body checks the processor and the GPU
// against the same expected pixels.

#include "platform/MemoryPicture.h"
#include "platform/PictureEngine.h"
#include "platform/cpu/CpuPictureEngine.h"
#include "platform/gpu/GpuPictureEngine.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

namespace quorva::testing {

// The engines by the names that QUORVA_PICTURES gives them, for value-parameterised tests:
// INSTANTIATE_TEST_SUITE_P(EachEngine, Suite, EngineNames, EngineTestName).
inline const auto EngineNames = ::testing::Values(std::string("processor"), std::string("vulkan"));

inline std::string EngineTestName(const ::testing::TestParamInfo<std::string>& info) {
    return info.param;
}

// One engine of each kind for the whole test program; the Vulkan one draws on the shared device (lavapipe
// where there is no GPU, which the program itself would hand to the processor's engine). Nothing, and a
// failure, when it cannot be had.
inline std::shared_ptr<PictureEngine> Engine(const std::string& name) {
    if (name == "processor") {
        static const std::shared_ptr<PictureEngine> processor = CpuPictureEngine::make();
        return processor;
    }
    if (name != "vulkan") {
        ADD_FAILURE() << "no picture engine is called " << name;
        return nullptr;
    }
    static const std::shared_ptr<PictureEngine> vulkan = []() -> std::shared_ptr<PictureEngine> {
        std::shared_ptr<GpuDevice> device = SharedDevice();
        if (!device)
            return nullptr;
        Result<std::shared_ptr<GpuPictureEngine>> made = GpuPictureEngine::make(device);
        if (!made) {
            ADD_FAILURE() << made.error().message();
            return nullptr;
        }
        return made.value();
    }();
    return vulkan;
}

// Whether a pixel is `expected` to within what bilinear scaling on the processor (libyuv) and on the GPU
// may differ by. Where nothing is scaled, tests compare exactly.
inline bool NearPixel(Pixel pixel, Pixel expected) {
    auto near = [](uint8_t a, uint8_t b) { return (a > b ? a - b : b - a) <= 2; };
    return near(pixel.b, expected.b) && near(pixel.g, expected.g) && near(pixel.r, expected.r) &&
           near(pixel.a, expected.a);
}

// A picture in memory filled by `pixelAt(x, y)`; nothing, and a failure, when it cannot be made.
template <class PixelAt>
std::shared_ptr<MemoryPicture> MakeMemoryPicture(uint32_t width, uint32_t height, PixelAt pixelAt) {
    Result<std::shared_ptr<MemoryPicture>> made = MemoryPicture::make(width, height);
    if (!made) {
        ADD_FAILURE() << made.error().message();
        return nullptr;
    }
    MemoryPicture& picture = *made.value();
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* row = picture.row(y);
        for (uint32_t x = 0; x < width; ++x) {
            const Pixel pixel = pixelAt(x, y);
            uint8_t* at = row + size_t(x) * 4;
            at[0] = pixel.b, at[1] = pixel.g, at[2] = pixel.r, at[3] = pixel.a;
        }
    }
    return made.value();
}

// A picture of `engine` filled by `pixelAt(x, y)`, handed over as a source in memory hands its pictures.
template <class PixelAt>
std::shared_ptr<Picture> MakePicture(PictureEngine& engine, uint32_t width, uint32_t height,
                                     PixelAt pixelAt) {
    std::shared_ptr<MemoryPicture> memory = MakeMemoryPicture(width, height, pixelAt);
    if (!memory)
        return nullptr;
    Result<std::shared_ptr<Picture>> adopted = engine.adopt(memory);
    if (!adopted) {
        ADD_FAILURE() << adopted.error().message();
        return nullptr;
    }
    return adopted.value();
}

inline std::shared_ptr<Picture> MakeSolidPicture(PictureEngine& engine, uint32_t width, uint32_t height,
                                                 Pixel pixel) {
    return MakePicture(engine, width, height, [&](uint32_t, uint32_t) { return pixel; });
}

// The pixels of a region of a picture of `engine`, once the work already asked of it is done.
inline Pixels ReadPixels(PictureEngine& engine, const std::shared_ptr<Picture>& picture, uint32_t x,
                         uint32_t y, uint32_t width, uint32_t height) {
    return Pixels(engine.readPixels(picture, x, y, width, height), x, y, width);
}

inline Pixels ReadPixels(PictureEngine& engine, const std::shared_ptr<Picture>& picture) {
    return ReadPixels(engine, picture, 0, 0, picture->width(), picture->height());
}

inline Pixels ReadPixels(const MemoryPicture& picture) {
    return Pixels(picture.readPixels(0, 0, picture.width(), picture.height()), 0, 0, picture.width());
}

// A fixture whose tests run once on each engine.
class EachEngineTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        engine = Engine(GetParam());
        ASSERT_TRUE(engine);
    }

    std::shared_ptr<PictureEngine> engine;
};

} // namespace quorva::testing
