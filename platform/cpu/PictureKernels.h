#pragma once

#include "platform/FrameFormat.h"

#include <cstddef>
#include <cstdint>

namespace quorva::cpu {

// SIMD kernels of the processor's picture engine. They work on BGRA pictures with straight alpha, rows
// `stride` bytes apart; a negative stride walks a picture from its last row up, which is how a picture
// stored bottom-up is read upright. They allocate nothing and can run on any thread at once.

// Converts a BGRA picture of exactly `format.width` × `format.height` pixels into `frame` (`format.bytes`
// long, laid out as `format.planes` say), the same arithmetic as the GPU's conversion pass: BT.709,
// limited range (Y 16 to 235, U and V 16 to 240 on the 8-bit scale; 10-bit values are 4 times those),
// alpha full range (0 to 1023); 4:2:0 chroma is the mean of each 2 × 2 block and 4:2:2 chroma the mean of
// each pair, taken before rounding; every value rounds to nearest. An odd last column or row takes its
// neighbour's place in its block. BGRA copies the rows.
void ConvertPicture(const uint8_t* bgra, ptrdiff_t stride, const FrameFormat& format, uint8_t* frame);

// Copies a `width` × `height` region with every pixel's alpha set to 255, in one pass.
void CopyOpaque(const uint8_t* from, ptrdiff_t fromStride, uint8_t* to, ptrdiff_t toStride, uint32_t width,
                uint32_t height);
// Sets the alpha of every pixel of a `width` × `height` region to 255.
void MakeOpaque(uint8_t* bgra, ptrdiff_t stride, uint32_t width, uint32_t height);

} // namespace quorva::cpu
