#pragma once

#include "platform/PictureEngine.h"

#include <memory>

namespace quorva {

// The picture engine of a machine without a GPU: pictures stay in the processor's memory, and fitting,
// conversion and composition run as SIMD code (libyuv for scaling and copies, our own kernels for the
// BT.709 conversions), on the thread that asks, before the answer.
class CpuPictureEngine final : public PictureEngine {
public:
    static std::shared_ptr<CpuPictureEngine> make();

    std::string name() const override { return "processor"; }
    bool isProcessor() const override { return true; }
    uint32_t maximumPictureSize() const override { return MaximumSide; }
    Result<std::shared_ptr<Picture>> adopt(const std::shared_ptr<MemoryPicture>& picture) override;
    Result<std::vector<uint8_t>> readPixels(const std::shared_ptr<Picture>& picture, uint32_t x, uint32_t y,
                                            uint32_t width, uint32_t height) override;
    Result<std::unique_ptr<FrameConverter>> makeFrameConverter() override;
    Result<std::shared_ptr<PictureCompositor>> makeCompositor() override;

    CpuPictureEngine();
    // What the engine's compositors draw into, shared among them.
    struct Targets;

private:
    // As large as the GPUs this program meets take.
    static constexpr uint32_t MaximumSide = 16384;

    std::shared_ptr<Targets> _targets;
};

} // namespace quorva
