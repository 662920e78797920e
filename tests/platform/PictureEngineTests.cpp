#include "platform/PictureEngine.h"
#include "platform/Semaphore.h"
#include "platform/cpu/PictureKernels.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>

namespace quorva {
namespace {

using testing::Pixel;
using testing::Pixels;

TEST(PictureEngineChoice, TheProcessorForASoftwareDeviceOrNoneTheGpuOtherwiseUnlessTheVariableSaysSo) {
    auto device = testing::SharedDevice();
    ASSERT_TRUE(device);
    testing::ScopedVariable variable("QUORVA_PICTURES");
    struct Case {
        std::optional<std::string> variable;
        bool withDevice;
        std::optional<bool> processor; // nothing: refused
    };
    const Case cases[] = {
        {std::nullopt, true, device->isSoftware()},
        {std::nullopt, false, true},
        {"processor", true, true},
        {"vulkan", true, false},
        {"vulkan", false, std::nullopt},
        {"Vulkan", true, std::nullopt},
        {"", true, device->isSoftware()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "QUORVA_PICTURES " << c.variable.value_or("unset") << ", "
                                          << (c.withDevice ? "a device" : "no device"));
        variable.set(c.variable);
        Result<std::shared_ptr<PictureEngine>> engine = PictureEngine::make(c.withDevice ? device : nullptr);
        ASSERT_EQ(bool(engine), c.processor.has_value())
            << (engine ? engine.value()->name() : engine.error().message());
        if (!engine) {
            if (c.variable != "vulkan") {
                EXPECT_NE(engine.error().message().find("“" + *c.variable + "”"), std::string::npos)
                    << engine.error().message();
            }
            continue;
        }
        EXPECT_EQ(engine.value()->isProcessor(), *c.processor);
        EXPECT_EQ(engine.value()->name(), *c.processor ? "processor" : "Vulkan on " + device->name());
    }
}

Pixel Pattern(uint32_t x, uint32_t y) {
    return {uint8_t(x), uint8_t(y), uint8_t(x * 7 + y * 13), uint8_t(255 - x)};
}

using PictureEngineTest = testing::EachEngineTest;

// A source hands over a picture in memory and draws into that memory again as soon as the engine no
// longer holds it: what the engine answered must keep showing what the memory held when it was adopted.
TEST_P(PictureEngineTest, AnAdoptedPictureReadsBackExactlyAndKeepsItsPixelsWhileHeld) {
    auto first = testing::MakeMemoryPicture(37, 23, Pattern);
    ASSERT_TRUE(first);
    Result<std::shared_ptr<Picture>> adopted = engine->adopt(first);
    ASSERT_TRUE(adopted) << adopted.error().message();
    if (adopted.value() != first)
        std::memset(first->bytes(), 0, first->stride() * first->height());
    // A second picture of the same size while the first is held: were it drawn into the first's texture,
    // the first would show it.
    auto second = testing::MakePicture(*engine, 37, 23, [](uint32_t, uint32_t) { return Pixel{1, 2, 3, 4}; });
    ASSERT_TRUE(second);

    Pixels pixels = testing::ReadPixels(*engine, adopted.value());
    for (uint32_t y = 0; y < 23; ++y)
        for (uint32_t x = 0; x < 37; ++x)
            ASSERT_EQ(pixels.at(x, y), Pattern(x, y)) << x << ", " << y;
    EXPECT_EQ(testing::ReadPixels(*engine, adopted.value(), 30, 20, 7, 3).at(36, 22), Pattern(36, 22));
    EXPECT_FALSE(engine->readPixels(adopted.value(), 30, 20, 8, 3));
    EXPECT_FALSE(engine->readPixels(adopted.value(), 0, 23, 1, 1));
}

// A movie's assembled picture is drawn straight into the encoder's frame: it must hold what drawing the
// picture whole and converting it would. The placements meet the frame's chroma samples every way: at
// odd edges, where they share samples with the background and with each other, scaled, flipped, over
// another, partly outside the frame, and whole and aligned (which the processor converts in place, a flipped
// one read bottom up).
TEST_P(PictureEngineTest, AnAssembledPictureDrawnIntoAMovieFrameIsTheComposedPictureConverted) {
    auto picture = [&](uint32_t width, uint32_t height, int seed) {
        return testing::MakePicture(*engine, width, height, [=](uint32_t x, uint32_t y) {
            return Pixel{uint8_t(x * 6 + seed), uint8_t(y < height / 2 ? 40 : 220), uint8_t(y * 9 + seed),
                         uint8_t(128 + (x * 5 + y) % 128)};
        });
    };
    const auto a = picture(40, 30, 0), b = picture(32, 20, 90), c = picture(16, 8, 170);
    ASSERT_TRUE(a && b && c);
    const std::vector<PicturePlacement> placements{
        {a, 1, 3, 40, 30, false},   {a, 41, 3, 23, 17, true},  {b, 8, 34, 32, 20, false},
        {a, 80, 40, 30, 30, false}, {b, 30, 10, 20, 20, true}, {c, 64, 30, 16, 8, true},
    };
    constexpr uint32_t Width = 96, Height = 54;
    Result<std::shared_ptr<PictureCompositor>> compositor = engine->makeCompositor();
    Result<std::unique_ptr<FrameConverter>> converter = engine->makeFrameConverter();
    ASSERT_TRUE(compositor && converter);
    for (FrameLayout layout :
         {FrameLayout::YUV420P, FrameLayout::YUV422P10, FrameLayout::YUVA444P10, FrameLayout::BGRA}) {
        for (bool transparent : {false, true}) {
            SCOPED_TRACE(std::to_string(int(layout)) + (transparent ? " transparent" : " opaque"));
            const FrameFormat format = FrameFormat::padded(layout, Width, Height);
            Result<std::shared_ptr<Picture>> whole =
                compositor.value()->compose(Width, Height, placements, transparent, nullptr);
            ASSERT_TRUE(whole) << whole.error().message();
            const Result<std::vector<uint8_t>> pixels =
                engine->readPixels(whole.value(), 0, 0, Width, Height);
            ASSERT_TRUE(pixels);
            std::vector<uint8_t> expected(format.bytes);
            cpu::ConvertPicture(pixels.value().data(), Width * 4, format, expected.data());

            std::shared_ptr<FrameMemory> frame;
            Semaphore drawn;
            ASSERT_TRUE(converter.value()->compose(placements, transparent, format,
                                                   [&](std::shared_ptr<FrameMemory> memory) {
                                                       frame = std::move(memory);
                                                       drawn.signal();
                                                   }));
            ASSERT_TRUE(drawn.wait(60));
            for (size_t p = 0; p < format.planes.size(); ++p) {
                const PlaneSampling sampling = SamplingOf(layout, p);
                // Ten-bit samples are little-endian words. The engines' conversions may round apart by one
                // step on the 8-bit scale.
                const bool ten = sampling.bytes == 2;
                const uint32_t values =
                    (Width + sampling.across - 1) / sampling.across * (sampling.bytes == 4 ? 4 : 1);
                for (uint32_t y = 0; y < format.planes[p].rows; ++y)
                    for (uint32_t x = 0; x < values; ++x) {
                        const size_t at =
                            format.planes[p].offset + y * format.planes[p].stride + (ten ? 2 * x : x);
                        auto value = [&](const uint8_t* bytes) {
                            return ten ? bytes[at] | bytes[at + 1] << 8 : int(bytes[at]);
                        };
                        ASSERT_NEAR(value(frame->data()), value(expected.data()), ten ? 4 : 1)
                            << "plane " << p << " at " << x << ", " << y;
                    }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EachEngine, PictureEngineTest, testing::EngineNames, testing::EngineTestName);

} // namespace
} // namespace quorva
