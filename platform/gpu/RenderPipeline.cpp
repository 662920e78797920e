#include "platform/gpu/RenderPipeline.h"

#include <shaderc/shaderc.hpp>

#include <map>
#include <mutex>
#include <tuple>

namespace quorva {

namespace {

constexpr uint32_t SpirvMagic = 0x07230203;
constexpr uint32_t SpirvHeaderWords = 5;
constexpr uint32_t OpEntryPoint = 15;

// A SPIR-V literal string: its bytes, a terminating zero, padded with zeros to whole words.
std::vector<uint32_t> SpirvString(std::string_view text) {
    std::vector<uint32_t> words(text.size() / 4 + 1, 0);
    for (size_t i = 0; i < text.size(); ++i)
        words[i / 4] |= uint32_t(static_cast<unsigned char>(text[i])) << (8 * (i % 4));
    return words;
}

// GLSL insists on `main`; the entry point is renamed in the SPIR-V instead, which is all a name is.
std::optional<std::vector<uint32_t>> RenameEntryPoint(const std::vector<uint32_t>& module,
                                                      std::string_view name) {
    if (module.size() < SpirvHeaderWords || module[0] != SpirvMagic)
        return std::nullopt;
    std::vector<uint32_t> renamed(module.begin(), module.begin() + SpirvHeaderWords);
    const std::vector<uint32_t> main = SpirvString("main");
    bool found = false;
    for (size_t at = SpirvHeaderWords; at < module.size();) {
        uint32_t count = module[at] >> 16, opcode = module[at] & 0xffff;
        if (count == 0 || at + count > module.size())
            return std::nullopt;
        // OpEntryPoint: execution model, function, name, then the interface's ids.
        if (opcode == OpEntryPoint && count >= 3 + main.size() &&
            std::equal(main.begin(), main.end(), module.begin() + at + 3)) {
            std::vector<uint32_t> literal = SpirvString(name);
            renamed.push_back(uint32_t(count - main.size() + literal.size()) << 16 | OpEntryPoint);
            renamed.insert(renamed.end(), module.begin() + at + 1, module.begin() + at + 3);
            renamed.insert(renamed.end(), literal.begin(), literal.end());
            renamed.insert(renamed.end(), module.begin() + at + 3 + main.size(), module.begin() + at + count);
            found = true;
        } else {
            renamed.insert(renamed.end(), module.begin() + at, module.begin() + at + count);
        }
        at += count;
    }
    if (!found)
        return std::nullopt;
    return renamed;
}

vk::raii::ShaderModule MakeModule(const GpuDevice& device, const std::vector<uint32_t>& code) {
    return vk::raii::ShaderModule(device.device(), vk::ShaderModuleCreateInfo({}, code));
}

} // namespace

Result<std::vector<uint32_t>> CompileShader(std::string_view source, ShaderStage stage,
                                            std::string_view entryName) {
    // Compiling and optimising one shader takes a tenth of a second or more, and every movie recorder,
    // compositor and test pattern compiles the same few: a take's start would pay it once a movie.
    static std::mutex lock;
    static std::map<std::tuple<std::string, ShaderStage, std::string>, std::vector<uint32_t>> compiled;
    auto key = std::make_tuple(std::string(source), stage, std::string(entryName));
    {
        std::lock_guard guard(lock);
        if (auto found = compiled.find(key); found != compiled.end())
            return found->second;
    }
    shaderc::Compiler compiler;
    shaderc::CompileOptions options;
    options.SetTargetEnvironment(shaderc_target_env_vulkan, shaderc_env_version_vulkan_1_3);
    options.SetOptimizationLevel(shaderc_optimization_level_performance);
    std::string name(entryName);
    auto kind = stage == ShaderStage::Vertex     ? shaderc_vertex_shader
                : stage == ShaderStage::Fragment ? shaderc_fragment_shader
                                                 : shaderc_compute_shader;
    shaderc::SpvCompilationResult result =
        compiler.CompileGlslToSpv(source.data(), source.size(), kind, name.c_str(), "main", options);
    if (result.GetCompilationStatus() != shaderc_compilation_status_success)
        return GpuError("The shader " + name + " could not be compiled: " + result.GetErrorMessage());
    auto renamed = RenameEntryPoint(std::vector<uint32_t>(result.cbegin(), result.cend()), entryName);
    if (!renamed)
        return GpuError("The shader " + name + " has no entry point");
    std::lock_guard guard(lock);
    return compiled.emplace(std::move(key), std::move(*renamed)).first->second;
}

Result<std::shared_ptr<RenderPipeline>> RenderPipeline::make(std::shared_ptr<GpuDevice> device,
                                                             const RenderPipelineDescription& description) {
    if (description.constantsSize % 4 != 0 || description.constantsSize > 128)
        return GpuError("Shader constants must come in whole words, 128 bytes at most");
    Result<std::vector<uint32_t>> vertex =
        CompileShader(description.vertexSource, ShaderStage::Vertex, description.vertexEntry);
    if (!vertex)
        return vertex.error();
    Result<std::vector<uint32_t>> fragment =
        CompileShader(description.fragmentSource, ShaderStage::Fragment, description.fragmentEntry);
    if (!fragment)
        return fragment.error();
    std::string vertexEntry(description.vertexEntry), fragmentEntry(description.fragmentEntry);

    try {
        const vk::raii::Device& vulkan = device->device();
        vk::raii::DescriptorSetLayout setLayout(nullptr);
        if (description.samplesTexture) {
            // Textures are bound with push descriptors: nothing to allocate or recycle per draw.
            vk::Sampler sampler = device->linearSampler();
            vk::DescriptorSetLayoutBinding binding(0, vk::DescriptorType::eCombinedImageSampler, 1,
                                                   vk::ShaderStageFlagBits::eFragment, &sampler);
            setLayout = vk::raii::DescriptorSetLayout(
                vulkan, vk::DescriptorSetLayoutCreateInfo(
                            vk::DescriptorSetLayoutCreateFlagBits::ePushDescriptorKHR, binding));
        }
        vk::PushConstantRange constants(vk::ShaderStageFlagBits::eVertex | vk::ShaderStageFlagBits::eFragment,
                                        0, description.constantsSize);
        vk::PipelineLayoutCreateInfo layoutInfo;
        vk::DescriptorSetLayout setLayoutHandle = *setLayout;
        if (description.samplesTexture)
            layoutInfo.setSetLayouts(setLayoutHandle);
        if (description.constantsSize > 0)
            layoutInfo.setPushConstantRanges(constants);
        vk::raii::PipelineLayout layout(vulkan, layoutInfo);

        vk::raii::ShaderModule vertexModule = MakeModule(*device, vertex.value());
        vk::raii::ShaderModule fragmentModule = MakeModule(*device, fragment.value());
        vk::PipelineShaderStageCreateInfo stages[] = {
            {{}, vk::ShaderStageFlagBits::eVertex, *vertexModule, vertexEntry.c_str()},
            {{}, vk::ShaderStageFlagBits::eFragment, *fragmentModule, fragmentEntry.c_str()},
        };
        vk::PipelineVertexInputStateCreateInfo vertexInput;
        vk::PipelineInputAssemblyStateCreateInfo assembly({}, vk::PrimitiveTopology::eTriangleStrip);
        vk::PipelineViewportStateCreateInfo viewport({}, 1, nullptr, 1, nullptr);
        vk::PipelineRasterizationStateCreateInfo rasterization(
            {}, false, false, vk::PolygonMode::eFill, vk::CullModeFlagBits::eNone,
            vk::FrontFace::eCounterClockwise, false, 0, 0, 0, 1);
        vk::PipelineMultisampleStateCreateInfo multisample({}, vk::SampleCountFlagBits::e1);
        vk::PipelineColorBlendAttachmentState blend;
        blend.setBlendEnable(false).setColorWriteMask(
            vk::ColorComponentFlagBits::eR | vk::ColorComponentFlagBits::eG | vk::ColorComponentFlagBits::eB |
            vk::ColorComponentFlagBits::eA);
        vk::PipelineColorBlendStateCreateInfo blending({}, false, vk::LogicOp::eCopy, blend);
        vk::DynamicState dynamicStates[] = {vk::DynamicState::eViewport, vk::DynamicState::eScissor};
        vk::PipelineDynamicStateCreateInfo dynamic({}, dynamicStates);
        vk::Format format = description.targetFormat;
        vk::StructureChain<vk::GraphicsPipelineCreateInfo, vk::PipelineRenderingCreateInfo> chain;
        chain.get<vk::PipelineRenderingCreateInfo>().setColorAttachmentFormats(format);
        chain.get<vk::GraphicsPipelineCreateInfo>()
            .setStages(stages)
            .setPVertexInputState(&vertexInput)
            .setPInputAssemblyState(&assembly)
            .setPViewportState(&viewport)
            .setPRasterizationState(&rasterization)
            .setPMultisampleState(&multisample)
            .setPColorBlendState(&blending)
            .setPDynamicState(&dynamic)
            .setLayout(*layout);
        vk::raii::Pipeline pipeline(vulkan, nullptr, chain.get<vk::GraphicsPipelineCreateInfo>());
        return std::shared_ptr<RenderPipeline>(
            new RenderPipeline(std::move(device), std::move(setLayout), std::move(layout),
                               std::move(pipeline), description.constantsSize, description.samplesTexture));
    } catch (const std::exception& exception) {
        return GpuError("The pipeline of " + vertexEntry + " and " + fragmentEntry +
                        " could not be made: " + exception.what());
    }
}

RenderPipeline::RenderPipeline(std::shared_ptr<GpuDevice> device, vk::raii::DescriptorSetLayout setLayout,
                               vk::raii::PipelineLayout layout, vk::raii::Pipeline pipeline,
                               uint32_t constantsSize, bool samplesTexture)
    : _device(std::move(device)), _setLayout(std::move(setLayout)), _layout(std::move(layout)),
      _pipeline(std::move(pipeline)), _constantsSize(constantsSize), _samplesTexture(samplesTexture) {}

} // namespace quorva
