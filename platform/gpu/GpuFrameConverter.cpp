#include "platform/gpu/GpuPictureEngine.h"

#include "platform/MemoryPicture.h"
#include "platform/gpu/CommandBuffer.h"
#include "platform/gpu/RenderPipeline.h"

#include <algorithm>
#include <mutex>

namespace quorva {

namespace {

// One invocation writes whole 32-bit words of every plane: a block of 8 × 2 pixels for 4:2:0 (two words
// of luma a row, one of each chroma), 4 × 1 for 10-bit 4:2:2, 2 × 1 for 10-bit 4:4:4 with alpha, one
// pixel for BGRA. Rows of the writer's planes are padded to 64 bytes, so a block that runs past the
// right edge writes into padding, never into the next row.
struct Block {
    uint32_t width, height;
};

Block BlockOf(FrameLayout layout) {
    switch (layout) {
    case FrameLayout::YUV420P:
        return {8, 2};
    case FrameLayout::YUV422P10:
        return {4, 1};
    case FrameLayout::YUVA444P10:
        return {2, 1};
    case FrameLayout::BGRA:
        break;
    }
    return {1, 1};
}

struct Constants {
    int32_t size[2];
    float extent[2]; // half-extents of the fitted picture in clip space
    float flipped;
    float opaque; // 1: bars black and every pixel opaque; 0: bars clear, pictures keep their alpha
    int32_t layout;
    int32_t padding;
    uint32_t offsets[4]; // in words
    uint32_t strides[4]; // in words
};

constexpr const char* ShaderSource = R"(#version 450
layout(local_size_x = 8, local_size_y = 8) in;
layout(push_constant) uniform Constants {
    ivec2 size;
    vec2 extent;
    float flipped;
    float opaque;
    int kind;
    int padding;
    uvec4 offsets;
    uvec4 strides;
} c;
layout(set = 0, binding = 0) uniform sampler2D source;
layout(std430, set = 0, binding = 1) writeonly buffer Frame { uint words[]; };

// The picture at the centre of pixel p: the source where the fitted quad covers it, else a bar.
vec4 pictureAt(ivec2 p) {
    vec2 n = (vec2(p) + 0.5) / vec2(c.size);
    vec2 clip = vec2(2.0 * n.x - 1.0, 1.0 - 2.0 * n.y);
    vec2 t = (clip + c.extent) / (2.0 * c.extent);
    if (any(lessThan(t, vec2(0.0))) || any(greaterThan(t, vec2(1.0))))
        return vec4(0.0, 0.0, 0.0, c.opaque);
    vec4 s = textureLod(source, vec2(t.x, c.flipped > 0.5 ? t.y : 1.0 - t.y), 0.0);
    return vec4(s.rgb, max(s.a, c.opaque));
}

// BT.709, limited range, on the 8-bit scale.
vec3 yuv(vec3 rgb) {
    float y = dot(rgb, vec3(0.2126, 0.7152, 0.0722));
    return vec3(16.0 + 219.0 * y, 128.0 + 224.0 * (rgb.b - y) / 1.8556, 128.0 + 224.0 * (rgb.r - y) / 1.5748);
}

uint byte8(float v) { return uint(clamp(round(v), 0.0, 255.0)); }
uint ten(float v) { return uint(clamp(round(v * 4.0), 0.0, 1023.0)); }
uint word(uint plane, uint row, uint column) { return c.offsets[plane] + row * c.strides[plane] + column; }

void main() {
    uvec2 b = gl_GlobalInvocationID.xy;
    if (c.kind == 0) {
        ivec2 p = ivec2(b) * ivec2(8, 2);
        if (p.x >= c.size.x || p.y >= c.size.y) return;
        uint u = 0u, v = 0u;
        uint top0 = 0u, top1 = 0u, bottom0 = 0u, bottom1 = 0u;
        for (int i = 0; i < 4; ++i) {
            vec3 a = yuv(pictureAt(p + ivec2(2 * i, 0)).rgb), e = yuv(pictureAt(p + ivec2(2 * i + 1, 0)).rgb);
            vec3 f = yuv(pictureAt(p + ivec2(2 * i, 1)).rgb), g = yuv(pictureAt(p + ivec2(2 * i + 1, 1)).rgb);
            uint shift = uint(16 * (i % 2));
            uint top = byte8(a.x) | byte8(e.x) << 8u, bottom = byte8(f.x) | byte8(g.x) << 8u;
            if (i < 2) { top0 |= top << shift; bottom0 |= bottom << shift; }
            else { top1 |= top << shift; bottom1 |= bottom << shift; }
            vec2 chroma = (a.yz + e.yz + f.yz + g.yz) * 0.25;
            u |= byte8(chroma.x) << uint(8 * i);
            v |= byte8(chroma.y) << uint(8 * i);
        }
        words[word(0u, uint(p.y), 2u * b.x)] = top0;
        words[word(0u, uint(p.y), 2u * b.x + 1u)] = top1;
        words[word(0u, uint(p.y) + 1u, 2u * b.x)] = bottom0;
        words[word(0u, uint(p.y) + 1u, 2u * b.x + 1u)] = bottom1;
        words[word(1u, b.y, b.x)] = u;
        words[word(2u, b.y, b.x)] = v;
    } else if (c.kind == 1) {
        ivec2 p = ivec2(b) * ivec2(4, 1);
        if (p.x >= c.size.x || p.y >= c.size.y) return;
        vec3 s0 = yuv(pictureAt(p).rgb), s1 = yuv(pictureAt(p + ivec2(1, 0)).rgb);
        vec3 s2 = yuv(pictureAt(p + ivec2(2, 0)).rgb), s3 = yuv(pictureAt(p + ivec2(3, 0)).rgb);
        vec2 c0 = (s0.yz + s1.yz) * 0.5, c1 = (s2.yz + s3.yz) * 0.5;
        words[word(0u, b.y, 2u * b.x)] = ten(s0.x) | ten(s1.x) << 16u;
        words[word(0u, b.y, 2u * b.x + 1u)] = ten(s2.x) | ten(s3.x) << 16u;
        words[word(1u, b.y, b.x)] = ten(c0.x) | ten(c1.x) << 16u;
        words[word(2u, b.y, b.x)] = ten(c0.y) | ten(c1.y) << 16u;
    } else if (c.kind == 2) {
        ivec2 p = ivec2(b) * ivec2(2, 1);
        if (p.x >= c.size.x || p.y >= c.size.y) return;
        vec4 q0 = pictureAt(p), q1 = pictureAt(p + ivec2(1, 0));
        vec3 s0 = yuv(q0.rgb), s1 = yuv(q1.rgb);
        words[word(0u, b.y, b.x)] = ten(s0.x) | ten(s1.x) << 16u;
        words[word(1u, b.y, b.x)] = ten(s0.y) | ten(s1.y) << 16u;
        words[word(2u, b.y, b.x)] = ten(s0.z) | ten(s1.z) << 16u;
        uint a0 = uint(round(clamp(q0.a, 0.0, 1.0) * 1023.0)), a1 = uint(round(clamp(q1.a, 0.0, 1.0) * 1023.0));
        words[word(3u, b.y, b.x)] = a0 | a1 << 16u;
    } else {
        ivec2 p = ivec2(b);
        if (p.x >= c.size.x || p.y >= c.size.y) return;
        words[word(0u, b.y, b.x)] = packUnorm4x8(pictureAt(p).bgra);
    }
}
)";

// Memory in which the GPU leaves a picture for the processor. Cached memory first: the encoder reads
// every byte, and reads from uncached (write-combined) memory crawl.
struct HostMemory final : FrameMemory {
    HostMemory(std::shared_ptr<GpuDevice> device, vk::raii::Buffer buffer, vk::raii::DeviceMemory memory,
               uint8_t* bytes, size_t size, bool coherent)
        : device(std::move(device)), buffer(std::move(buffer)), memory(std::move(memory)), bytes(bytes),
          length(size), coherent(coherent) {}
    uint8_t* data() const override { return bytes; }
    size_t size() const override { return length; }

    std::shared_ptr<GpuDevice> device; // first, so that it goes last: memory may outlive its converter
    vk::raii::Buffer buffer;
    vk::raii::DeviceMemory memory;
    uint8_t* bytes;
    size_t length;
    bool coherent;
};

Result<std::unique_ptr<HostMemory>> MakeHostMemory(const std::shared_ptr<GpuDevice>& device, size_t size) {
    try {
        vk::raii::Buffer buffer(device->device(),
                                vk::BufferCreateInfo({}, size, vk::BufferUsageFlagBits::eStorageBuffer));
        vk::MemoryRequirements requirements = buffer.getMemoryRequirements();
        using P = vk::MemoryPropertyFlagBits;
        const vk::MemoryPropertyFlags choices[] = {P::eHostVisible | P::eHostCoherent | P::eHostCached,
                                                   P::eHostVisible | P::eHostCached,
                                                   P::eHostVisible | P::eHostCoherent};
        for (vk::MemoryPropertyFlags wanted : choices) {
            std::optional<uint32_t> type = device->memoryType(requirements.memoryTypeBits, wanted);
            if (!type)
                continue;
            vk::raii::DeviceMemory memory(device->device(), vk::MemoryAllocateInfo(requirements.size, *type));
            buffer.bindMemory(*memory, 0);
            auto* bytes = static_cast<uint8_t*>(memory.mapMemory(0, VK_WHOLE_SIZE));
            return std::make_unique<HostMemory>(device, std::move(buffer), std::move(memory), bytes, size,
                                                bool(wanted & P::eHostCoherent));
        }
        return GpuError("No memory that the processor can read holds a movie picture");
    } catch (const std::exception& exception) {
        return GpuError(std::string("No memory for a movie picture: ") + exception.what());
    }
}

// Idle memory of one size. Memory in use holds the pool and comes back to it; memory of another size,
// or that comes back after forget(), is freed.
struct Pool {
    std::mutex lock;
    size_t size = 0;
    std::vector<std::unique_ptr<HostMemory>> idle;

    void forget() {
        std::vector<std::unique_ptr<HostMemory>> dropped;
        std::lock_guard guard(lock);
        dropped.swap(idle);
        size = 0;
    }
};

} // namespace

// Targets of a converter's compositions: one being drawn and those whose conversion is in flight.
constexpr size_t KeptTargets = 4;

// The pass that turns a picture into a movie's picture in one GPU dispatch, straight into host-visible
// memory, so that the encoder reads what the GPU wrote, uncopied. A composition is drawn first into a
// target of the converter's own, in the same command buffer, which the pass then converts: the
// processor only records commands.
class GpuFrameConverter final : public FrameConverter {
public:
    struct State;
    GpuFrameConverter(std::shared_ptr<State> state, std::shared_ptr<GpuPictureEngine> engine)
        : _state(std::move(state)), _engine(std::move(engine)) {}
    ~GpuFrameConverter() override;

    Result<> convert(const std::shared_ptr<Picture>& picture, bool flipped, bool transparent,
                     const FrameFormat& format, Completion completion) override;
    Result<> compose(const std::vector<PicturePlacement>& placements, bool transparent,
                     const FrameFormat& format, Completion completion) override;
    Result<> prepare(const FrameFormat& format) override;
    void forgetPool() override;

private:
    // Memory of `format`'s size from the pool, or new; it goes back to the pool when let go.
    Result<std::shared_ptr<HostMemory>> take(const FrameFormat& format);
    // Records the pass that converts `texture` into `memory`, then commits `commands` with `completion`
    // to follow.
    Result<> convertAndCommit(CommandBuffer& commands, const std::shared_ptr<Texture>& texture, bool flipped,
                              bool transparent, const FrameFormat& format, std::shared_ptr<HostMemory> memory,
                              Completion completion);

    std::shared_ptr<State> _state;
    std::shared_ptr<GpuPictureEngine> _engine;
};

struct GpuFrameConverter::State {
    std::shared_ptr<CommandQueue> queue;
    std::shared_ptr<GpuDevice> device;
    vk::raii::DescriptorSetLayout setLayout{nullptr};
    vk::raii::PipelineLayout layout{nullptr};
    vk::raii::Pipeline pipeline{nullptr};
    std::shared_ptr<Pool> pool = std::make_shared<Pool>();
    // Compositions only, made at the first: most converters never compose.
    std::shared_ptr<RenderPipeline> quad;
    PicturePool<Texture> targets{KeptTargets};
};

Result<std::unique_ptr<FrameConverter>> GpuPictureEngine::makeFrameConverter() {
    Result<std::shared_ptr<CommandQueue>> queue = CommandQueue::make(_device);
    if (!queue)
        return queue.error();
    Result<std::vector<uint32_t>> code = CompileShader(ShaderSource, ShaderStage::Compute, "frameConvert");
    if (!code)
        return code.error();
    auto state = std::make_unique<GpuFrameConverter::State>();
    state->device = _device;
    state->queue = std::move(queue.value());
    try {
        const vk::raii::Device& vulkan = state->device->device();
        vk::Sampler sampler = state->device->linearSampler();
        const vk::DescriptorSetLayoutBinding bindings[] = {
            {0, vk::DescriptorType::eCombinedImageSampler, 1, vk::ShaderStageFlagBits::eCompute, &sampler},
            {1, vk::DescriptorType::eStorageBuffer, 1, vk::ShaderStageFlagBits::eCompute, nullptr},
        };
        state->setLayout = vk::raii::DescriptorSetLayout(
            vulkan, vk::DescriptorSetLayoutCreateInfo(
                        vk::DescriptorSetLayoutCreateFlagBits::ePushDescriptorKHR, bindings));
        vk::PushConstantRange constants(vk::ShaderStageFlagBits::eCompute, 0, sizeof(Constants));
        vk::DescriptorSetLayout setLayout = *state->setLayout;
        state->layout =
            vk::raii::PipelineLayout(vulkan, vk::PipelineLayoutCreateInfo({}, setLayout, constants));
        vk::raii::ShaderModule module(vulkan, vk::ShaderModuleCreateInfo({}, code.value()));
        vk::ComputePipelineCreateInfo info(
            {},
            vk::PipelineShaderStageCreateInfo({}, vk::ShaderStageFlagBits::eCompute, *module, "frameConvert"),
            *state->layout);
        state->pipeline = vk::raii::Pipeline(vulkan, nullptr, info);
    } catch (const std::exception& exception) {
        return GpuError(std::string("The frame conversion pass could not be made: ") + exception.what());
    }
    return std::unique_ptr<FrameConverter>(new GpuFrameConverter(
        std::shared_ptr<GpuFrameConverter::State>(std::move(state)), shared_from_this()));
}

GpuFrameConverter::~GpuFrameConverter() {
    _state->pool->forget();
}

Result<> GpuFrameConverter::prepare(const FrameFormat& format) {
    Result<std::unique_ptr<HostMemory>> made = MakeHostMemory(_state->device, format.bytes);
    if (!made)
        return made.error();
    std::lock_guard guard(_state->pool->lock);
    if (_state->pool->size != format.bytes) {
        _state->pool->idle.clear();
        _state->pool->size = format.bytes;
    }
    _state->pool->idle.push_back(std::move(made.value()));
    return {};
}

void GpuFrameConverter::forgetPool() {
    _state->pool->forget();
}

Result<std::shared_ptr<HostMemory>> GpuFrameConverter::take(const FrameFormat& format) {
    State& s = *_state;
    std::unique_ptr<HostMemory> taken;
    {
        std::lock_guard guard(s.pool->lock);
        if (s.pool->size != format.bytes) {
            s.pool->idle.clear();
            s.pool->size = format.bytes;
        }
        if (!s.pool->idle.empty()) {
            taken = std::move(s.pool->idle.back());
            s.pool->idle.pop_back();
        }
    }
    if (!taken) {
        Result<std::unique_ptr<HostMemory>> made = MakeHostMemory(s.device, format.bytes);
        if (!made)
            return made.error();
        taken = std::move(made.value());
    }
    return std::shared_ptr<HostMemory>(taken.release(), [pool = s.pool](HostMemory* memory) {
        std::unique_ptr<HostMemory> owned(memory);
        std::lock_guard guard(pool->lock);
        if (pool->size == owned->size())
            pool->idle.push_back(std::move(owned));
    });
}

Result<> GpuFrameConverter::convert(const std::shared_ptr<Picture>& picture, bool flipped, bool transparent,
                                    const FrameFormat& format, Completion completion) {
    Result<std::shared_ptr<Texture>> uploaded = _engine->texture(picture);
    if (!uploaded)
        return uploaded.error();
    Result<std::shared_ptr<HostMemory>> memory = take(format);
    if (!memory)
        return memory.error();
    Result<std::shared_ptr<CommandBuffer>> made = _state->queue->commandBuffer();
    if (!made)
        return made.error();
    return convertAndCommit(*made.value(), uploaded.value(), flipped, transparent, format,
                            std::move(memory.value()), std::move(completion));
}

Result<> GpuFrameConverter::compose(const std::vector<PicturePlacement>& placements, bool transparent,
                                    const FrameFormat& format, Completion completion) {
    State& s = *_state;
    if (!s.quad) {
        Result<std::shared_ptr<RenderPipeline>> quad = MakeQuadPipeline(s.device);
        if (!quad)
            return quad.error();
        s.quad = std::move(quad.value());
    }
    Result<std::shared_ptr<Texture>> target = s.targets.take(
        format.width, format.height, [&s](uint32_t w, uint32_t h) { return s.device->makeTexture(w, h); });
    if (!target)
        return target.error();
    Result<std::shared_ptr<HostMemory>> memory = take(format);
    if (!memory)
        return memory.error();
    Result<std::shared_ptr<CommandBuffer>> made = s.queue->commandBuffer();
    if (!made)
        return made.error();
    if (Result<> drawn = _engine->draw(*made.value(), s.quad, target.value(), placements, transparent);
        !drawn)
        return drawn.error();
    return convertAndCommit(*made.value(), target.value(), false, transparent, format,
                            std::move(memory.value()), std::move(completion));
}

Result<> GpuFrameConverter::convertAndCommit(CommandBuffer& commands, const std::shared_ptr<Texture>& texture,
                                             bool flipped, bool transparent, const FrameFormat& format,
                                             std::shared_ptr<HostMemory> memory, Completion completion) {
    State& s = *_state;
    if (!texture || format.width < 1 || format.height < 1 || format.planes.empty() ||
        format.planes.size() > 4)
        return GpuError("Nothing to convert");
    Constants constants{};
    constants.size[0] = int32_t(format.width);
    constants.size[1] = int32_t(format.height);
    const std::array<float, 2> extent =
        FitExtents(texture->width(), texture->height(), format.width, format.height);
    constants.extent[0] = extent[0];
    constants.extent[1] = extent[1];
    constants.flipped = flipped ? 1 : 0;
    constants.opaque = transparent ? 0 : 1;
    constants.layout = int32_t(format.layout);
    for (size_t i = 0; i < format.planes.size(); ++i) {
        constants.offsets[i] = uint32_t(format.planes[i].offset / 4);
        constants.strides[i] = uint32_t(format.planes[i].stride / 4);
    }
    const Block block = BlockOf(format.layout);
    const uint32_t groupsX = ((format.width + block.width - 1) / block.width + 7) / 8;
    const uint32_t groupsY = ((format.height + block.height - 1) / block.height + 7) / 8;

    commands.record(
        [&](const vk::raii::CommandBuffer& buffer) {
            buffer.bindPipeline(vk::PipelineBindPoint::eCompute, *s.pipeline);
            vk::DescriptorImageInfo image(nullptr, texture->view(), Texture::RestingLayout);
            vk::DescriptorBufferInfo bytes(*memory->buffer, 0, VK_WHOLE_SIZE);
            const vk::WriteDescriptorSet writes[] = {
                {nullptr, 0, 0, vk::DescriptorType::eCombinedImageSampler, image},
                {nullptr, 1, 0, vk::DescriptorType::eStorageBuffer, nullptr, bytes},
            };
            buffer.pushDescriptorSetKHR(vk::PipelineBindPoint::eCompute, *s.layout, 0, writes);
            buffer.pushConstants<Constants>(*s.layout, vk::ShaderStageFlagBits::eCompute, 0, constants);
            buffer.dispatch(groupsX, groupsY, 1);
            // The processor reads the picture once the GPU has completed.
            vk::BufferMemoryBarrier2 toHost(
                vk::PipelineStageFlagBits2::eComputeShader, vk::AccessFlagBits2::eShaderWrite,
                vk::PipelineStageFlagBits2::eHost, vk::AccessFlagBits2::eHostRead, VK_QUEUE_FAMILY_IGNORED,
                VK_QUEUE_FAMILY_IGNORED, *memory->buffer, 0, VK_WHOLE_SIZE);
            buffer.pipelineBarrier2(vk::DependencyInfo({}, {}, toHost, {}));
        },
        // The pass's pipeline stays while the GPU may still run it, even if this converter goes first.
        std::make_shared<std::pair<std::shared_ptr<Texture>, std::shared_ptr<State>>>(texture, _state));
    std::shared_ptr<GpuDevice> device = s.device;
    commands.addCompletedHandler([memory, device, completion = std::move(completion)]() mutable {
        if (!memory->coherent)
            device->device().invalidateMappedMemoryRanges(
                vk::MappedMemoryRange(*memory->memory, 0, VK_WHOLE_SIZE));
        completion(std::move(memory));
    });
    return commands.commit();
}

} // namespace quorva
