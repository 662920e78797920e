#pragma once

#include "core/source/Geometry.h"
#include "core/source/Names.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quorva {

// How the sources are arranged, in their order: side by side, stacked, as a mosaic, or the first large
// with the others in a column beside it.
enum class LayoutKind : int64_t { Row, Column, Grid, Focus };
// "row", "column", "grid", "focus".
const std::vector<std::string>& NameTable(LayoutKind);

// The geometry of the assembled picture: where each source goes and how large the whole picture is.
// Rectangles hold whole pixels; the picture's sides are whole, even (the encoders' 4:2:0 formats need
// that) and at least 2. (0, 0) is the corner of the first source.
class Layout {
public:
    // Lays out the sources at once. A source size below 1 pixel either way (or not a number) counts as
    // 1920 × 1080, a negative gap as 0. A fitting size of at least 1 × 1 scales the whole picture into
    // it (up or down); otherwise the picture takes the size that the sources need.
    Layout(LayoutKind kind, const std::vector<Size>& sourceSizes, int64_t gap, Size fittingSize);

    LayoutKind kind() const { return _kind; }
    const std::vector<Rect>& frames() const { return _frames; }
    Size size() const { return _size; }

private:
    LayoutKind _kind;
    std::vector<Rect> _frames;
    Size _size;
};

// Sizes as a layout takes them: an unknown size as an empty one, which the layout fills in.
std::vector<Size> LayoutSizes(const SourceSizes& sizes);

} // namespace quorva
