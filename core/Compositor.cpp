#include "core/Compositor.h"

#include "platform/Log.h"
#include "platform/gpu/CommandBuffer.h"

#include <cmath>

namespace quorva {

namespace {

// Four vertices, each a clip-space position followed by a texture coordinate, then the floor under
// the sampled alpha: 1 makes every drawn pixel opaque, 0 keeps the source's alpha.
struct Constants {
    std::array<float, 16> vertices;
    float opaque;
};
constexpr uint32_t VerticesSize = sizeof(Constants::vertices);

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

// Where a source of the texture's size goes inside its rectangle, keeping its aspect ratio. A source
// within a pixel of the rectangle's shape fills it, so near-matches are not framed by a stray line.
Rect Fit(Rect rectangle, const Texture& texture) {
    double textureWidth = texture.width(), textureHeight = texture.height();
    double fittedWidth = rectangle.height * textureWidth / textureHeight;
    if (fittedWidth < rectangle.width - 1) {
        rectangle.x += std::floor((rectangle.width - fittedWidth) / 2);
        rectangle.width = std::round(fittedWidth);
    } else if (fittedWidth > rectangle.width + 1) {
        double fittedHeight = rectangle.width * textureHeight / textureWidth;
        rectangle.y += std::floor((rectangle.height - fittedHeight) / 2);
        rectangle.height = std::round(fittedHeight);
    }
    return rectangle;
}

// A triangle strip over the rectangle, in clip space with the picture's top-left corner at (−1, 1).
// A flipped texture is stored bottom-up, so its first row goes to the bottom.
std::array<float, 16> Vertices(Rect rectangle, Size picture, bool flipped) {
    float left = float(2 * rectangle.x / picture.width - 1);
    float right = float(2 * (rectangle.x + rectangle.width) / picture.width - 1);
    float top = float(1 - 2 * rectangle.y / picture.height);
    float bottom = float(1 - 2 * (rectangle.y + rectangle.height) / picture.height);
    float t = flipped ? 1 : 0, u = 1 - t;
    return {left, bottom, 0, u, left, top, 0, t, right, bottom, 1, u, right, top, 1, t};
}

} // namespace

std::shared_ptr<Compositor> Compositor::make(std::shared_ptr<CommandQueue> queue) {
    Result<std::shared_ptr<RenderPipeline>> pipeline =
        RenderPipeline::make(queue->device(), {VertexSource, "sourceVertex", FragmentSource, "sourceFragment",
                                               uint32_t(sizeof(Constants)), true});
    if (!pipeline) {
        Log("Compositor: ", "Compositor could not be created: " + pipeline.error().message());
        return nullptr;
    }
    return std::shared_ptr<Compositor>(new Compositor(std::move(queue), std::move(pipeline.value())));
}

Compositor::Compositor(std::shared_ptr<CommandQueue> queue, std::shared_ptr<RenderPipeline> pipeline)
    : _queue(std::move(queue)), _pipeline(std::move(pipeline)) {}

std::shared_ptr<Texture> Compositor::targetOfWidth(uint32_t width, uint32_t height) {
    std::lock_guard guard(_lock);
    return nextTarget(width, height);
}

std::shared_ptr<Texture> Compositor::nextTarget(uint32_t width, uint32_t height) {
    std::shared_ptr<Texture>& slot = _targets[_next];
    if (!slot || slot->width() != width || slot->height() != height) {
        slot.reset(); // let the old one go before a large new one is made
        Result<std::shared_ptr<Texture>> made = _queue->device()->makeTexture(width, height);
        if (made)
            slot = made.value();
        else
            Log("Compositor: ", made.error().message());
    }
    _next = (_next + 1) % TargetCount;
    return slot;
}

std::shared_ptr<Texture> Compositor::compose(const Layout& layout,
                                             const std::vector<std::shared_ptr<Texture>>& textures,
                                             const std::vector<bool>& flipped, bool transparent,
                                             CompletionHandler completionHandler) {
    const std::vector<Rect>& frames = layout.frames();
    Size picture = layout.size();
    if (textures.size() != frames.size() || flipped.size() != frames.size())
        return nullptr;
    if (!(picture.width >= 1 && picture.width <= MaximumSide && picture.height >= 1 &&
          picture.height <= MaximumSide))
        return nullptr;

    std::lock_guard guard(_lock);
    std::shared_ptr<Texture> target = nextTarget(uint32_t(picture.width), uint32_t(picture.height));
    if (!target)
        return nullptr;
    Result<std::shared_ptr<CommandBuffer>> made = _queue->commandBuffer();
    if (!made) {
        Log("Compositor: ", made.error().message());
        return nullptr;
    }
    CommandBuffer& buffer = *made.value();

    float opaque = transparent ? 0 : 1;
    buffer.beginRendering(target, {0, 0, 0, opaque});
    buffer.setPipeline(_pipeline);
    buffer.setConstants(&opaque, sizeof opaque, VerticesSize);
    for (size_t i = 0; i < frames.size(); ++i) {
        if (!textures[i])
            continue;
        std::array<float, 16> vertices = Vertices(Fit(frames[i], *textures[i]), picture, flipped[i]);
        buffer.setConstants(vertices.data(), VerticesSize);
        buffer.setTexture(textures[i]);
        buffer.draw(4);
    }
    buffer.endRendering();
    if (completionHandler)
        buffer.addCompletedHandler(
            [completionHandler = std::move(completionHandler), target] { completionHandler(target); });
    Result<void> committed = buffer.commit();
    if (!committed) {
        Log("Compositor: ", committed.error().message());
        return nullptr;
    }
    return target;
}

} // namespace quorva
