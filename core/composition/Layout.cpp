#include "core/composition/Layout.h"

#include <algorithm>
#include <cmath>

namespace quorva {

namespace {

constexpr Size FallbackSize{1920, 1080};

// A source that reports no usable size (not connected yet, or a broken sender) still gets a place of
// the most common size, so the picture does not jump when its first frame arrives.
Size UsableSize(Size size) {
    if (!(size.width >= 1) || !(size.height >= 1))
        return FallbackSize;
    return size;
}

// A fitting side: whole, even, at least 2. Rounded down so the picture never exceeds what was asked.
double EvenFittingSide(double side) {
    double whole = std::floor(side);
    if (std::fmod(whole, 2) != 0)
        whole -= 1;
    return std::max(2.0, whole);
}

// A natural side: whole, even, at least 2. Rounded up so no source is cut.
double EvenNaturalSide(double side) {
    double whole = std::ceil(side);
    if (std::fmod(whole, 2) != 0)
        whole += 1;
    return std::max(2.0, whole);
}

struct Content {
    std::vector<Rect> frames;
    Size size;
};

Content Row(const std::vector<Size>& sizes, double gap) {
    double height = 0;
    for (const Size& s : sizes)
        height = std::max(height, s.height);
    Content content;
    double x = 0;
    for (const Size& s : sizes) {
        double width = std::max(1.0, std::round(height * s.width / s.height));
        content.frames.push_back({x, 0, width, height});
        x += width + gap;
    }
    content.size = {x - gap, height};
    return content;
}

Content Column(const std::vector<Size>& sizes, double gap) {
    double width = 0;
    for (const Size& s : sizes)
        width = std::max(width, s.width);
    Content content;
    double y = 0;
    for (const Size& s : sizes) {
        double height = std::max(1.0, std::round(width * s.height / s.width));
        content.frames.push_back({0, y, width, height});
        y += height + gap;
    }
    content.size = {width, y - gap};
    return content;
}

Content Grid(const std::vector<Size>& sizes, double gap) {
    double cellWidth = 0;
    double cellHeight = 0;
    for (const Size& s : sizes) {
        cellWidth = std::max(cellWidth, s.width);
        cellHeight = std::max(cellHeight, s.height);
    }
    // The smallest square that holds every source, less the rows it would leave empty.
    size_t n = sizes.size();
    size_t columns = 1;
    while (columns * columns < n)
        ++columns;
    size_t rows = (n + columns - 1) / columns;

    Content content;
    for (size_t i = 0; i < n; ++i) {
        const Size& s = sizes[i];
        double scale = std::min(cellWidth / s.width, cellHeight / s.height);
        double width = std::max(1.0, std::round(s.width * scale));
        double height = std::max(1.0, std::round(s.height * scale));
        double column = double(i % columns);
        double row = double(i / columns);
        content.frames.push_back({column * (cellWidth + gap) + std::floor((cellWidth - width) / 2),
                                  row * (cellHeight + gap) + std::floor((cellHeight - height) / 2), width,
                                  height});
    }
    content.size = {double(columns) * cellWidth + double(columns - 1) * gap,
                    double(rows) * cellHeight + double(rows - 1) * gap};
    return content;
}

Content Focus(const std::vector<Size>& sizes, double gap) {
    const Size& first = sizes[0];
    double others = double(sizes.size() - 1);
    // The side column starts at the top and may end short of the first source's bottom edge: its
    // sources share one height, and stretching them to fill would distort them.
    double sideHeight = std::max(1.0, std::floor((first.height - (others - 1) * gap) / others));
    std::vector<double> sideWidths;
    double widest = 0;
    for (size_t k = 1; k < sizes.size(); ++k) {
        double width = std::max(1.0, std::round(sideHeight * sizes[k].width / sizes[k].height));
        sideWidths.push_back(width);
        widest = std::max(widest, width);
    }
    Content content;
    content.frames.push_back({0, 0, first.width, first.height});
    for (size_t k = 1; k < sizes.size(); ++k) {
        double width = sideWidths[k - 1];
        content.frames.push_back({first.width + gap + std::floor((widest - width) / 2),
                                  double(k - 1) * (sideHeight + gap), width, sideHeight});
    }
    content.size = {first.width + gap + widest, first.height};
    return content;
}

} // namespace

const std::vector<std::string>& NameTable(LayoutKind) {
    static const std::vector<std::string> names{"row", "column", "grid", "focus"};
    return names;
}

Layout::Layout(LayoutKind kind, const std::vector<Size>& sourceSizes, int64_t gap, Size fittingSize)
    : _kind(kind) {
    double g = double(std::max<int64_t>(0, gap));
    std::vector<Size> sizes;
    sizes.reserve(sourceSizes.size());
    for (const Size& s : sourceSizes)
        sizes.push_back(UsableSize(s));

    Content content;
    if (sizes.empty()) {
        content.size = FallbackSize;
    } else if (sizes.size() == 1) {
        content.frames.push_back({0, 0, sizes[0].width, sizes[0].height});
        content.size = sizes[0];
    } else {
        switch (kind) {
        case LayoutKind::Row:
            content = Row(sizes, g);
            break;
        case LayoutKind::Column:
            content = Column(sizes, g);
            break;
        case LayoutKind::Grid:
            content = Grid(sizes, g);
            break;
        case LayoutKind::Focus:
            content = Focus(sizes, g);
            break;
        }
    }

    if (!(fittingSize.width >= 1) || !(fittingSize.height >= 1)) {
        // The rectangles stay where they are: the extra pixel of an odd side stays empty at the far edge.
        _frames = std::move(content.frames);
        _size = {EvenNaturalSide(content.size.width), EvenNaturalSide(content.size.height)};
        return;
    }

    double width = EvenFittingSide(fittingSize.width);
    double height = EvenFittingSide(fittingSize.height);
    double scale = std::min(width / content.size.width, height / content.size.height);
    // The small allowance keeps a centring offset that is whole in exact arithmetic from losing a pixel
    // to rounding in the scale.
    double ox = std::max(0.0, std::floor((width - scale * content.size.width) / 2 + 0.001));
    double oy = std::max(0.0, std::floor((height - scale * content.size.height) / 2 + 0.001));
    _frames.reserve(content.frames.size());
    for (const Rect& r : content.frames) {
        // Edges are scaled, not sizes, so neighbours that touched before still touch.
        double x = std::floor(r.x * scale);
        double y = std::floor(r.y * scale);
        double w = std::max(1.0, std::floor((r.x + r.width) * scale) - x);
        double h = std::max(1.0, std::floor((r.y + r.height) * scale) - y);
        _frames.push_back({ox + x, oy + y, w, h});
    }
    _size = {width, height};
}

std::vector<Size> LayoutSizes(const SourceSizes& sizes) {
    std::vector<Size> layoutSizes;
    for (const auto& size : sizes)
        layoutSizes.push_back(size.value_or(Size{}));
    return layoutSizes;
}

} // namespace quorva
