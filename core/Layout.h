#pragma once

#include "core/Geometry.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorva {

// The geometry of the assembled picture: where each source goes and how large the whole picture is.
// Rectangles hold whole pixels; the picture's sides are whole, even (the encoders' 4:2:0 formats need
// that) and at least 2. (0, 0) is the corner of the first source.
class Layout {
public:
    // Kinds, as numbers in settings and OSC: 0 row, 1 column, 2 grid, 3 focus. Any other number is
    // laid out as a focus but named "row".
    static const std::vector<std::string>& kindNames();
    static const std::string& nameForKind(int64_t kind);
    // Matches the name after lower-casing it; leaves `kind` untouched when nothing matches.
    static bool getKind(int64_t& kind, std::string_view name);

    // Lays out the sources at once. A source size below 1 pixel either way (or not a number) counts as
    // 1920 × 1080, a negative gap as 0. A fitting size of at least 1 × 1 scales the whole picture into
    // it (up or down); otherwise the picture takes the size that the sources need.
    Layout(int64_t kind, const std::vector<Size>& sourceSizes, int64_t gap, Size fittingSize);

    int64_t kind() const { return _kind; }
    const std::vector<Rect>& frames() const { return _frames; }
    Size size() const { return _size; }

private:
    int64_t _kind;
    std::vector<Rect> _frames;
    Size _size;
};

} // namespace quorva
