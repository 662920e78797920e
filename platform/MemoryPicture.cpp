#include "platform/MemoryPicture.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace quorva {

void MemoryPicture::Free::operator()(uint8_t* bytes) const {
    std::free(bytes);
}

uint8_t* AllocatePictureMemory(size_t size) {
    if (size == 0)
        return nullptr;
    const size_t rounded =
        (size + MemoryPicture::Alignment - 1) / MemoryPicture::Alignment * MemoryPicture::Alignment;
    return static_cast<uint8_t*>(std::aligned_alloc(MemoryPicture::Alignment, rounded));
}

Result<std::shared_ptr<MemoryPicture>> MemoryPicture::make(uint32_t width, uint32_t height) {
    const size_t stride = (size_t(width) * 4 + Alignment - 1) / Alignment * Alignment;
    uint8_t* bytes = AllocatePictureMemory(stride * height);
    if (!bytes)
        return Error(std::string(ApplicationIdentifier) + ".Picture", -1,
                     "No memory for a picture of " + std::to_string(width) + " × " + std::to_string(height) +
                         " pixels");
    return std::shared_ptr<MemoryPicture>(
        new MemoryPicture(width, height, stride, std::unique_ptr<uint8_t[], Free>(bytes)));
}

Result<std::vector<uint8_t>> MemoryPicture::readPixels(uint32_t x, uint32_t y, uint32_t width,
                                                       uint32_t height) const {
    if (uint64_t(x) + width > _width || uint64_t(y) + height > _height)
        return Error(std::string(ApplicationIdentifier) + ".Picture", -1,
                     "The region lies outside the picture");
    std::vector<uint8_t> pixels(size_t(width) * height * 4);
    for (uint32_t row = 0; row < height; ++row)
        std::memcpy(pixels.data() + size_t(row) * width * 4, this->row(y + row) + size_t(x) * 4,
                    size_t(width) * 4);
    return pixels;
}

MemoryPicture::MemoryPicture(uint32_t width, uint32_t height, size_t stride,
                             std::unique_ptr<uint8_t[], Free> bytes)
    : _width(width), _height(height), _stride(stride), _bytes(std::move(bytes)) {}

} // namespace quorva
