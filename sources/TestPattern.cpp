#include "sources/TestPattern.h"

#include "platform/gpu/CommandBuffer.h"

#include <algorithm>
#include <cmath>

namespace quorva {

namespace {

// Beyond this many idle textures a busy consumer only costs memory; extra ones are not kept.
constexpr size_t MaximumKeptTextures = 6;

// What the fragment shader needs, laid out as its push constants are (std430).
struct Constants {
    float square[4];  // x, y, width, height
    float counter[4]; // first digit's x, y, digit width, digit height
    float size[2];
    float barsBottom;
    float digitStep; // from one digit to the next
    float stroke;
    float transparent;
    uint32_t number; // what the digits show
};

constexpr const char* VertexSource = R"(#version 450
void main() {
    vec2 corner = vec2(gl_VertexIndex >> 1, gl_VertexIndex & 1);
    gl_Position = vec4(corner * 2.0 - 1.0, 0.0, 1.0);
}
)";

constexpr const char* FragmentSource = R"(#version 450
layout(push_constant) uniform Pattern {
    vec4 square;
    vec4 counter;
    vec2 size;
    float barsBottom;
    float digitStep;
    float stroke;
    float transparent;
    uint number;
} pattern;
layout(location = 0) out vec4 colour;

// Lit segments of each digit: bit 0 is the top one (a), then clockwise (b to f), bit 6 the middle (g).
const uint Segments[10] = uint[](0x3Fu, 0x06u, 0x5Bu, 0x4Fu, 0x66u, 0x6Du, 0x7Du, 0x07u, 0x7Fu, 0x6Fu);
const vec3 Bars[7] = vec3[](vec3(0.75, 0.75, 0.75), vec3(0.75, 0.75, 0.0), vec3(0.0, 0.75, 0.75),
                            vec3(0.0, 0.75, 0.0), vec3(0.75, 0.0, 0.75), vec3(0.75, 0.0, 0.0),
                            vec3(0.0, 0.0, 0.75));

bool inside(vec2 p, vec4 r) {
    return p.x >= r.x && p.x < r.x + r.z && p.y >= r.y && p.y < r.y + r.w;
}

bool lit(vec2 p, uint mask) {
    float w = pattern.counter.z, h = pattern.counter.w, s = pattern.stroke;
    float middle = floor((h - s) / 2.0);
    vec4 segments[7] = vec4[](vec4(s, 0.0, w - 2.0 * s, s),
                              vec4(w - s, s, s, middle - s),
                              vec4(w - s, middle + s, s, h - middle - 2.0 * s),
                              vec4(s, h - s, w - 2.0 * s, s),
                              vec4(0.0, middle + s, s, h - middle - 2.0 * s),
                              vec4(0.0, s, s, middle - s),
                              vec4(s, middle, w - 2.0 * s, s));
    for (int i = 0; i < 7; ++i) {
        if ((mask & (1u << i)) != 0u && inside(p, segments[i]))
            return true;
    }
    return false;
}

void main() {
    vec2 p = gl_FragCoord.xy; // pixel centres, from the top-left corner
    bool clear = pattern.transparent > 0.5;
    vec4 c = clear ? vec4(0.0) : vec4(0.15, 0.15, 0.15, 1.0);
    if (p.y < pattern.barsBottom)
        c = vec4(Bars[min(int(p.x * 7.0 / pattern.size.x), 6)], 1.0);
    if (inside(p, pattern.square))
        c = vec4(1.0, 1.0, 1.0, clear ? 0.5 : 1.0);

    float digits = 8.0, s = pattern.stroke;
    vec4 box = vec4(pattern.counter.xy - s,
                    digits * pattern.digitStep - (pattern.digitStep - pattern.counter.z) + 2.0 * s,
                    pattern.counter.w + 2.0 * s);
    if (inside(p, box)) {
        c = vec4(0.0, 0.0, 0.0, 1.0);
        vec2 local = p - pattern.counter.xy;
        int index = int(floor(local.x / pattern.digitStep));
        if (index >= 0 && index < 8) {
            uint divisor = 1u;
            for (int k = index; k < 7; ++k)
                divisor *= 10u;
            uint digit = (pattern.number / divisor) % 10u;
            if (lit(vec2(local.x - float(index) * pattern.digitStep, local.y), Segments[digit]))
                c = vec4(1.0);
        }
    }
    colour = c;
}
)";

} // namespace

TestPatternGeometry TestPatternGeometry::of(uint32_t width, uint32_t height, bool transparent) {
    TestPatternGeometry g;
    g.width = width;
    g.height = height;
    double lowerTop = std::floor(height * 2.0 / 3);
    g.barsBottom = transparent ? std::floor(height / 3.0) : lowerTop;
    g.squareSide = std::max(2.0, std::floor(height / 6.0));
    g.squareTop = lowerTop + std::floor((height - lowerTop - g.squareSide) / 2);
    g.squareStep = std::max(1.0, std::floor(width / 120.0)); // across a 1920 picture in two seconds at 60
    g.digitHeight = std::max(7.0, std::floor(height / 12.0));
    g.digitWidth = std::max(4.0, std::floor(g.digitHeight / 2));
    g.digitGap = std::max(1.0, std::floor(g.digitWidth / 3));
    g.stroke = std::max(1.0, std::floor(g.digitHeight / 10));
    double counterWidth = Digits * g.digitWidth + (Digits - 1) * g.digitGap;
    g.digitLeft = std::max(g.stroke, std::floor((width - counterWidth) / 2));
    g.digitTop = std::max(g.stroke, std::floor((g.barsBottom - g.digitHeight) / 2));
    return g;
}

Rect TestPatternGeometry::squareAt(uint64_t frame) const {
    // Positions run from the left edge to the right one, then start again.
    uint64_t positions = uint64_t(std::max(0.0, width - squareSide) / squareStep) + 1;
    double x = double(frame % positions) * squareStep;
    return {x, squareTop, squareSide, squareSide};
}

Rect TestPatternGeometry::digit(int index) const {
    return {digitLeft + index * (digitWidth + digitGap), digitTop, digitWidth, digitHeight};
}

Rect TestPatternGeometry::counter() const {
    return {digitLeft - stroke, digitTop - stroke, Digits * digitWidth + (Digits - 1) * digitGap + 2 * stroke,
            digitHeight + 2 * stroke};
}

Result<std::shared_ptr<TestPattern>> TestPattern::make(std::shared_ptr<CommandQueue> queue, uint32_t width,
                                                       uint32_t height, bool transparent) {
    uint32_t largest = queue->device()->maximumTextureSize();
    if (width < 16 || height < 16 || width > largest || height > largest)
        return GpuError("A test pattern of " + std::to_string(width) + " × " + std::to_string(height) +
                        " pixels cannot be drawn");
    Result<std::shared_ptr<RenderPipeline>> pipeline =
        RenderPipeline::make(queue->device(), {VertexSource, "patternVertex", FragmentSource,
                                               "patternFragment", uint32_t(sizeof(Constants)), false});
    if (!pipeline)
        return pipeline.error();
    return std::shared_ptr<TestPattern>(new TestPattern(std::move(queue), std::move(pipeline.value()),
                                                        TestPatternGeometry::of(width, height, transparent),
                                                        transparent));
}

TestPattern::TestPattern(std::shared_ptr<CommandQueue> queue, std::shared_ptr<RenderPipeline> pipeline,
                         TestPatternGeometry geometry, bool transparent)
    : _queue(std::move(queue)), _pipeline(std::move(pipeline)), _geometry(geometry),
      _transparent(transparent) {}

Result<std::shared_ptr<Texture>> TestPattern::freeTexture() {
    {
        // Only this object can hand out a new hold on its textures, so one held here alone stays free.
        std::lock_guard guard(_lock);
        for (const auto& texture : _textures) {
            if (texture.use_count() == 1)
                return texture;
        }
    }
    Result<std::shared_ptr<Texture>> made =
        _queue->device()->makeTexture(uint32_t(_geometry.width), uint32_t(_geometry.height));
    if (made) {
        std::lock_guard guard(_lock);
        if (_textures.size() < MaximumKeptTextures)
            _textures.push_back(made.value());
    }
    return made;
}

Result<std::shared_ptr<Texture>> TestPattern::drawFrame(uint64_t frame, CompletionHandler completionHandler) {
    Result<std::shared_ptr<Texture>> texture = freeTexture();
    if (!texture)
        return texture.error();
    Result<std::shared_ptr<CommandBuffer>> buffer = _queue->commandBuffer();
    if (!buffer)
        return buffer.error();

    const TestPatternGeometry& g = _geometry;
    Rect square = g.squareAt(frame);
    Constants constants = {{float(square.x), float(square.y), float(square.width), float(square.height)},
                           {float(g.digitLeft), float(g.digitTop), float(g.digitWidth), float(g.digitHeight)},
                           {float(g.width), float(g.height)},
                           float(g.barsBottom),
                           float(g.digitWidth + g.digitGap),
                           float(g.stroke),
                           _transparent ? 1.0f : 0.0f,
                           uint32_t(frame % 100000000)};
    CommandBuffer& commands = *buffer.value();
    commands.beginRendering(texture.value(), {0, 0, 0, 0});
    commands.setPipeline(_pipeline);
    commands.setConstants(&constants, sizeof constants);
    commands.draw(4);
    commands.endRendering();
    if (completionHandler)
        commands.addCompletedHandler([completionHandler = std::move(completionHandler),
                                      picture = texture.value()] { completionHandler(picture); });
    Result<void> committed = commands.commit();
    if (!committed)
        return committed.error();
    return texture;
}

} // namespace quorva
