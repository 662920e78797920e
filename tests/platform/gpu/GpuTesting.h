#pragma once

// Helpers for the tests that draw on the GPU (lavapipe where there is no GPU).

#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/GpuDevice.h"
#include "platform/gpu/Texture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace quorva::testing {

// One pixel as stored: blue, green, red, alpha.
struct Pixel {
    uint8_t b = 0, g = 0, r = 0, a = 0;
    bool operator==(const Pixel&) const = default;
};

inline void PrintTo(const Pixel& pixel, std::ostream* out) {
    *out << "(b " << int(pixel.b) << ", g " << int(pixel.g) << ", r " << int(pixel.r) << ", a "
         << int(pixel.a) << ")";
}

// One device for the whole test program: opening one costs more than most tests.
inline std::shared_ptr<GpuDevice> SharedDevice() {
    static std::shared_ptr<GpuDevice> device = [] {
        // The Vulkan loader complains without a private runtime folder.
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        if (!runtime || !*runtime) {
            std::string folder = "/tmp/quorva-test-runtime-" + std::to_string(getuid());
            mkdir(folder.c_str(), 0700);
            setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
        }
        Result<std::shared_ptr<GpuDevice>> made = GpuDevice::make();
        if (!made) {
            ADD_FAILURE() << made.error().message();
            return std::shared_ptr<GpuDevice>();
        }
        return made.value();
    }();
    return device;
}

// A command queue on the shared device; nothing, and a failure, when there is none.
inline std::shared_ptr<CommandQueue> MakeQueue() {
    auto device = SharedDevice();
    auto queue = device ? CommandQueue::make(device) : Result<std::shared_ptr<CommandQueue>>(nullptr);
    if (!queue)
        ADD_FAILURE() << queue.error().message();
    return queue ? queue.value() : nullptr;
}

// A texture filled by `pixelAt(x, y)`.
template <class PixelAt>
std::shared_ptr<Texture> MakeTexture(uint32_t width, uint32_t height, PixelAt pixelAt) {
    auto texture = SharedDevice()->makeTexture(width, height);
    if (!texture) {
        ADD_FAILURE() << texture.error().message();
        return nullptr;
    }
    std::vector<uint8_t> bytes(size_t(width) * height * 4);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            Pixel pixel = pixelAt(x, y);
            uint8_t* at = bytes.data() + (size_t(y) * width + x) * 4;
            at[0] = pixel.b, at[1] = pixel.g, at[2] = pixel.r, at[3] = pixel.a;
        }
    }
    Result<void> replaced = texture.value()->replace(bytes.data(), size_t(width) * 4);
    if (!replaced)
        ADD_FAILURE() << replaced.error().message();
    return texture.value();
}

inline std::shared_ptr<Texture> MakeSolidTexture(uint32_t width, uint32_t height, Pixel pixel) {
    return MakeTexture(width, height, [&](uint32_t, uint32_t) { return pixel; });
}

// The pixels of a region, read back once the GPU has done what was submitted before.
class Pixels {
public:
    // A region at (x, y), `width` pixels across, as a read-back answered it.
    Pixels(Result<std::vector<uint8_t>> read, uint32_t x, uint32_t y, uint32_t width)
        : _x(x), _y(y), _width(width) {
        if (!read)
            ADD_FAILURE() << read.error().message();
        else
            _bytes = std::move(read.value());
    }
    Pixels(const std::shared_ptr<Texture>& texture, uint32_t x, uint32_t y, uint32_t width, uint32_t height)
        : Pixels(texture->readPixels(x, y, width, height), x, y, width) {}
    explicit Pixels(const std::shared_ptr<Texture>& texture)
        : Pixels(texture, 0, 0, texture->width(), texture->height()) {}

    // (x, y) in the texture's coordinates.
    Pixel at(uint32_t x, uint32_t y) const {
        size_t offset = (size_t(y - _y) * _width + (x - _x)) * 4;
        if (offset + 4 > _bytes.size())
            return {0xde, 0xad, 0xbe, 0xef};
        return {_bytes[offset], _bytes[offset + 1], _bytes[offset + 2], _bytes[offset + 3]};
    }

private:
    uint32_t _x, _y, _width;
    std::vector<uint8_t> _bytes;
};

} // namespace quorva::testing
