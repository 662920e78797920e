#include "platform/PictureEngine.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace quorva {
namespace {

using testing::Pixel;
using testing::Pixels;

// QUORVA_PICTURES set (or unset, for nothing) while the test runs, then put back.
class PicturesVariable {
public:
    PicturesVariable() {
        if (const char* value = std::getenv("QUORVA_PICTURES"))
            _kept = value;
    }
    ~PicturesVariable() { set(_kept); }
    void set(const std::optional<std::string>& value) {
        if (value)
            setenv("QUORVA_PICTURES", value->c_str(), 1);
        else
            unsetenv("QUORVA_PICTURES");
    }

private:
    std::optional<std::string> _kept;
};

TEST(PictureEngineChoice, TheProcessorForASoftwareDeviceOrNoneTheGpuOtherwiseUnlessTheVariableSaysSo) {
    auto device = testing::SharedDevice();
    ASSERT_TRUE(device);
    PicturesVariable variable;
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
    // A second picture of the same size while the first is held.
    auto second = testing::MakePicture(*engine, 37, 23, [](uint32_t, uint32_t) { return Pixel{1, 2, 3, 4}; });
    ASSERT_TRUE(second);
    EXPECT_NE(second, adopted.value());

    Pixels pixels = testing::ReadPixels(*engine, adopted.value());
    for (uint32_t y = 0; y < 23; ++y) {
        for (uint32_t x = 0; x < 37; ++x)
            ASSERT_EQ(pixels.at(x, y), Pattern(x, y)) << x << ", " << y;
    }
    EXPECT_EQ(testing::ReadPixels(*engine, adopted.value(), 30, 20, 7, 3).at(36, 22), Pattern(36, 22));
    EXPECT_FALSE(engine->readPixels(adopted.value(), 30, 20, 8, 3));
    EXPECT_FALSE(engine->readPixels(adopted.value(), 0, 23, 1, 1));
}

INSTANTIATE_TEST_SUITE_P(EachEngine, PictureEngineTest, testing::EngineNames, testing::EngineTestName);

} // namespace
} // namespace quorva
