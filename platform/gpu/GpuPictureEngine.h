#pragma once

#include "platform/PictureEngine.h"
#include "platform/PicturePool.h"
#include "platform/gpu/CommandBuffer.h"
#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/GpuDevice.h"
#include "platform/gpu/RenderPipeline.h"
#include "platform/gpu/Texture.h"

#include <array>
#include <memory>
#include <vector>

namespace quorva {

// What a quad pipeline reads: four vertices, each a clip-space position followed by a texture
// coordinate, then the floor under the sampled alpha (1 makes every drawn pixel opaque, 0 keeps the
// picture's alpha).
struct QuadConstants {
    std::array<float, 16> vertices;
    float opaque;
};

// The pipeline that draws one picture as a quad of QuadConstants into images of `target`: compositions
// into textures, the monitor's into a window's images.
Result<std::shared_ptr<RenderPipeline>> MakeQuadPipeline(const std::shared_ptr<GpuDevice>& device,
                                                         vk::Format target = Texture::Format);

// The picture engine of a GPU: pictures are textures, conversions compute passes that leave the
// encoder's pixel format in host-visible memory, compositions render passes. Pictures that arrive in
// memory are uploaded into textures of a pool of its own.
class GpuPictureEngine final : public PictureEngine, public std::enable_shared_from_this<GpuPictureEngine> {
public:
    static Result<std::shared_ptr<GpuPictureEngine>> make(std::shared_ptr<GpuDevice> device);

    std::string name() const override;
    bool isProcessor() const override { return false; }
    uint32_t maximumPictureSize() const override { return _device->maximumTextureSize(); }
    Result<std::shared_ptr<Picture>> adopt(const std::shared_ptr<MemoryPicture>& picture) override;
    Result<std::vector<uint8_t>> readPixels(const std::shared_ptr<Picture>& picture, uint32_t x, uint32_t y,
                                            uint32_t width, uint32_t height) override;
    Result<std::unique_ptr<FrameConverter>> makeFrameConverter() override;
    Result<std::shared_ptr<PictureCompositor>> makeCompositor() override;

    const std::shared_ptr<GpuDevice>& device() const { return _device; }
    // The picture as a texture: itself, or an upload of a picture in memory.
    Result<std::shared_ptr<Texture>> texture(const std::shared_ptr<Picture>& picture);
    // Records a pass of `buffer` that draws the placements into `target` with a pipeline of
    // MakeQuadPipeline(), as PictureCompositor::compose() says.
    Result<> draw(CommandBuffer& buffer, const std::shared_ptr<RenderPipeline>& quad,
                  const std::shared_ptr<Texture>& target, const std::vector<PicturePlacement>& placements,
                  bool transparent);

private:
    GpuPictureEngine(std::shared_ptr<GpuDevice> device, std::shared_ptr<CommandQueue> compositions);

    std::shared_ptr<GpuDevice> _device;
    // One queue for the compositors' pictures, in the order they were asked for. (A movie's assembled
    // pictures are drawn on its converter's queue, in the pass that converts them.)
    std::shared_ptr<CommandQueue> _compositions;
    PicturePool<Texture> _uploads;
};

} // namespace quorva
