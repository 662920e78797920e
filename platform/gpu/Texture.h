#pragma once

#include "platform/Error.h"
#include "platform/Picture.h"
#include "platform/gpu/GpuDevice.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <vulkan/vulkan_raii.hpp>

namespace quorva {

// A buffer the processor can write and read, for the copies in and out of textures.
struct TransferBuffer {
    vk::raii::Buffer buffer;
    vk::raii::DeviceMemory memory;
    void* bytes;
    vk::DeviceSize size;
};

// A 2D picture on the GPU, 8-bit BGRA with straight (not premultiplied) alpha, that can be sampled and
// drawn into. A texture lives while anyone holds it; command buffers hold the textures they use until
// the GPU is done with them.
//
// Between command buffers a texture rests in the shader-read layout, so that any command buffer can
// sample it without knowing who wrote it last. Drawing into it (always with a clear) or replacing it
// discards what was there, so a new texture needs neither.
//
// Threads: the getters, image(), the views and barrier() from any thread; they never change. replace()
// and readPixels() from any thread, each waiting for its copy, but a texture has one writer at a time:
// replace() reuses one upload buffer, so two replace() calls, or a replace() and drawing into the
// texture, must not overlap. The engine that makes or fills a texture is its writer until it hands the
// texture on; from then on everyone only reads it.
class Texture final : public Picture {
public:
    static constexpr vk::Format Format = vk::Format::eB8G8R8A8Unorm;
    static constexpr vk::ImageLayout RestingLayout = vk::ImageLayout::eShaderReadOnlyOptimal;

    static Result<std::shared_ptr<Texture>> make(std::shared_ptr<GpuDevice> device, uint32_t width,
                                                 uint32_t height);

    Texture(const Texture&) = delete;
    Texture& operator=(const Texture&) = delete;

    uint32_t width() const override { return _width; }
    uint32_t height() const override { return _height; }
    const std::shared_ptr<GpuDevice>& device() const { return _device; }

    // Replaces the whole picture with `height` rows of BGRA pixels, `bytesPerRow` apart (at least 4 ×
    // width, a multiple of 4), after the work already submitted; answers once the copy is done.
    Result<void> replace(const void* pixels, size_t bytesPerRow);

    // Reads back a region as tightly packed rows of BGRA pixels, after the work already submitted.
    Result<std::vector<uint8_t>> readPixels(uint32_t x, uint32_t y, uint32_t width, uint32_t height);
    Result<std::vector<uint8_t>> readPixels() { return readPixels(0, 0, _width, _height); }

    vk::Image image() const { return *_image; }
    vk::ImageView view() const { return *_view; }
    // A view whose alpha reads as one, for pictures whose alpha means nothing.
    vk::ImageView opaqueView() const { return *_opaqueView; }

    // A barrier over the whole texture, for the command buffers that use it.
    vk::ImageMemoryBarrier2 barrier(vk::ImageLayout from, vk::ImageLayout to,
                                    vk::PipelineStageFlags2 sourceStages, vk::AccessFlags2 sourceAccess,
                                    vk::PipelineStageFlags2 destinationStages,
                                    vk::AccessFlags2 destinationAccess) const;

private:
    Texture(std::shared_ptr<GpuDevice> device, uint32_t width, uint32_t height, vk::raii::DeviceMemory memory,
            vk::raii::Image image);

    // Declared so that the views go first, then the image, then its memory, and the device last.
    std::shared_ptr<GpuDevice> _device;
    uint32_t _width;
    uint32_t _height;
    vk::raii::DeviceMemory _memory;
    vk::raii::Image _image;
    vk::raii::ImageView _view;
    vk::raii::ImageView _opaqueView;
    // Kept from one replace() to the next: a source replaces its textures with every picture, and making
    // memory that the GPU can reach costs far more than copying into it (pages pinned, on NVIDIA's driver
    // several milliseconds for a 1080p picture).
    std::optional<TransferBuffer> _upload;
};

} // namespace quorva
