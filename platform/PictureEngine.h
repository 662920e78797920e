#pragma once

#include "platform/Error.h"
#include "platform/FrameFormat.h"
#include "platform/Picture.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quorva {

class GpuDevice;
class MemoryPicture;

// One picture drawn by a composition: into `x`, `y`, `width` × `height` (whole pixels from the target's
// top-left corner), scaled to fill it, upside down where `flipped`.
struct PicturePlacement {
    std::shared_ptr<Picture> picture;
    int64_t x = 0, y = 0, width = 0, height = 0;
    bool flipped = false;
};

// Turns pictures into a movie's pictures, converted to the movie's pixel format straight into memory
// that the encoder reads (a pool of the converter's own). `transparent`: bars and uncovered parts are
// clear and pictures keep their alpha; otherwise they are opaque black and every pixel is opaque. One
// per movie recorder; called from one thread at a time.
class FrameConverter {
public:
    using Completion = std::function<void(std::shared_ptr<FrameMemory> memory)>;

    virtual ~FrameConverter() = default;

    // The picture fitted inside the movie's picture without distortion and centred, between bars,
    // mirrored top to bottom when `flipped` (stored bottom-up). Converts without waiting where the work
    // runs elsewhere (the GPU): `completion` gets the memory once the picture is in it, on the GPU's
    // completion thread, or on this thread before the answer when the processor converts. Refused (and
    // `completion` never called) when memory or the GPU fails.
    virtual Result<> convert(const std::shared_ptr<Picture>& picture, bool flipped, bool transparent,
                             const FrameFormat& format, Completion completion) = 0;
    // The placements drawn as a PictureCompositor draws them, straight into the movie's picture: an
    // assembled picture that never exists whole in any other form. Completes as convert() does.
    virtual Result<> compose(const std::vector<PicturePlacement>& placements, bool transparent,
                             const FrameFormat& format, Completion completion) = 0;
    // Makes the pool's first memory for pictures of `format`: fails when there is none to be had.
    virtual Result<> prepare(const FrameFormat& format) = 0;
    // Lets go of idle memory; memory still held goes when its holder lets go.
    virtual void forgetPool() = 0;
};

// Draws several pictures into one. Its targets come from a pool of its own: a target is drawn into
// again only once nobody holds it. Safe to call from several threads.
class PictureCompositor {
public:
    using Completion = std::function<void(const std::shared_ptr<Picture>& target)>;

    virtual ~PictureCompositor() = default;

    // Draws the placements into a target of `width` × `height` over a clear background when
    // `transparent`, else over opaque black with every drawn pixel made opaque; a placement replaces
    // what is under it (no blending). Answers the target without waiting where the GPU draws;
    // `completion` gets it once it is drawn (on the GPU's completion thread, or on this thread before
    // the answer when the processor draws).
    virtual Result<std::shared_ptr<Picture>> compose(uint32_t width, uint32_t height,
                                                     const std::vector<PicturePlacement>& placements,
                                                     bool transparent, Completion completion) = 0;
};

// Where the picture work of the whole program runs: on the GPU (Vulkan), or, where the only Vulkan
// device is the processor itself, as SIMD code on pictures that stay in memory, since a software
// rasterizer spends ten to twenty times more per pixel. Sources, takes, compositors and the window hold
// pictures and call this; none of them knows which engine it is. Safe to use from any thread.
class PictureEngine {
public:
    // The engine for `device`: the processor's where the device is a processor itself, else the GPU's.
    // QUORVA_PICTURES=processor or =vulkan forces one; any other value is refused with the reason.
    static Result<std::shared_ptr<PictureEngine>> make(const std::shared_ptr<GpuDevice>& device);

    virtual ~PictureEngine() = default;

    // "processor", or "Vulkan on " and the GPU's name: for the log.
    virtual std::string name() const = 0;
    virtual bool isProcessor() const = 0;
    // The largest width or height of a picture.
    virtual uint32_t maximumPictureSize() const = 0;

    // A picture of this engine that shows what `picture` holds: `picture` itself on the processor, an
    // upload of it on the GPU. Sources whose pictures arrive in memory hand them over through this.
    virtual Result<std::shared_ptr<Picture>> adopt(const std::shared_ptr<MemoryPicture>& picture) = 0;
    // Reads a region back as tightly packed rows of BGRA pixels, once the work already asked for is done.
    virtual Result<std::vector<uint8_t>> readPixels(const std::shared_ptr<Picture>& picture, uint32_t x,
                                                    uint32_t y, uint32_t width, uint32_t height) = 0;

    virtual Result<std::unique_ptr<FrameConverter>> makeFrameConverter() = 0;
    virtual Result<std::shared_ptr<PictureCompositor>> makeCompositor() = 0;
};

} // namespace quorva
