#include "platform/cpu/PictureKernels.h"

#include <algorithm>
#include <cstring>

// Highway compiles the code between HWY_BEFORE_NAMESPACE and HWY_AFTER_NAMESPACE once for each
// instruction set it knows (this file includes itself through foreach_target.h), and the functions below
// call the best one the processor runs.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "platform/cpu/PictureKernels.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#ifndef QUORVA_PICTURE_KERNELS_CONSTANTS
#define QUORVA_PICTURE_KERNELS_CONSTANTS
namespace quorva::cpu {

// The conversion works on unsigned 16-bit lanes, in 256ths of the 8-bit scale. A channel byte c enters
// as c << 8, and MulHigh(c << 8, k) = c·k/256 is its term for k = weight · 256 · 256/255, the weight
// being that of a channel from 0 to 1 on the 8-bit scale. A sum of 2 or 4 bytes enters as s << 7 or
// s << 6 and gives the term of their mean, which is how chroma is averaged before rounding. Lanes wrap,
// so negative weights are subtracted terms: only the value at the end, always between 16 and 240 on the
// 8-bit scale, has to fit. Against the float formula the error of a pixel's values stays under 0.012 on
// the 8-bit scale (measured over all 2^24 colours), so only a value that close to a half rounds the
// other way.
constexpr uint16_t Weight(double weight) {
    return uint16_t(weight * 256.0 * 256.0 / 255.0 + 0.5);
}

// BT.709: Y = 16 + 219 y, U = 128 + 224 (b − y)/1.8556, V = 128 + 224 (r − y)/1.5748.
constexpr double Kr = 0.2126, Kg = 0.7152, Kb = 0.0722;
constexpr uint16_t YR = Weight(219 * Kr), YG = Weight(219 * Kg), YB = Weight(219 * Kb);
constexpr uint16_t UR = Weight(224 * Kr / 1.8556), UG = Weight(224 * Kg / 1.8556),
                   UB = Weight(224 * (1 - Kb) / 1.8556);
constexpr uint16_t VR = Weight(224 * (1 - Kr) / 1.5748), VG = Weight(224 * Kg / 1.5748),
                   VB = Weight(224 * Kb / 1.5748);

// The constant of each value plus half a step of the output, so that a shift rounds. The ±1 offsets the
// truncation of MulHigh: added terms come out low by half a 256th on average, subtracted ones high.
struct Offsets {
    uint16_t y, u, v;
};
constexpr Offsets Round8{16 * 256 + 1 + 128, 128 * 256 + 128, 128 * 256 - 1 + 128};
constexpr Offsets Round10{16 * 256 + 1 + 32, 128 * 256 + 32, 128 * 256 - 1 + 32};

// Where one row of a plane's samples goes: `bytes` a sample, one sample a pixel or (`half`) one a pair.
struct Output {
    uint8_t* row;
    uint32_t bytes;
    bool half;
};

inline void CopyOpaqueOneByOne(const uint8_t* from, uint8_t* to, uint32_t width) {
    for (size_t x = 0; x < width; ++x) {
        std::memmove(to + 4 * x, from + 4 * x, 3);
        to[4 * x + 3] = 255;
    }
}

} // namespace quorva::cpu
#endif

HWY_BEFORE_NAMESPACE();
namespace quorva::cpu::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Y, U and V in 256ths before the rounding shift, from the three channels' inputs; `mul` is MulHigh.
template <class V, class Multiply>
HWY_INLINE V Luma(V r, V g, V b, V offset, Multiply mul) {
    return offset + mul(r, YR) + mul(g, YG) + mul(b, YB);
}
template <class V, class Multiply>
HWY_INLINE V BlueDifference(V r, V g, V b, V offset, Multiply mul) {
    return offset + mul(b, UB) - mul(r, UR) - mul(g, UG);
}
template <class V, class Multiply>
HWY_INLINE V RedDifference(V r, V g, V b, V offset, Multiply mul) {
    return offset + mul(r, VR) - mul(g, VG) - mul(b, VB);
}

#if HWY_TARGET == HWY_SCALAR

// Without SIMD (no processor Highway dispatches to on x86-64 lacks SSSE3, but the fallback must exist)
// the same integer arithmetic, one pair of pixels at a time.
constexpr size_t Group = 2;

struct Mul {
    uint32_t operator()(uint32_t x, uint16_t k) const { return (x * k) >> 16; }
};

struct Rgb {
    uint32_t r, g, b;
};
HWY_INLINE uint32_t Y(const Rgb& c, uint32_t offset) {
    return Luma(c.r, c.g, c.b, offset, Mul());
}
HWY_INLINE uint32_t U(const Rgb& c, uint32_t offset) {
    return BlueDifference(c.r, c.g, c.b, offset, Mul());
}
HWY_INLINE uint32_t V(const Rgb& c, uint32_t offset) {
    return RedDifference(c.r, c.g, c.b, offset, Mul());
}
// A pixel's bytes << `shift`, and the sum of two such.
HWY_INLINE Rgb In(const uint8_t* pixel, int shift) {
    return {uint32_t(pixel[2]) << shift, uint32_t(pixel[1]) << shift, uint32_t(pixel[0]) << shift};
}
HWY_INLINE Rgb operator+(const Rgb& a, const Rgb& b) {
    return {a.r + b.r, a.g + b.g, a.b + b.b};
}
HWY_INLINE void Store16(uint8_t* to, size_t index, uint32_t value) {
    const auto word = uint16_t(value);
    std::memcpy(to + 2 * index, &word, 2);
}

HWY_INLINE void Group420(const uint8_t* top, const uint8_t* bottom, uint8_t* const* out) {
    for (size_t i = 0; i < 2; ++i) {
        out[0][i] = uint8_t(Y(In(top + 4 * i, 8), Round8.y) >> 8);
        out[1][i] = uint8_t(Y(In(bottom + 4 * i, 8), Round8.y) >> 8);
    }
    const Rgb block = In(top, 6) + In(top + 4, 6) + In(bottom, 6) + In(bottom + 4, 6);
    out[2][0] = uint8_t(U(block, Round8.u) >> 8);
    out[3][0] = uint8_t(V(block, Round8.v) >> 8);
}

HWY_INLINE void Group422P10(const uint8_t* row, const uint8_t*, uint8_t* const* out) {
    for (size_t i = 0; i < 2; ++i)
        Store16(out[0], i, Y(In(row + 4 * i, 8), Round10.y) >> 6);
    const Rgb pair = In(row, 7) + In(row + 4, 7);
    Store16(out[1], 0, U(pair, Round10.u) >> 6);
    Store16(out[2], 0, V(pair, Round10.v) >> 6);
}

HWY_INLINE void Group444A10(const uint8_t* row, const uint8_t*, uint8_t* const* out) {
    for (size_t i = 0; i < 2; ++i) {
        const Rgb c = In(row + 4 * i, 8);
        Store16(out[0], i, Y(c, Round10.y) >> 6);
        Store16(out[1], i, U(c, Round10.u) >> 6);
        Store16(out[2], i, V(c, Round10.v) >> 6);
        // round(a · 1023/255) = 4a + round(a/85), and round(a/85) = (a + 42) · 772 >> 16 for every byte.
        const uint32_t a = row[4 * i + 3];
        Store16(out[3], i, 4 * a + ((a + 42) * 772 >> 16));
    }
}

HWY_INLINE void CopyOpaqueRow(const uint8_t* from, uint8_t* to, uint32_t width) {
    CopyOpaqueOneByOne(from, to, width);
}

#else

using D8 = hn::ScalableTag<uint8_t>;
using D16 = hn::Repartition<uint16_t, D8>;
using V8 = hn::Vec<D8>;
using V16 = hn::Vec<D16>;

// Pixels a step: one vector of each channel's bytes.
constexpr size_t Group = hn::MaxLanes(D8());

struct Mul {
    HWY_INLINE V16 operator()(V16 x, uint16_t k) const { return hn::MulHigh(x, hn::Set(D16(), k)); }
};
HWY_INLINE V16 Splat(uint16_t value) {
    return hn::Set(D16(), value);
}

// The inputs of the arithmetic for the three channels.
struct Rgb {
    V16 r, g, b;
};
HWY_INLINE V16 Y(const Rgb& c, uint16_t offset) {
    return Luma(c.r, c.g, c.b, Splat(offset), Mul());
}
HWY_INLINE V16 U(const Rgb& c, uint16_t offset) {
    return BlueDifference(c.r, c.g, c.b, Splat(offset), Mul());
}
HWY_INLINE V16 V(const Rgb& c, uint16_t offset) {
    return RedDifference(c.r, c.g, c.b, Splat(offset), Mul());
}

// A step's pixels, even and odd ones apart. Seen as 16-bit lanes, a channel's bytes are an even pixel's
// low and an odd pixel's high: they widen without crossing lanes, and results of both go back together as
// the two bytes of a lane.
struct Pixels {
    Rgb even, odd; // the bytes << 8
    V8 a;
};
HWY_INLINE Pixels Load(const uint8_t* bgra) {
    V8 b, g, r, a;
    hn::LoadInterleaved4(D8(), bgra, b, g, r, a);
    const V16 r16 = hn::BitCast(D16(), r), g16 = hn::BitCast(D16(), g), b16 = hn::BitCast(D16(), b);
    const V16 high = Splat(0xFF00);
    return {{hn::ShiftLeft<8>(r16), hn::ShiftLeft<8>(g16), hn::ShiftLeft<8>(b16)},
            {hn::And(r16, high), hn::And(g16, high), hn::And(b16, high)},
            a};
}
// Each pair's sum << 7.
HWY_INLINE Rgb Pairs(const Pixels& p) {
    return {hn::ShiftRight<1>(p.even.r) + hn::ShiftRight<1>(p.odd.r),
            hn::ShiftRight<1>(p.even.g) + hn::ShiftRight<1>(p.odd.g),
            hn::ShiftRight<1>(p.even.b) + hn::ShiftRight<1>(p.odd.b)};
}

// Stores a row's luma and returns each pair's sum << 6, half what a 2 × 2 block's sum needs. One row
// after the other, so that only those three vectors stay live across rows (16 registers without AVX-512).
HWY_INLINE Rgb Row420(const uint8_t* row, uint8_t* luma) {
    const Pixels p = Load(row);
    const V16 even = hn::ShiftRight<8>(Y(p.even, Round8.y));
    const V16 odd = hn::And(Y(p.odd, Round8.y), Splat(0xFF00));
    hn::StoreU(hn::BitCast(D8(), hn::Or(even, odd)), D8(), luma);
    const Rgb pairs = Pairs(p);
    return {hn::ShiftRight<1>(pairs.r), hn::ShiftRight<1>(pairs.g), hn::ShiftRight<1>(pairs.b)};
}

HWY_INLINE void Group420(const uint8_t* top, const uint8_t* bottom, uint8_t* const* out) {
    const Rgb upper = Row420(top, out[0]);
    const Rgb lower = Row420(bottom, out[1]);
    const Rgb block{upper.r + lower.r, upper.g + lower.g, upper.b + lower.b};
    const hn::Rebind<uint8_t, D16> half;
    const hn::RebindToSigned<D16> signed16;
    const V16 u = hn::ShiftRight<8>(U(block, Round8.u)), v = hn::ShiftRight<8>(V(block, Round8.v));
    hn::StoreU(hn::DemoteTo(half, hn::BitCast(signed16, u)), half, out[2]);
    hn::StoreU(hn::DemoteTo(half, hn::BitCast(signed16, v)), half, out[3]);
}

// 10-bit samples are 16-bit words; planes and rows start on 4-byte boundaries.
HWY_INLINE uint16_t* Words(uint8_t* bytes) {
    return reinterpret_cast<uint16_t*>(bytes);
}
// Rounds the samples of even and odd pixels to 10 bits and stores them in order.
HWY_INLINE void Store10(V16 even, V16 odd, uint8_t* to) {
    hn::StoreInterleaved2(hn::ShiftRight<6>(even), hn::ShiftRight<6>(odd), D16(), Words(to));
}

HWY_INLINE void Group422P10(const uint8_t* row, const uint8_t*, uint8_t* const* out) {
    const Pixels p = Load(row);
    Store10(Y(p.even, Round10.y), Y(p.odd, Round10.y), out[0]);
    const Rgb pairs = Pairs(p);
    hn::StoreU(hn::ShiftRight<6>(U(pairs, Round10.u)), D16(), Words(out[1]));
    hn::StoreU(hn::ShiftRight<6>(V(pairs, Round10.v)), D16(), Words(out[2]));
}

// round(a · 1023/255) = 4a + round(a/85), and round(a/85) = (a + 42) · 772 >> 16 for every byte.
HWY_INLINE V16 Alpha10(V16 a) {
    return hn::ShiftLeft<2>(a) + hn::MulHigh(a + Splat(42), Splat(772));
}

HWY_INLINE void Group444A10(const uint8_t* row, const uint8_t*, uint8_t* const* out) {
    const Pixels p = Load(row);
    Store10(Y(p.even, Round10.y), Y(p.odd, Round10.y), out[0]);
    Store10(U(p.even, Round10.u), U(p.odd, Round10.u), out[1]);
    Store10(V(p.even, Round10.v), V(p.odd, Round10.v), out[2]);
    const V16 a = hn::BitCast(D16(), p.a);
    hn::StoreInterleaved2(Alpha10(hn::And(a, Splat(0xFF))), Alpha10(hn::ShiftRight<8>(a)), D16(),
                          Words(out[3]));
}

HWY_INLINE void CopyOpaqueRow(const uint8_t* from, uint8_t* to, uint32_t width) {
    const D8 d;
    const size_t lanes = hn::Lanes(d), bytes = 4 * size_t(width);
    if (bytes < lanes) {
        CopyOpaqueOneByOne(from, to, width);
        return;
    }
    const V8 alpha = hn::BitCast(d, hn::Set(hn::Repartition<uint32_t, D8>(), 0xFF000000u));
    // The last vector ends at the row's end, overlapping the one before: writing the same pixels twice
    // is harmless, in place too.
    for (size_t i = 0;; i += lanes) {
        i = std::min(i, bytes - lanes);
        hn::StoreU(hn::Or(hn::LoadU(d, from + i), alpha), d, to + i);
        if (i + lanes == bytes)
            break;
    }
}

#endif

// Converts one row (`top`) or, for 4:2:0, two, `Group` pixels a step. The last, partial step works on a
// copy padded with the row's last pixel, so that an odd last pixel pairs with itself, and only the
// samples that belong to the picture are copied out: nothing is written past a row.
template <auto GroupOf, size_t Outputs>
HWY_INLINE void ConvertRow(const uint8_t* top, const uint8_t* bottom, uint32_t width,
                           const Output (&outputs)[Outputs]) {
    const auto at = [&](size_t plane, size_t x) {
        return outputs[plane].row + (outputs[plane].half ? x / 2 : x) * outputs[plane].bytes;
    };
    uint8_t* to[Outputs];
    size_t x = 0;
    for (; x + Group <= width; x += Group) {
        for (size_t plane = 0; plane < Outputs; ++plane)
            to[plane] = at(plane, x);
        GroupOf(top + 4 * x, bottom + 4 * x, to);
    }
    if (x == width)
        return;
    const size_t left = width - x;
    alignas(64) uint8_t in[2][4 * Group];
    alignas(64) uint8_t out[Outputs][2 * Group];
    for (size_t row = 0; row < 2; ++row) {
        const uint8_t* from = (row ? bottom : top) + 4 * x;
        std::memcpy(in[row], from, 4 * left);
        for (size_t i = left; i < Group; ++i)
            std::memcpy(in[row] + 4 * i, from + 4 * (left - 1), 4);
    }
    for (size_t plane = 0; plane < Outputs; ++plane)
        to[plane] = out[plane];
    GroupOf(in[0], in[1], to);
    for (size_t plane = 0; plane < Outputs; ++plane) {
        const size_t samples = outputs[plane].half ? (left + 1) / 2 : left;
        std::memcpy(at(plane, x), out[plane], samples * outputs[plane].bytes);
    }
}

void ConvertToYuv(const uint8_t* bgra, ptrdiff_t stride, const FrameFormat& format, uint8_t* frame) {
    const auto source = [&](uint32_t y) { return bgra + ptrdiff_t(y) * stride; };
    const auto plane = [&](size_t index, uint32_t y) {
        return frame + format.planes[index].offset + size_t(y) * format.planes[index].stride;
    };
    const uint32_t width = format.width, height = format.height;
    switch (format.layout) {
    case FrameLayout::YUV420P:
        for (uint32_t y = 0; y < height; y += 2) {
            // An odd last row stands in for the row below it too.
            const uint32_t below = std::min(y + 1, height - 1);
            ConvertRow<Group420>(source(y), source(below), width,
                                 {{plane(0, y), 1, false},
                                  {plane(0, below), 1, false},
                                  {plane(1, y / 2), 1, true},
                                  {plane(2, y / 2), 1, true}});
        }
        break;
    case FrameLayout::YUV422P10:
        for (uint32_t y = 0; y < height; ++y)
            ConvertRow<Group422P10>(
                source(y), source(y), width,
                {{plane(0, y), 2, false}, {plane(1, y), 2, true}, {plane(2, y), 2, true}});
        break;
    case FrameLayout::YUVA444P10:
        for (uint32_t y = 0; y < height; ++y)
            ConvertRow<Group444A10>(source(y), source(y), width,
                                    {{plane(0, y), 2, false},
                                     {plane(1, y), 2, false},
                                     {plane(2, y), 2, false},
                                     {plane(3, y), 2, false}});
        break;
    case FrameLayout::BGRA:
        break;
    }
}

void CopyOpaqueRows(const uint8_t* from, ptrdiff_t fromStride, uint8_t* to, ptrdiff_t toStride,
                    uint32_t width, uint32_t height) {
    for (uint32_t y = 0; y < height; ++y)
        CopyOpaqueRow(from + ptrdiff_t(y) * fromStride, to + ptrdiff_t(y) * toStride, width);
}

} // namespace quorva::cpu::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorva::cpu {

HWY_EXPORT(ConvertToYuv);
HWY_EXPORT(CopyOpaqueRows);

void ConvertPicture(const uint8_t* bgra, ptrdiff_t stride, const FrameFormat& format, uint8_t* frame) {
    const size_t planes = format.layout == FrameLayout::BGRA         ? 1
                          : format.layout == FrameLayout::YUVA444P10 ? 4
                                                                     : 3;
    if (format.width == 0 || format.height == 0 || format.planes.size() < planes)
        return;
    if (format.layout == FrameLayout::BGRA) {
        const FramePlane& plane = format.planes[0];
        for (uint32_t y = 0; y < format.height; ++y)
            std::memcpy(frame + plane.offset + size_t(y) * plane.stride, bgra + ptrdiff_t(y) * stride,
                        4 * size_t(format.width));
        return;
    }
    HWY_DYNAMIC_DISPATCH(ConvertToYuv)(bgra, stride, format, frame);
}

void CopyOpaque(const uint8_t* from, ptrdiff_t fromStride, uint8_t* to, ptrdiff_t toStride, uint32_t width,
                uint32_t height) {
    HWY_DYNAMIC_DISPATCH(CopyOpaqueRows)(from, fromStride, to, toStride, width, height);
}

void MakeOpaque(uint8_t* bgra, ptrdiff_t stride, uint32_t width, uint32_t height) {
    CopyOpaque(bgra, stride, bgra, stride, width, height);
}

} // namespace quorva::cpu
#endif
