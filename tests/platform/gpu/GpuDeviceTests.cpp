#include "platform/gpu/GpuDevice.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace quorva {
namespace {

using Type = vk::PhysicalDeviceType;

TEST(ChooseGpu, PrefersDiscreteThenIntegratedThenSoftwareUnlessNamedAndSkipsThoseThatCannotDraw) {
    const GpuCandidate cpu{"llvmpipe (LLVM 15.0.6, 256 bits)", Type::eCpu, true},
        integrated{"Intel UHD", Type::eIntegratedGpu, true},
        discrete{"NVIDIA GeForce RTX 4090", Type::eDiscreteGpu, true},
        old{"Old GPU", Type::eDiscreteGpu, false};
    struct Case {
        std::vector<GpuCandidate> candidates;
        const char* wanted;
        std::optional<size_t> chosen;
    };
    const Case cases[] = {
        {{cpu, integrated, discrete}, "", 2},
        {{cpu, integrated}, "", 1},
        {{}, "", std::nullopt},
        {{old, cpu}, "", 1},
        {{old, cpu}, "old", std::nullopt},
        {{old}, "", std::nullopt},
        {{discrete, cpu}, "LLVMPIPE", 1},
        {{discrete, cpu}, "Radeon", std::nullopt},
    };
    for (const Case& c : cases) {
        std::string names;
        for (const GpuCandidate& candidate : c.candidates)
            names += candidate.name + "; ";
        EXPECT_EQ(ChooseGpu(c.candidates, c.wanted), c.chosen) << names << "wanted \"" << c.wanted << '"';
    }
}

TEST(GpuDevice, OpensTheDeviceThatTheEnvironmentNamesOrExplainsWhyNot) {
    auto device = testing::SharedDevice();
    ASSERT_TRUE(device);
    EXPECT_GE(device->maximumTextureSize(), 4096u);
    const char* before = std::getenv("QUORVA_VULKAN_DEVICE");
    std::optional<std::string> kept = before ? std::optional<std::string>(before) : std::nullopt;

    setenv("QUORVA_VULKAN_DEVICE", device->name().substr(0, 4).c_str(), 1);
    auto named = GpuDevice::make();
    setenv("QUORVA_VULKAN_DEVICE", "no such GPU", 1);
    auto missing = GpuDevice::make();
    if (kept)
        setenv("QUORVA_VULKAN_DEVICE", kept->c_str(), 1);
    else
        unsetenv("QUORVA_VULKAN_DEVICE");

    ASSERT_TRUE(named) << named.error().message();
    EXPECT_EQ(named.value()->name(), device->name());
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().domain(), "org.quorva.QuorvaRecorder.GPU");
    EXPECT_NE(missing.error().message().find("no such GPU"), std::string::npos);
    EXPECT_NE(missing.error().message().find(device->name()), std::string::npos) << "lists what there is";
}

} // namespace
} // namespace quorva
