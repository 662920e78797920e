#include "platform/FrameFormat.h"

#include <algorithm>

namespace quorva {

FrameFormat FrameFormat::bgra(uint32_t width, uint32_t height) {
    const size_t stride = size_t(width) * 4;
    return {FrameLayout::BGRA, width, height, {{0, stride, height}}, stride * height};
}

std::array<float, 2> FitExtents(double sourceWidth, double sourceHeight, double outputWidth,
                                double outputHeight) {
    const float sw = float(sourceWidth), sh = float(sourceHeight), ow = float(outputWidth),
                oh = float(outputHeight);
    const float s = std::min(ow / sw, oh / sh);
    return {s * sw / ow, s * sh / oh};
}

} // namespace quorva
