#pragma once

#include <optional>
#include <vector>

namespace quorva {

// Sizes and rectangles in picture pixels, as doubles: layouts hold whole numbers in them, but the
// sizes that sources report and the fitting arithmetic need fractions.
struct Size {
    double width = 0;
    double height = 0;
    bool operator==(const Size&) const = default;
};

struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    bool operator==(const Rect&) const = default;
};

// Each source's picture size, in the sources' order, or nothing for one whose size is not known yet.
using SourceSizes = std::vector<std::optional<Size>>;

} // namespace quorva
