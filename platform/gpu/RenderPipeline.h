#pragma once

#include "platform/Error.h"
#include "platform/gpu/GpuDevice.h"
#include "platform/gpu/Texture.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <vulkan/vulkan_raii.hpp>

namespace quorva {

enum class ShaderStage { Vertex, Fragment, Compute };

// Compiles GLSL source text (whose function is `main`, as GLSL wants) to SPIR-V whose entry point is
// named `entryName`, so that pipelines and debuggers know the shader by its own name.
Result<std::vector<uint32_t>> CompileShader(std::string_view source, ShaderStage stage,
                                            std::string_view entryName);

// How to build a pipeline: two GLSL sources and the names their entry points take, the size of the
// push constants both shaders see (a multiple of 4, at most 128), and whether the fragment shader
// samples one texture (`layout(set = 0, binding = 0) uniform sampler2D`, linear, clamped to the edge).
struct RenderPipelineDescription {
    std::string_view vertexSource;
    std::string_view vertexEntry;
    std::string_view fragmentSource;
    std::string_view fragmentEntry;
    uint32_t constantsSize = 0;
    bool samplesTexture = false;
    // What it draws into: textures, or a window's swap chain images.
    vk::Format targetFormat = Texture::Format;
};

// A render pipeline compiled at run time: triangle strips drawn into one image, no blending (what is
// drawn replaces what was there). Immutable, and usable from any thread.
class RenderPipeline {
public:
    static Result<std::shared_ptr<RenderPipeline>> make(std::shared_ptr<GpuDevice> device,
                                                        const RenderPipelineDescription& description);

    RenderPipeline(const RenderPipeline&) = delete;
    RenderPipeline& operator=(const RenderPipeline&) = delete;

    vk::Pipeline pipeline() const { return *_pipeline; }
    vk::PipelineLayout layout() const { return *_layout; }
    uint32_t constantsSize() const { return _constantsSize; }
    bool samplesTexture() const { return _samplesTexture; }

private:
    RenderPipeline(std::shared_ptr<GpuDevice> device, vk::raii::DescriptorSetLayout setLayout,
                   vk::raii::PipelineLayout layout, vk::raii::Pipeline pipeline, uint32_t constantsSize,
                   bool samplesTexture);

    std::shared_ptr<GpuDevice> _device;
    vk::raii::DescriptorSetLayout _setLayout;
    vk::raii::PipelineLayout _layout;
    vk::raii::Pipeline _pipeline;
    uint32_t _constantsSize;
    bool _samplesTexture;
};

} // namespace quorva
