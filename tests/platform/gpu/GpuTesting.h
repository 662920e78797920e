#pragma once

// Helpers for the tests that draw on the GPU (lavapipe where there is no GPU).

#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/GpuDevice.h"
#include "platform/gpu/Texture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
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

// An environment variable set (or unset, for nothing) while this lives, then put back as it was.
class ScopedVariable {
public:
    explicit ScopedVariable(const char* name) : _name(name) {
        if (const char* value = std::getenv(name))
            _kept = value;
    }
    ~ScopedVariable() { set(_kept); }
    void set(const std::optional<std::string>& value) {
        if (value)
            setenv(_name, value->c_str(), 1);
        else
            unsetenv(_name);
    }

private:
    const char* _name;
    std::optional<std::string> _kept;
};

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

// A texture of transparent black, as a target to draw into or a source whose pixels do not matter.
inline std::shared_ptr<Texture> MakeTexture(uint32_t width, uint32_t height) {
    auto texture = SharedDevice()->makeTexture(width, height);
    if (!texture) {
        ADD_FAILURE() << texture.error().message();
        return nullptr;
    }
    const std::vector<uint8_t> bytes(size_t(width) * height * 4);
    Result<void> replaced = texture.value()->replace(bytes.data(), size_t(width) * 4);
    if (!replaced)
        ADD_FAILURE() << replaced.error().message();
    return texture.value();
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
