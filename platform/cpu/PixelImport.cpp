#include "platform/cpu/PixelImport.h"

#include "platform/cpu/PictureKernels.h"

#include <libyuv/convert_argb.h>

namespace quorva::cpu {

int PlaneCount(PixelLayout layout) {
    switch (layout) {
    case PixelLayout::I420:
        return 3;
    case PixelLayout::NV12:
        return 2;
    default:
        return 1;
    }
}

void ImportPixels(PixelLayout layout, const PixelPlanes& planes, bool bt709, bool flipped,
                  MemoryPicture& to) {
    const int width = int(to.width());
    // libyuv reads a picture of negative height from its last row up.
    const int height = flipped ? -int(to.height()) : int(to.height());
    const auto& matrix = bt709 ? libyuv::kYuvH709Constants : libyuv::kYuvI601Constants;
    const uint8_t* const* data = planes.data;
    const int stride[3] = {int(planes.stride[0]), int(planes.stride[1]), int(planes.stride[2])};
    uint8_t* bytes = to.bytes();
    const int toStride = int(to.stride());
    switch (layout) {
    case PixelLayout::BGRA:
        libyuv::ARGBCopy(data[0], stride[0], bytes, toStride, width, height);
        break;
    case PixelLayout::BGRx:
        if (flipped)
            CopyOpaque(data[0] + ptrdiff_t(to.height() - 1) * stride[0], -stride[0], bytes, toStride,
                       to.width(), to.height());
        else
            CopyOpaque(data[0], stride[0], bytes, toStride, to.width(), to.height());
        break;
    case PixelLayout::RGBA:
    case PixelLayout::RGBx:
        // libyuv names pixels by their order in a little-endian word: RGBA in memory is its ABGR.
        libyuv::ABGRToARGB(data[0], stride[0], bytes, toStride, width, height);
        if (layout == PixelLayout::RGBx)
            MakeOpaque(bytes, toStride, to.width(), to.height());
        break;
    case PixelLayout::YUY2:
        libyuv::YUY2ToARGB(data[0], stride[0], bytes, toStride, width, height);
        break;
    case PixelLayout::I420:
        libyuv::I420ToARGBMatrix(data[0], stride[0], data[1], stride[1], data[2], stride[2], bytes, toStride,
                                 &matrix, width, height);
        break;
    case PixelLayout::NV12:
        libyuv::NV12ToARGBMatrix(data[0], stride[0], data[1], stride[1], bytes, toStride, &matrix, width,
                                 height);
        break;
    }
}

} // namespace quorva::cpu
