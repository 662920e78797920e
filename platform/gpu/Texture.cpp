#include "platform/gpu/Texture.h"

#include <cstring>

namespace quorva {

namespace {

constexpr vk::ImageSubresourceRange WholeImage(vk::ImageAspectFlagBits::eColor, 0, 1, 0, 1);
constexpr vk::ImageSubresourceLayers FirstLayer(vk::ImageAspectFlagBits::eColor, 0, 0, 1);

vk::raii::ImageView MakeView(const vk::raii::Device& device, vk::Image image,
                             vk::ComponentMapping components) {
    return vk::raii::ImageView(device, vk::ImageViewCreateInfo({}, image, vk::ImageViewType::e2D,
                                                               Texture::Format, components, WholeImage));
}

Result<TransferBuffer> MakeTransferBuffer(const GpuDevice& device, vk::DeviceSize size) {
    try {
        vk::raii::Buffer buffer(device.device(),
                                vk::BufferCreateInfo({}, size,
                                                     vk::BufferUsageFlagBits::eTransferSrc |
                                                         vk::BufferUsageFlagBits::eTransferDst));
        auto requirements = buffer.getMemoryRequirements();
        auto type =
            device.memoryType(requirements.memoryTypeBits, vk::MemoryPropertyFlagBits::eHostVisible |
                                                               vk::MemoryPropertyFlagBits::eHostCoherent);
        if (!type)
            return GpuError("The GPU has no memory that the processor can reach");
        vk::raii::DeviceMemory memory(device.device(), vk::MemoryAllocateInfo(requirements.size, *type));
        buffer.bindMemory(*memory, 0);
        void* bytes = memory.mapMemory(0, size);
        return TransferBuffer{std::move(buffer), std::move(memory), bytes, size};
    } catch (const std::exception& exception) {
        return GpuError(std::string("A transfer buffer could not be made: ") + exception.what());
    }
}

} // namespace

Result<std::shared_ptr<Texture>> Texture::make(std::shared_ptr<GpuDevice> device, uint32_t width,
                                               uint32_t height) {
    if (width < 1 || height < 1 || width > device->maximumTextureSize() ||
        height > device->maximumTextureSize())
        return GpuError("A texture of " + std::to_string(width) + " × " + std::to_string(height) +
                        " pixels is beyond what the GPU can hold");
    try {
        vk::ImageCreateInfo info({}, vk::ImageType::e2D, Format, vk::Extent3D(width, height, 1), 1, 1,
                                 vk::SampleCountFlagBits::e1, vk::ImageTiling::eOptimal,
                                 vk::ImageUsageFlagBits::eSampled | vk::ImageUsageFlagBits::eColorAttachment |
                                     vk::ImageUsageFlagBits::eTransferSrc |
                                     vk::ImageUsageFlagBits::eTransferDst);
        vk::raii::Image image(device->device(), info);
        auto requirements = image.getMemoryRequirements();
        auto type = device->memoryType(requirements.memoryTypeBits, vk::MemoryPropertyFlagBits::eDeviceLocal);
        if (!type)
            return GpuError("The GPU has no memory for textures");
        vk::raii::DeviceMemory memory(device->device(), vk::MemoryAllocateInfo(requirements.size, *type));
        image.bindMemory(*memory, 0);
        return std::shared_ptr<Texture>(
            new Texture(std::move(device), width, height, std::move(memory), std::move(image)));
    } catch (const std::exception& exception) {
        return GpuError("A texture of " + std::to_string(width) + " × " + std::to_string(height) +
                        " pixels could not be made: " + exception.what());
    }
}

Texture::Texture(std::shared_ptr<GpuDevice> device, uint32_t width, uint32_t height,
                 vk::raii::DeviceMemory memory, vk::raii::Image image)
    : _device(std::move(device)), _width(width), _height(height), _memory(std::move(memory)),
      _image(std::move(image)), _view(MakeView(_device->device(), *_image, {})),
      _opaqueView(
          MakeView(_device->device(), *_image,
                   vk::ComponentMapping(vk::ComponentSwizzle::eIdentity, vk::ComponentSwizzle::eIdentity,
                                        vk::ComponentSwizzle::eIdentity, vk::ComponentSwizzle::eOne))) {}

vk::ImageMemoryBarrier2 Texture::barrier(vk::ImageLayout from, vk::ImageLayout to,
                                         vk::PipelineStageFlags2 sourceStages, vk::AccessFlags2 sourceAccess,
                                         vk::PipelineStageFlags2 destinationStages,
                                         vk::AccessFlags2 destinationAccess) const {
    return vk::ImageMemoryBarrier2(sourceStages, sourceAccess, destinationStages, destinationAccess, from, to,
                                   VK_QUEUE_FAMILY_IGNORED, VK_QUEUE_FAMILY_IGNORED, *_image, WholeImage);
}

Result<void> Texture::replace(const void* pixels, size_t bytesPerRow) {
    if (bytesPerRow < size_t(_width) * 4 || bytesPerRow % 4 != 0)
        return GpuError("Texture rows must hold at least 4 bytes a pixel, in whole pixels");
    const vk::DeviceSize size = vk::DeviceSize(bytesPerRow) * _height;
    if (!_upload || _upload->size < size) {
        _upload.reset();
        Result<TransferBuffer> made = MakeTransferBuffer(*_device, size);
        if (!made)
            return made.error();
        _upload.emplace(std::move(made.value()));
    }
    std::memcpy(_upload->bytes, pixels, size);
    vk::Buffer buffer = *_upload->buffer;
    return _device->execute([&](const vk::raii::CommandBuffer& commands) {
        // The copy replaces everything, so earlier contents are discarded; earlier readers must be done.
        auto before = barrier(vk::ImageLayout::eUndefined, vk::ImageLayout::eTransferDstOptimal,
                              vk::PipelineStageFlagBits2::eAllCommands, {}, vk::PipelineStageFlagBits2::eCopy,
                              vk::AccessFlagBits2::eTransferWrite);
        commands.pipelineBarrier2(vk::DependencyInfo({}, {}, {}, before));
        vk::BufferImageCopy region(0, uint32_t(bytesPerRow / 4), _height, FirstLayer, {0, 0, 0},
                                   {_width, _height, 1});
        commands.copyBufferToImage(buffer, *_image, vk::ImageLayout::eTransferDstOptimal, region);
        auto after =
            barrier(vk::ImageLayout::eTransferDstOptimal, RestingLayout, vk::PipelineStageFlagBits2::eCopy,
                    vk::AccessFlagBits2::eTransferWrite, vk::PipelineStageFlagBits2::eAllCommands,
                    vk::AccessFlagBits2::eMemoryRead | vk::AccessFlagBits2::eMemoryWrite);
        commands.pipelineBarrier2(vk::DependencyInfo({}, {}, {}, after));
    });
}

Result<std::vector<uint8_t>> Texture::readPixels(uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
    if (width < 1 || height < 1 || x > _width || y > _height || width > _width - x || height > _height - y)
        return GpuError("The region to read lies outside the texture");
    size_t size = size_t(width) * height * 4;
    Result<TransferBuffer> staging = MakeTransferBuffer(*_device, size);
    if (!staging)
        return staging.error();
    vk::Buffer buffer = *staging.value().buffer;
    Result<void> done = _device->execute([&](const vk::raii::CommandBuffer& commands) {
        auto before = barrier(RestingLayout, vk::ImageLayout::eTransferSrcOptimal,
                              vk::PipelineStageFlagBits2::eAllCommands, vk::AccessFlagBits2::eMemoryWrite,
                              vk::PipelineStageFlagBits2::eCopy, vk::AccessFlagBits2::eTransferRead);
        commands.pipelineBarrier2(vk::DependencyInfo({}, {}, {}, before));
        vk::BufferImageCopy region(0, width, height, FirstLayer, {int32_t(x), int32_t(y), 0},
                                   {width, height, 1});
        commands.copyImageToBuffer(*_image, vk::ImageLayout::eTransferSrcOptimal, buffer, region);
        auto after =
            barrier(vk::ImageLayout::eTransferSrcOptimal, RestingLayout, vk::PipelineStageFlagBits2::eCopy,
                    {}, vk::PipelineStageFlagBits2::eAllCommands, {});
        // The processor reads the buffer once the commands have completed.
        vk::MemoryBarrier2 toHost(vk::PipelineStageFlagBits2::eCopy, vk::AccessFlagBits2::eTransferWrite,
                                  vk::PipelineStageFlagBits2::eHost, vk::AccessFlagBits2::eHostRead);
        commands.pipelineBarrier2(vk::DependencyInfo({}, toHost, {}, after));
    });
    if (!done)
        return done.error();
    auto bytes = static_cast<const uint8_t*>(staging.value().bytes);
    return std::vector<uint8_t>(bytes, bytes + size);
}

} // namespace quorva
