#pragma once

#include "core/MovieWriter.h"
#include "platform/Error.h"
#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/Texture.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace quorva {

// How the converter lays a picture out in memory: the encoders' own formats (BT.709, limited range;
// alpha full range), or BGRA for a conversion that the processor finishes.
enum class FrameLayout { YUV420P, YUV422P10, YUVA444P10, BGRA };

struct FrameFormat {
    FrameLayout layout = FrameLayout::YUV420P;
    uint32_t width = 0;
    uint32_t height = 0;
    // Offsets and strides a multiple of 4 bytes; the planes of the layout in order (Y, U, V, A; BGRA).
    std::vector<MovieWriter::Plane> planes;
    size_t bytes = 0;

    // The layout a movie's pictures want, in the writer's own arrangement of planes.
    static FrameFormat of(const MovieWriter& writer);
    // Tightly packed BGRA of that size.
    static FrameFormat bgra(uint32_t width, uint32_t height);
};

// Memory that the GPU can write and the processor read, holding one converted picture. It goes back to
// its converter's pool when its last holder lets go, on whichever thread that is.
class FrameMemory {
public:
    virtual ~FrameMemory() = default;
    virtual uint8_t* data() const = 0;
    virtual size_t size() const = 0;
};

// The pass that turns a source texture into a movie's picture in one GPU dispatch: fitted inside the
// picture without distortion and centred, the bars around it black (clear where `transparentBars`), the
// texture mirrored top to bottom when `flipped` (stored bottom-up), and converted to the picture's pixel
// format straight into host-visible memory, so that the encoder reads what the GPU wrote, uncopied.
class FrameConverter {
public:
    using Completion = std::function<void(std::shared_ptr<FrameMemory> memory)>;

    static Result<std::unique_ptr<FrameConverter>> make(std::shared_ptr<CommandQueue> queue);
    ~FrameConverter();
    FrameConverter(const FrameConverter&) = delete;
    FrameConverter& operator=(const FrameConverter&) = delete;

    // Records and commits the pass without waiting; `completion` gets the memory on the GPU's completion
    // thread once the picture is in it. Refused (and `completion` never called) when memory or the GPU
    // fails.
    Result<> convert(const std::shared_ptr<Texture>& texture, bool flipped, bool transparentBars,
                     const FrameFormat& format, Completion completion);

    // Makes the pool's first memory for pictures of `format`: fails when there is none to be had.
    Result<> prepare(const FrameFormat& format);
    // Lets go of idle memory; memory still held goes when its holder lets go.
    void forgetPool();

private:
    struct State;
    explicit FrameConverter(std::shared_ptr<State> state);
    std::shared_ptr<State> _state;
};

// The clip-space half-extents of a source of `sourceWidth` × `sourceHeight` fitted inside an output of
// `outputWidth` × `outputHeight`, computed in single precision as the pass uses them.
std::array<float, 2> FitExtents(double sourceWidth, double sourceHeight, double outputWidth,
                                double outputHeight);

} // namespace quorva
