#include "platform/gpu/CommandBuffer.h"
#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/RenderPipeline.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace quorva {
namespace {

using testing::MakeSolidTexture;
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
    // A name of a whole number of words needs a padding word of its own.
    for (auto [source, stage, name] : {std::tuple{CopyVertex, ShaderStage::Vertex, "sourceVertex"},
                                       std::tuple{CopyFragment, ShaderStage::Fragment, "frameFrag"}}) {
        auto compiled = CompileShader(source, stage, name);
        ASSERT_TRUE(compiled) << compiled.error().message();
        EXPECT_EQ(EntryPoints(compiled.value()), std::vector<std::string>{name});
    }
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
        ASSERT_TRUE(SharedDevice());
        auto made = RenderPipeline::make(SharedDevice(),
                                         {CopyVertex, "copyVertex", CopyFragment, "copyFragment", 16, true});
        ASSERT_TRUE(made) << made.error().message();
        pipeline = made.value();
        queue = testing::MakeQueue();
        ASSERT_TRUE(queue);
    }

    // A buffer, not yet committed, that draws `source` over all of `target` with `constants`.
    std::shared_ptr<CommandBuffer> record(const std::shared_ptr<Texture>& target,
                                          const std::shared_ptr<Texture>& source, bool opaque,
                                          std::vector<float> constants) {
        auto buffer = queue->commandBuffer();
        EXPECT_TRUE(buffer);
        buffer.value()->beginRendering(target, {0, 0, 0, 0});
        buffer.value()->setPipeline(pipeline);
        buffer.value()->setConstants(constants.data(), uint32_t(constants.size() * sizeof(float)));
        buffer.value()->setTexture(source, opaque);
        buffer.value()->draw(4);
        buffer.value()->endRendering();
        return buffer.value();
    }

    std::shared_ptr<RenderPipeline> pipeline;
    std::shared_ptr<CommandQueue> queue;
};

TEST_F(RenderPipelineTest, MisuseFailsTheCommitWithItsReason) {
    auto buffer =
        record(MakeSolidTexture(4, 4, {}), MakeSolidTexture(4, 4, {}), false, std::vector<float>(8));
    auto committed = buffer->commit();
    ASSERT_FALSE(committed);
    EXPECT_NE(committed.error().message().find("onstants"), std::string::npos) << committed.error().message();
    EXPECT_FALSE(buffer->commit()) << "twice";
}

} // namespace
} // namespace quorva
