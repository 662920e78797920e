#pragma once

#include "core/source/Geometry.h"
#include "platform/Error.h"
#include "platform/MemoryPicture.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
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

// Draws built-in test pictures in memory: colour bars, a square that moves every frame and the frame
// number in seven-segment digits, so that a recording shows at a glance that every frame arrived in
// order. The transparent variant keeps only the bars, the digits and a half-transparent square over a
// clear background. The still part is drawn once; each picture then has only what moved drawn again,
// the square and the digits. Safe to call from several threads.
class TestPattern {
public:
    static Result<std::shared_ptr<TestPattern>> make(uint32_t width, uint32_t height, bool transparent);

    TestPattern(const TestPattern&) = delete;
    TestPattern& operator=(const TestPattern&) = delete;

    const TestPatternGeometry& geometry() const { return _geometry; }
    bool isTransparent() const { return _transparent; }

    // Frame `frame`, drawn into a picture that nobody else holds: one that is handed out again is drawn
    // into only once everyone has let go of it.
    Result<std::shared_ptr<MemoryPicture>> drawFrame(uint64_t frame);

private:
    // A picture of the ring and the frame it shows, if any.
    struct Slot {
        std::shared_ptr<MemoryPicture> picture;
        std::optional<uint64_t> frame;
    };

    TestPattern(std::shared_ptr<MemoryPicture> still, TestPatternGeometry geometry, bool transparent);
    // Draws frame `frame` into a picture that shows frame `shown` (nothing: whatever its memory held).
    void draw(MemoryPicture& picture, std::optional<uint64_t> shown, uint64_t frame) const;

    const std::shared_ptr<MemoryPicture> _still; // the bars, the ground and the counter's box
    TestPatternGeometry _geometry;
    bool _transparent;
    std::mutex _lock; // guards _slots
    std::vector<Slot> _slots;
};

} // namespace quorva
