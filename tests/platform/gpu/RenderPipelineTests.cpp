#include "platform/gpu/CommandBuffer.h"
#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/RenderPipeline.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <string>

namespace quorva {
namespace {

using testing::Pixel;
using testing::Pixels;
using testing::SharedDevice;

// The names of a SPIR-V module's entry points.
std::vector<std::string> EntryPoints(const std::vector<uint32_t>& words) {
    std::vector<std::string> names;
    for (size_t at = 5; at < words.size() && (words[at] >> 16) > 0; at += words[at] >> 16) {
        if ((words[at] & 0xffff) == 15)
            names.emplace_back(reinterpret_cast<const char*>(&words[at + 3]));
    }
    return names;
}

constexpr const char* CopyVertex = R"(#version 450
layout(location = 0) out vec2 coordinate;
void main() {
    vec2 corner = vec2(gl_VertexIndex >> 1, gl_VertexIndex & 1);
    coordinate = vec2(corner.x, 1.0 - corner.y);
    gl_Position = vec4(corner * 2.0 - 1.0, 0.0, 1.0);
}
)";

constexpr const char* CopyFragment = R"(#version 450
layout(push_constant) uniform Constants { vec4 tint; } constants;
layout(set = 0, binding = 0) uniform sampler2D picture;
layout(location = 0) in vec2 coordinate;
layout(location = 0) out vec4 colour;
void main() {
    colour = texture(picture, coordinate) * constants.tint;
}
)";

TEST(CompileShader, NamesTheEntryPointAsAskedThoughGlslCallsItMain) {
    auto vertex = CompileShader(CopyVertex, ShaderStage::Vertex, "sourceVertex");
    ASSERT_TRUE(vertex) << vertex.error().message();
    EXPECT_EQ(EntryPoints(vertex.value()), std::vector<std::string>{"sourceVertex"});
    // A name of a whole number of words needs a padding word of its own.
    auto fragment = CompileShader(CopyFragment, ShaderStage::Fragment, "frameFrag");
    ASSERT_TRUE(fragment) << fragment.error().message();
    EXPECT_EQ(EntryPoints(fragment.value()), std::vector<std::string>{"frameFrag"});
    auto fourLetters = CompileShader(CopyFragment, ShaderStage::Fragment, "copy");
    ASSERT_TRUE(fourLetters);
    EXPECT_EQ(EntryPoints(fourLetters.value()), std::vector<std::string>{"copy"});
}

TEST(CompileShader, ReportsTheShaderAndTheLineOfAnError) {
    auto broken = CompileShader("#version 450\nvoid main() {\n  gl_Position = undefinedThing;\n}\n",
                                ShaderStage::Vertex, "brokenVertex");
    ASSERT_FALSE(broken);
    EXPECT_NE(broken.error().message().find("brokenVertex"), std::string::npos) << broken.error().message();
    EXPECT_NE(broken.error().message().find(":3:"), std::string::npos) << broken.error().message();
}

class RenderPipelineTest : public ::testing::Test {
protected:
    void SetUp() override {
        device = SharedDevice();
        ASSERT_TRUE(device);
        auto made =
            RenderPipeline::make(device, {CopyVertex, "copyVertex", CopyFragment, "copyFragment", 16, true});
        ASSERT_TRUE(made) << made.error().message();
        pipeline = made.value();
        auto madeQueue = CommandQueue::make(device);
        ASSERT_TRUE(madeQueue);
        queue = madeQueue.value();
    }

    std::shared_ptr<Texture> copy(const std::shared_ptr<Texture>& source, bool opaque,
                                  std::array<float, 4> tint) {
        auto target = device->makeTexture(source->width(), source->height());
        auto buffer = queue->commandBuffer();
        if (!target || !buffer)
            return nullptr;
        buffer.value()->beginRendering(target.value(), {0, 0, 0, 0});
        buffer.value()->setPipeline(pipeline);
        buffer.value()->setConstants(tint.data(), 16);
        buffer.value()->setTexture(source, opaque);
        buffer.value()->draw(4);
        buffer.value()->endRendering();
        Result<void> committed = buffer.value()->commit();
        EXPECT_TRUE(committed) << committed.error().message();
        return target.value();
    }

    std::shared_ptr<GpuDevice> device;
    std::shared_ptr<RenderPipeline> pipeline;
    std::shared_ptr<CommandQueue> queue;
};

Pixel Pattern(uint32_t x, uint32_t y) {
    return {uint8_t(16 * x), uint8_t(30 * y), uint8_t(x == 0 ? 255 : 0), 64};
}

TEST_F(RenderPipelineTest, DrawsTheFirstRowOfATextureAtTheTopPixelForPixel) {
    auto source = testing::MakeTexture(16, 8, Pattern);
    auto target = copy(source, false, {1, 1, 1, 1});
    ASSERT_TRUE(target);
    Pixels pixels(target);
    for (uint32_t y = 0; y < 8; ++y) {
        for (uint32_t x = 0; x < 16; ++x)
            ASSERT_EQ(pixels.at(x, y), Pattern(x, y)) << x << ", " << y;
    }
}

TEST_F(RenderPipelineTest, TheOpaqueViewReadsAlphaAsOneAndLeavesColoursAlone) {
    auto source = testing::MakeTexture(16, 8, Pattern);
    auto target = copy(source, true, {1, 1, 1, 1});
    ASSERT_TRUE(target);
    Pixels pixels(target);
    Pixel expected = Pattern(3, 5);
    expected.a = 255;
    EXPECT_EQ(pixels.at(3, 5), expected);
    auto halved = copy(source, true, {1, 1, 1, 0.5f});
    EXPECT_EQ(Pixels(halved).at(3, 5).a, 128) << "constants reach the fragment shader";
}

TEST_F(RenderPipelineTest, MisuseFailsTheCommitWithItsReason) {
    auto buffer = queue->commandBuffer();
    ASSERT_TRUE(buffer);
    auto target = device->makeTexture(4, 4);
    buffer.value()->beginRendering(target.value(), {0, 0, 0, 1});
    buffer.value()->setPipeline(pipeline);
    float tooMany[8] = {};
    buffer.value()->setConstants(tooMany, sizeof tooMany);
    buffer.value()->endRendering();
    auto committed = buffer.value()->commit();
    ASSERT_FALSE(committed);
    EXPECT_NE(committed.error().message().find("onstants"), std::string::npos) << committed.error().message();
    EXPECT_FALSE(buffer.value()->commit()) << "twice";
}

} // namespace
} // namespace quorva
