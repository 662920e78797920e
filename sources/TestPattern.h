#pragma once

#include "core/Geometry.h"
#include "platform/Error.h"
#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/RenderPipeline.h"
#include "platform/gpu/Texture.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace quorva {

// Where the parts of a test pattern lie, in pixels from the picture's top-left corner.
struct TestPatternGeometry {
    static constexpr int Digits = 8; // the frame number modulo 10^8, with leading zeros
    static constexpr int Bars = 7;   // 75 % white, yellow, cyan, green, magenta, red, blue

    static TestPatternGeometry of(uint32_t width, uint32_t height, bool transparent);

    // The square that moves across the lower part, one step a frame, back to the left at the end.
    Rect squareAt(uint64_t frame) const;
    // One digit's cell (seven segments, each `stroke` thick); digit 0 is the most significant.
    Rect digit(int index) const;
    // The black box behind the digits.
    Rect counter() const;

    double width = 0, height = 0;
    double barsBottom = 0; // the colour bars fill the rows above
    double squareSide = 0, squareTop = 0, squareStep = 0;
    double digitLeft = 0, digitTop = 0, digitWidth = 0, digitHeight = 0, digitGap = 0, stroke = 0;
};

// Draws built-in test pictures on the GPU: colour bars, a square that moves every frame and the frame
// number in seven-segment digits, so that a recording shows at a glance that every frame arrived in
// order. The transparent variant keeps only the bars, the digits and a half-transparent square over a
// clear background. Safe to call from several threads.
class TestPattern {
public:
    using CompletionHandler = std::function<void(const std::shared_ptr<Texture>& picture)>;

    static Result<std::shared_ptr<TestPattern>> make(std::shared_ptr<CommandQueue> queue, uint32_t width,
                                                     uint32_t height, bool transparent);

    TestPattern(const TestPattern&) = delete;
    TestPattern& operator=(const TestPattern&) = delete;

    const TestPatternGeometry& geometry() const { return _geometry; }
    bool isTransparent() const { return _transparent; }

    // Draws frame `frame` into a texture that nobody else holds and answers it without waiting for the
    // GPU; `completionHandler` gets it on the GPU's completion thread once it is drawn. A texture is
    // drawn into again only once everyone, the GPU included, has let go of it.
    Result<std::shared_ptr<Texture>> drawFrame(uint64_t frame, CompletionHandler completionHandler = {});

private:
    TestPattern(std::shared_ptr<CommandQueue> queue, std::shared_ptr<RenderPipeline> pipeline,
                TestPatternGeometry geometry, bool transparent);
    Result<std::shared_ptr<Texture>> freeTexture();

    std::shared_ptr<CommandQueue> _queue;
    std::shared_ptr<RenderPipeline> _pipeline;
    TestPatternGeometry _geometry;
    bool _transparent;
    std::mutex _lock; // guards _textures
    std::vector<std::shared_ptr<Texture>> _textures;
};

} // namespace quorva
