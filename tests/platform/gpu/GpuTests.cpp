// The device, its textures and its pipelines, on lavapipe where there is no GPU.
#include "platform/gpu/CommandBuffer.h"
#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/GpuDevice.h"
#include "platform/gpu/RenderPipeline.h"
#include "platform/gpu/Texture.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace quorva {
namespace {

using testing::MakeTexture;
using testing::SharedDevice;
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
    for (const Case& c : cases)
        EXPECT_EQ(ChooseGpu(c.candidates, c.wanted), c.chosen) << "case " << &c - cases;
}

TEST(GpuDevice, OpensTheDeviceThatTheEnvironmentNamesOrExplainsWhyNot) {
    auto device = SharedDevice();
    ASSERT_TRUE(device);
    testing::ScopedVariable variable("QUORVA_VULKAN_DEVICE");
    variable.set(device->name().substr(0, 4));
    auto named = GpuDevice::make();
    variable.set("no such GPU");
    auto missing = GpuDevice::make();
    ASSERT_TRUE(named) << named.error().message();
    EXPECT_EQ(named.value()->name(), device->name());
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().domain(), "org.quorva.QuorvaRecorder.GPU");
    EXPECT_NE(missing.error().message().find("no such GPU"), std::string::npos);
    EXPECT_NE(missing.error().message().find(device->name()), std::string::npos) << "lists what there is";
}

TEST(Texture, RefusesEmptyOversizedAndBadlyStridedPicturesAndOutsideRegions) {
    auto device = SharedDevice();
    ASSERT_TRUE(device);
    // (That the largest texture is made, and is large enough, the compositors' tests show with a picture
    // of 16384 square on Vulkan.)
    uint32_t largest = device->maximumTextureSize();
    for (auto [width, height] : {std::pair{0u, 10u}, {10u, 0u}, {largest + 1, 1u}, {1u, largest + 1}})
        EXPECT_FALSE(device->makeTexture(width, height)) << width << " × " << height;

    auto texture = device->makeTexture(8, 8);
    ASSERT_TRUE(texture);
    std::vector<uint8_t> bytes(64 * 8);
    EXPECT_FALSE(texture.value()->replace(bytes.data(), 31)) << "short rows";
    EXPECT_FALSE(texture.value()->replace(bytes.data(), 34)) << "rows in part pixels";
    ASSERT_TRUE(texture.value()->replace(bytes.data(), 32));
    // (Regions that reach past an edge, and the last pixel, are the picture engines' to check, whose
    // Vulkan engine reads its pictures through this.)
    EXPECT_FALSE(texture.value()->readPixels(0, 0, 0, 1));
}

// The least pipeline with 16 bytes of constants and a texture: what it draws is never looked at.
constexpr const char* CornerVertex =
    "#version 450\nvoid main() { gl_Position = vec4(0.0, 0.0, 0.0, 1.0); }\n";
constexpr const char* TintFragment = R"(#version 450
layout(push_constant) uniform Constants { vec4 tint; } constants;
layout(set = 0, binding = 0) uniform sampler2D picture;
layout(location = 0) out vec4 colour;
void main() { colour = texture(picture, vec2(0.5)) * constants.tint; }
)";

// A shader that does not compile is named with the line of its error. A draw whose push constants are
// longer than the pipeline declares fails the commit, which answers why.
TEST(RenderPipeline, ACompileErrorNamesTheShaderAndLineAndMisuseFailsTheCommitWithItsReason) {
    auto broken = CompileShader("#version 450\nvoid main() {\n  gl_Position = undefinedThing;\n}\n",
                                ShaderStage::Vertex, "brokenVertex");
    ASSERT_FALSE(broken);
    EXPECT_NE(broken.error().message().find("brokenVertex"), std::string::npos) << broken.error().message();
    EXPECT_NE(broken.error().message().find(":3:"), std::string::npos) << broken.error().message();

    auto queue = testing::MakeQueue();
    ASSERT_TRUE(queue);
    auto pipeline = RenderPipeline::make(
        queue->device(), {CornerVertex, "cornerVertex", TintFragment, "tintFragment", 16, true});
    ASSERT_TRUE(pipeline) << pipeline.error().message();
    auto buffer = queue->commandBuffer();
    ASSERT_TRUE(buffer);
    const std::vector<float> constants(8);
    buffer.value()->beginRendering(MakeTexture(4, 4), {0, 0, 0, 0});
    buffer.value()->setPipeline(pipeline.value());
    buffer.value()->setConstants(constants.data(), uint32_t(constants.size() * sizeof(float)));
    buffer.value()->setTexture(MakeTexture(4, 4), false);
    buffer.value()->draw(4);
    buffer.value()->endRendering();
    auto committed = buffer.value()->commit();
    ASSERT_FALSE(committed);
    EXPECT_NE(committed.error().message().find("onstants"), std::string::npos) << committed.error().message();
    EXPECT_FALSE(buffer.value()->commit()) << "twice";
}

} // namespace
} // namespace quorva
