#pragma once

#include "platform/MemoryPicture.h"

#include <cstddef>
#include <cstdint>

namespace quorva::cpu {

// How another program lays out the pixels it publishes, named by their bytes in memory as PipeWire and
// GStreamer name them: BGRx is BGRA whose fourth byte means nothing.
enum class PixelLayout { BGRA, BGRx, RGBA, RGBx, YUY2, I420, NV12 };

// Up to three planes of a published picture, rows `stride` bytes apart.
struct PixelPlanes {
    const uint8_t* data[3] = {};
    ptrdiff_t stride[3] = {};
};

// How many planes a picture of `layout` has.
int PlaneCount(PixelLayout layout);

// Converts a published picture the size of `to` into it, upside down where `flipped`. YUV is read as
// limited range, with BT.709's coefficients where `bt709` and BT.601's otherwise (YUY2 always with
// BT.601's: libyuv converts it no other way); alpha is 255 where the layout has none.
void ImportPixels(PixelLayout layout, const PixelPlanes& planes, bool bt709, bool flipped, MemoryPicture& to);

} // namespace quorva::cpu
