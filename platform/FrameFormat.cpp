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
    FrameFormat format{layout, width, height, {}, 0};
    for (size_t i = 0; i < (layout == FrameLayout::YUVA444P10 ? 4u : 3u); ++i) {
        const PlaneSampling sampling = SamplingOf(layout, i);
        const size_t samples = (width + sampling.across - 1) / sampling.across;
        const size_t stride = (samples * sampling.bytes + Alignment - 1) / Alignment * Alignment;
        const size_t rows = (height + sampling.down - 1) / sampling.down;
        format.planes.push_back({format.bytes, stride, rows});
        format.bytes += stride * rows;
    }
    format.bytes += Alignment;
    return format;
}

FrameFormat FrameFormat::region(uint32_t x, uint32_t y, uint32_t width, uint32_t height) const {
    FrameFormat part{layout, width, height, planes, bytes};
    for (size_t i = 0; i < part.planes.size(); ++i) {
        const PlaneSampling sampling = SamplingOf(layout, i);
        FramePlane& plane = part.planes[i];
        plane.offset +=
            size_t(y / sampling.down) * plane.stride + size_t(x / sampling.across) * sampling.bytes;
        plane.rows = (height + sampling.down - 1) / sampling.down;
    }
    return part;
}

PlaneSampling SamplingOf(FrameLayout layout, size_t plane) {
    const bool chroma = plane == 1 || plane == 2;
    switch (layout) {
    case FrameLayout::YUV420P:
        return chroma ? PlaneSampling{2, 2, 1} : PlaneSampling{1, 1, 1};
    case FrameLayout::YUV422P10:
        return chroma ? PlaneSampling{2, 1, 2} : PlaneSampling{1, 1, 2};
    case FrameLayout::YUVA444P10:
        return {1, 1, 2};
    case FrameLayout::BGRA:
        break;
    }
    return {1, 1, 4};
}

std::array<float, 2> FitExtents(double sourceWidth, double sourceHeight, double outputWidth,
                                double outputHeight) {
    const float sw = float(sourceWidth), sh = float(sourceHeight), ow = float(outputWidth),
                oh = float(outputHeight);
    const float s = std::min(ow / sw, oh / sh);
    return {s * sw / ow, s * sh / oh};
}

} // namespace quorva
