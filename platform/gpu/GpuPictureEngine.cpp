#include "platform/gpu/GpuPictureEngine.h"

#include "platform/MemoryPicture.h"
#include "platform/gpu/CommandBuffer.h"
#include "platform/gpu/RenderPipeline.h"

#include <array>

namespace quorva {

namespace {

// Uploads a busy source keeps in flight: the one being drawn, those queued for the encoders and the
// latest one held for composition.
constexpr size_t KeptUploads = 8;
// Targets of one compositor (the monitor's): the one being drawn, the latest one shown, and one more
// that each of the preview's two frames in flight may still sample.
constexpr size_t KeptTargets = 4;

constexpr uint32_t VerticesSize = sizeof(QuadConstants::vertices);

constexpr const char* VertexSource = R"(#version 450
layout(push_constant) uniform Constants {
    vec4 vertices[4];
    float opaque;
} constants;
layout(location = 0) out vec2 textureCoordinate;
void main() {
    vec4 vertex = constants.vertices[gl_VertexIndex];
    gl_Position = vec4(vertex.xy, 0.0, 1.0);
    textureCoordinate = vertex.zw;
}
)";

constexpr const char* FragmentSource = R"(#version 450
layout(push_constant) uniform Constants {
    vec4 vertices[4];
    float opaque;
} constants;
layout(set = 0, binding = 0) uniform sampler2D source;
layout(location = 0) in vec2 textureCoordinate;
layout(location = 0) out vec4 colour;
void main() {
    vec4 sampled = texture(source, textureCoordinate);
    colour = vec4(sampled.rgb, max(sampled.a, constants.opaque));
}
)";

// A triangle strip over the placement, in clip space with the target's top-left corner at (−1, 1). A
// flipped picture is stored bottom-up, so its first row goes to the bottom.
std::array<float, 16> Vertices(const PicturePlacement& placement, uint32_t width, uint32_t height) {
    const double w = width, h = height;
    float left = float(2 * double(placement.x) / w - 1);
    float right = float(2 * double(placement.x + placement.width) / w - 1);
    float top = float(1 - 2 * double(placement.y) / h);
    float bottom = float(1 - 2 * double(placement.y + placement.height) / h);
    float t = placement.flipped ? 1 : 0, u = 1 - t;
    return {left, bottom, 0, u, left, top, 0, t, right, bottom, 1, u, right, top, 1, t};
}

// Render passes on the engine's one composition queue.
class GpuCompositor final : public PictureCompositor {
public:
    GpuCompositor(std::shared_ptr<GpuPictureEngine> engine, std::shared_ptr<CommandQueue> queue,
                  std::shared_ptr<RenderPipeline> pipeline)
        : _engine(std::move(engine)), _queue(std::move(queue)), _pipeline(std::move(pipeline)) {}

    Result<std::shared_ptr<Picture>> compose(uint32_t width, uint32_t height,
                                             const std::vector<PicturePlacement>& placements,
                                             bool transparent, Completion completion) override {
        Result<std::shared_ptr<Texture>> target = _targets.take(
            width, height, [this](uint32_t w, uint32_t h) { return _engine->device()->makeTexture(w, h); });
        if (!target)
            return target.error();
        Result<std::shared_ptr<CommandBuffer>> made = _queue->commandBuffer();
        if (!made)
            return made.error();
        CommandBuffer& buffer = *made.value();
        if (Result<> drawn = _engine->draw(buffer, _pipeline, target.value(), placements, transparent);
            !drawn)
            return drawn.error();
        if (completion)
            buffer.addCompletedHandler(
                [completion = std::move(completion), drawn = target.value()] { completion(drawn); });
        Result<void> committed = buffer.commit();
        if (!committed)
            return committed.error();
        return std::shared_ptr<Picture>(target.value());
    }

private:
    std::shared_ptr<GpuPictureEngine> _engine;
    std::shared_ptr<CommandQueue> _queue;
    std::shared_ptr<RenderPipeline> _pipeline;
    PicturePool<Texture> _targets{KeptTargets};
};

} // namespace

Result<std::shared_ptr<GpuPictureEngine>> GpuPictureEngine::make(std::shared_ptr<GpuDevice> device) {
    Result<std::shared_ptr<CommandQueue>> queue = CommandQueue::make(device);
    if (!queue)
        return queue.error();
    return std::shared_ptr<GpuPictureEngine>(
        new GpuPictureEngine(std::move(device), std::move(queue.value())));
}

GpuPictureEngine::GpuPictureEngine(std::shared_ptr<GpuDevice> device,
                                   std::shared_ptr<CommandQueue> compositions)
    : _device(std::move(device)), _compositions(std::move(compositions)), _uploads(KeptUploads) {}

std::string GpuPictureEngine::name() const {
    return "Vulkan on " + _device->name();
}

Result<std::shared_ptr<Picture>> GpuPictureEngine::adopt(const std::shared_ptr<MemoryPicture>& picture) {
    Result<std::shared_ptr<Texture>> texture = this->texture(picture);
    if (!texture)
        return texture.error();
    return std::shared_ptr<Picture>(std::move(texture.value()));
}

Result<std::shared_ptr<Texture>> GpuPictureEngine::texture(const std::shared_ptr<Picture>& picture) {
    if (auto texture = std::dynamic_pointer_cast<Texture>(picture))
        return texture;
    auto memory = std::dynamic_pointer_cast<MemoryPicture>(picture);
    if (!memory)
        return GpuError("Nothing to draw");
    Result<std::shared_ptr<Texture>> texture =
        _uploads.take(memory->width(), memory->height(),
                      [this](uint32_t w, uint32_t h) { return _device->makeTexture(w, h); });
    if (!texture)
        return texture;
    if (Result<void> replaced = texture.value()->replace(memory->bytes(), memory->stride()); !replaced)
        return replaced.error();
    return texture;
}

Result<std::vector<uint8_t>> GpuPictureEngine::readPixels(const std::shared_ptr<Picture>& picture, uint32_t x,
                                                          uint32_t y, uint32_t width, uint32_t height) {
    if (auto memory = std::dynamic_pointer_cast<MemoryPicture>(picture))
        return memory->readPixels(x, y, width, height);
    auto texture = std::dynamic_pointer_cast<Texture>(picture);
    if (!texture)
        return GpuError("Nothing to read");
    return texture->readPixels(x, y, width, height);
}

Result<> GpuPictureEngine::draw(CommandBuffer& buffer, const std::shared_ptr<RenderPipeline>& quad,
                                const std::shared_ptr<Texture>& target,
                                const std::vector<PicturePlacement>& placements, bool transparent) {
    std::vector<std::shared_ptr<Texture>> textures;
    for (const PicturePlacement& placement : placements) {
        Result<std::shared_ptr<Texture>> texture = this->texture(placement.picture);
        if (!texture)
            return texture.error();
        textures.push_back(std::move(texture.value()));
    }
    float opaque = transparent ? 0 : 1;
    buffer.beginRendering(target, {0, 0, 0, opaque});
    buffer.setPipeline(quad);
    buffer.setConstants(&opaque, sizeof opaque, VerticesSize);
    for (size_t i = 0; i < placements.size(); ++i) {
        std::array<float, 16> vertices = Vertices(placements[i], target->width(), target->height());
        buffer.setConstants(vertices.data(), VerticesSize);
        buffer.setTexture(textures[i]);
        buffer.draw(4);
    }
    buffer.endRendering();
    return {};
}

Result<std::shared_ptr<RenderPipeline>> MakeQuadPipeline(const std::shared_ptr<GpuDevice>& device,
                                                         vk::Format target) {
    return RenderPipeline::make(device, {VertexSource, "sourceVertex", FragmentSource, "sourceFragment",
                                         uint32_t(sizeof(QuadConstants)), true, target});
}

Result<std::shared_ptr<PictureCompositor>> GpuPictureEngine::makeCompositor() {
    Result<std::shared_ptr<RenderPipeline>> pipeline = MakeQuadPipeline(_device);
    if (!pipeline)
        return pipeline.error();
    return std::shared_ptr<PictureCompositor>(
        std::make_shared<GpuCompositor>(shared_from_this(), _compositions, std::move(pipeline.value())));
}

} // namespace quorva
