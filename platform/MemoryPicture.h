#pragma once

#include "platform/Error.h"
#include "platform/Picture.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace quorva {

// Memory for pictures, at least `size` bytes (0: none), released with std::free.
uint8_t* AllocatePictureMemory(size_t size);

// A picture in the processor's memory: rows of BGRA pixels, each starting on a 64-byte boundary (what
// SIMD code reads fastest). Whoever holds it may write into it only while nobody else holds it.
class MemoryPicture final : public Picture {
public:
    static constexpr size_t Alignment = 64;

    // A new picture, its pixels undefined; fails when it is empty, or when memory runs out.
    static Result<std::shared_ptr<MemoryPicture>> make(uint32_t width, uint32_t height);

    MemoryPicture(const MemoryPicture&) = delete;
    MemoryPicture& operator=(const MemoryPicture&) = delete;

    uint32_t width() const override { return _width; }
    uint32_t height() const override { return _height; }
    size_t stride() const { return _stride; }
    uint8_t* bytes() { return _bytes.get(); }
    const uint8_t* bytes() const { return _bytes.get(); }
    uint8_t* row(uint32_t y) { return _bytes.get() + y * _stride; }
    const uint8_t* row(uint32_t y) const { return _bytes.get() + y * _stride; }

    // A region as tightly packed rows; refused when it does not lie inside the picture.
    Result<std::vector<uint8_t>> readPixels(uint32_t x, uint32_t y, uint32_t width, uint32_t height) const;

private:
    struct Free {
        void operator()(uint8_t* bytes) const;
    };
    MemoryPicture(uint32_t width, uint32_t height, size_t stride, std::unique_ptr<uint8_t[], Free> bytes);

    uint32_t _width;
    uint32_t _height;
    size_t _stride;
    std::unique_ptr<uint8_t[], Free> _bytes;
};

} // namespace quorva
