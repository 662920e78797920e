#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace quorva {

// How a converted picture lies in memory: the encoders' own formats (BT.709, limited range; alpha full
// range), or BGRA for a conversion that someone else finishes.
enum class FrameLayout { YUV420P, YUV422P10, YUVA444P10, BGRA };

// Where one plane of a converted picture lies in its memory.
struct FramePlane {
    size_t offset;
    size_t stride; // bytes from one row to the next
    size_t rows;
};

struct FrameFormat {
    FrameLayout layout = FrameLayout::YUV420P;
    uint32_t width = 0;
    uint32_t height = 0;
    // Offsets and strides a multiple of 4 bytes, rows padded to 64 bytes; the planes of the layout in
    // order (Y, U, V, A; BGRA). 10-bit samples are little-endian 16-bit words.
    std::vector<FramePlane> planes;
    size_t bytes = 0;

    // Tightly packed BGRA of that size.
    static FrameFormat bgra(uint32_t width, uint32_t height);
    // An encoder's frame: the planes one after the other, every row and plane on a 64-byte boundary
    // (what SIMD code reads best), and 64 bytes to spare at the end, which some encoders' SIMD loads
    // read into. Chroma planes round odd sizes up. BGRA is tightly packed.
    static FrameFormat padded(FrameLayout layout, uint32_t width, uint32_t height);

    // The part of this frame's memory that the region of `width` × `height` pixels at (`x`, `y`)
    // covers, as a format of its own whose offsets still count from the frame's start: what converts a
    // picture into part of a frame. `x` and `y` must start a chroma sample (be even where chroma is
    // halved that way).
    FrameFormat region(uint32_t x, uint32_t y, uint32_t width, uint32_t height) const;
};

// How the samples of one plane of a layout lie: one for every `across` × `down` pixels, `bytes` each.
struct PlaneSampling {
    uint32_t across, down, bytes;
};
PlaneSampling SamplingOf(FrameLayout layout, size_t plane);

// Memory that holds one converted picture, which the encoder reads. It goes back to its converter's pool
// when its last holder lets go, on whichever thread that is.
class FrameMemory {
public:
    virtual ~FrameMemory() = default;
    virtual uint8_t* data() const = 0;
    virtual size_t size() const = 0;
};

// The clip-space half-extents of a source of `sourceWidth` × `sourceHeight` fitted inside an output of
// `outputWidth` × `outputHeight` without distortion and centred, computed in single precision. Both
// picture engines fit with it, so that they bar the same pixels.
std::array<float, 2> FitExtents(double sourceWidth, double sourceHeight, double outputWidth,
                                double outputHeight);

} // namespace quorva
