#pragma once

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

} // namespace quorva
