#include "platform/FrameFormat.h"

#include <algorithm>

namespace quorva {

FrameFormat FrameFormat::bgra(uint32_t width, uint32_t height) {
    const size_t stride = size_t(width) * 4;
    return {FrameLayout::BGRA, width, height, {{0, stride, height}}, stride * height};
}

FrameFormat FrameFormat::padded(FrameLayout layout, uint32_t width, uint32_t height) {
    constexpr size_t Alignment = 64;
    if (layout == FrameLayout::BGRA)
        return bgra(width, height);
    const size_t sample = layout == FrameLayout::YUV420P ? 1 : 2;
    const uint32_t chromaWidth = layout == FrameLayout::YUVA444P10 ? width : (width + 1) / 2;
    const uint32_t chromaHeight = layout == FrameLayout::YUV420P ? (height + 1) / 2 : height;
    FrameFormat format{layout, width, height, {}, 0};
    const auto add = [&](uint32_t samples, uint32_t rows) {
        const size_t stride = (samples * sample + Alignment - 1) / Alignment * Alignment;
        format.planes.push_back({format.bytes, stride, rows});
        format.bytes += stride * rows;
    };
    add(width, height);
    add(chromaWidth, chromaHeight);
    add(chromaWidth, chromaHeight);
    if (layout == FrameLayout::YUVA444P10)
        add(width, height);
    format.bytes += Alignment;
    return format;
}

std::array<float, 2> FitExtents(double sourceWidth, double sourceHeight, double outputWidth,
                                double outputHeight) {
    const float sw = float(sourceWidth), sh = float(sourceHeight), ow = float(outputWidth),
                oh = float(outputHeight);
    const float s = std::min(ow / sw, oh / sh);
    return {s * sw / ow, s * sh / oh};
}

} // namespace quorva
