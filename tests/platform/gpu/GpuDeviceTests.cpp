#include "platform/gpu/GpuDevice.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace quorva {
namespace {

using Type = vk::PhysicalDeviceType;

TEST(ChooseGpu, PrefersDiscreteThenIntegratedThenSoftwareWhateverTheOrder) {
    std::vector<GpuCandidate> all = {{"llvmpipe", Type::eCpu, true},
                                     {"Intel UHD", Type::eIntegratedGpu, true},
                                     {"NVIDIA RTX", Type::eDiscreteGpu, true}};
    EXPECT_EQ(ChooseGpu(all, ""), 2u);
    all.pop_back();
    EXPECT_EQ(ChooseGpu(all, ""), 1u);
    all.pop_back();
    EXPECT_EQ(ChooseGpu(all, ""), 0u);
    EXPECT_EQ(ChooseGpu({}, ""), std::nullopt);
}

TEST(ChooseGpu, PassesOverDevicesThatCannotDrawAsThisProgramDraws) {
    std::vector<GpuCandidate> candidates = {{"Old GPU", Type::eDiscreteGpu, false},
                                            {"llvmpipe", Type::eCpu, true}};
    EXPECT_EQ(ChooseGpu(candidates, ""), 1u);
    EXPECT_EQ(ChooseGpu(candidates, "old"), std::nullopt);
    candidates.pop_back();
    EXPECT_EQ(ChooseGpu(candidates, ""), std::nullopt);
}

TEST(ChooseGpu, ANamedDeviceWinsOverABetterOneAndCaseDoesNotMatter) {
    std::vector<GpuCandidate> candidates = {{"NVIDIA GeForce RTX 4090", Type::eDiscreteGpu, true},
                                            {"llvmpipe (LLVM 15.0.6, 256 bits)", Type::eCpu, true}};
    EXPECT_EQ(ChooseGpu(candidates, "LLVMPIPE"), 1u);
    EXPECT_EQ(ChooseGpu(candidates, "rtx"), 0u);
    EXPECT_EQ(ChooseGpu(candidates, "Radeon"), std::nullopt);
}

class EnvironmentVariable {
public:
    EnvironmentVariable(const char* name, const char* value) : _name(name) {
        if (const char* old = std::getenv(name))
            _old = old;
        setenv(name, value, 1);
    }
    ~EnvironmentVariable() {
        if (_old)
            setenv(_name, _old->c_str(), 1);
        else
            unsetenv(_name);
    }

private:
    const char* _name;
    std::optional<std::string> _old;
};

TEST(GpuDevice, OpensTheDeviceThatTheEnvironmentNamesOrExplainsWhyNot) {
    auto device = testing::SharedDevice();
    ASSERT_TRUE(device);
    EXPECT_FALSE(device->name().empty());
    EXPECT_GE(device->maximumTextureSize(), 4096u);
    {
        EnvironmentVariable wanted("QUORVA_VULKAN_DEVICE", device->name().substr(0, 4).c_str());
        auto named = GpuDevice::make();
        ASSERT_TRUE(named) << named.error().message();
        EXPECT_EQ(named.value()->name(), device->name());
    }
    {
        EnvironmentVariable wanted("QUORVA_VULKAN_DEVICE", "no such GPU");
        auto missing = GpuDevice::make();
        ASSERT_FALSE(missing);
        EXPECT_EQ(missing.error().domain(), "org.quorva.QuorvaRecorder.GPU");
        EXPECT_NE(missing.error().message().find("no such GPU"), std::string::npos);
        EXPECT_NE(missing.error().message().find(device->name()), std::string::npos) << "lists what there is";
    }
}

} // namespace
} // namespace quorva
