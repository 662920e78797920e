#include "core/composition/Layout.h"

#include <gtest/gtest.h>

#include <limits>

namespace quorva {

// Printed rectangles and sizes make a failed comparison readable.
static void PrintTo(const Rect& r, std::ostream* os) {
    *os << "(" << r.x << ", " << r.y << ", " << r.width << ", " << r.height << ")";
}
static void PrintTo(const Size& s, std::ostream* os) {
    *os << s.width << " × " << s.height;
}

namespace {

constexpr LayoutKind Row = LayoutKind::Row, Column = LayoutKind::Column, Grid = LayoutKind::Grid,
                     Focus = LayoutKind::Focus;
constexpr Size NoFitting{0, 0};
constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

void ExpectLayout(const std::string& name, LayoutKind kind, const std::vector<Size>& sizes, int64_t gap,
                  Size fitting, const std::vector<Rect>& frames, Size size) {
    SCOPED_TRACE(name + ", kind " + NameOf(kind));
    Layout layout(kind, sizes, gap, fitting);
    EXPECT_EQ(layout.frames(), frames);
    EXPECT_EQ(layout.size(), size);
}

TEST(Layout, PlacesEachKindRoundingAndFitting) {
    const Size hd{1920, 1080}, hd720{1280, 720};
    ExpectLayout("row: the tallest height, side by side", Row, {hd, hd720}, 10, NoFitting,
                 {{0, 0, 1920, 1080}, {1930, 0, 1920, 1080}}, {3850, 1080});
    // The second source scaled to height 10 is 2.5 wide: 3 pixels. The content is then 23 wide, and the
    // picture 24, with the spare column left empty at the far edge.
    ExpectLayout("row: halves round up, odd grows to even", Row, {{20, 10}, {1, 4}}, 0, NoFitting,
                 {{0, 0, 20, 10}, {20, 0, 3, 10}}, {24, 10});
    ExpectLayout("row: a negative gap is none", Row, {{100, 100}, {100, 100}}, -30, NoFitting,
                 {{0, 0, 100, 100}, {100, 0, 100, 100}}, {200, 100});
    // 10 · 1 / 4 = 2.5 rounds to 3; 20 + 5 + 3 = 28.
    ExpectLayout("column: halves round up", Column, {{10, 20}, {4, 1}}, 5, NoFitting,
                 {{0, 0, 10, 20}, {0, 25, 10, 3}}, {10, 28});
    // A short last row keeps its cells at the left; gaps lie between cells only.
    ExpectLayout(
        "grid: five with gaps", Grid, std::vector<Size>(5, Size{100, 100}), 2, NoFitting,
        {{0, 0, 100, 100}, {102, 0, 100, 100}, {204, 0, 100, 100}, {0, 102, 100, 100}, {102, 102, 100, 100}},
        {304, 202});
    // The cell is 1920 × 1080. 1000 × 999 scales by 1080 / 999 to 1081 × 1080, which leaves 839 pixels
    // across: 419 before it (rounded down), 420 after.
    ExpectLayout("grid: fitted whole and centred in the cell", Grid, {hd, {1000, 999}}, 10, NoFitting,
                 {{0, 0, 1920, 1080}, {2349, 0, 1081, 1080}}, {3850, 1080});
    // The cell takes the largest width and height separately: 400 × 301, so the wide source has 201 rows
    // to spare, 100 of them above it.
    ExpectLayout("grid: the cell's sides from different sources", Grid, {{400, 100}, {100, 301}}, 0,
                 NoFitting, {{0, 100, 400, 100}, {550, 0, 100, 301}}, {800, 302});
    // (700 − 2 · 10) / 3 = 226.67: height 226. Widths 301.33 → 301, 226, 150.67 → 151; the column is 301
    // wide, so the others sit 37 (of 75) and 75 pixels in.
    ExpectLayout("focus: side height rounds down, narrow ones centred", Focus,
                 {{1000, 700}, {400, 300}, {300, 300}, {200, 300}}, 10, NoFitting,
                 {{0, 0, 1000, 700}, {1010, 0, 301, 226}, {1047, 236, 226, 226}, {1085, 472, 151, 226}},
                 {1312, 700});
    ExpectLayout("focus: a huge gap still leaves one pixel", Focus, {{100, 100}, {100, 100}, {100, 100}}, 200,
                 NoFitting, {{0, 0, 100, 100}, {300, 0, 1, 1}, {300, 201, 1, 1}}, {302, 100});
    for (Size bad : {Size{0, 0}, Size{0.5, 100}, Size{100, -1}, Size{NaN, 100}, Size{100, NaN}})
        ExpectLayout("an unusable size is Full HD", Row, {bad, {960, 540}}, 0, NoFitting,
                     {{0, 0, 1920, 1080}, {1920, 0, 1920, 1080}}, {3840, 1080});
    // One source, or none, is placed alike by every kind: shown by focus, which would otherwise look for
    // side sources.
    ExpectLayout("one source keeps its size", Focus, {{1001, 501}}, 40, NoFitting, {{0, 0, 1001, 501}},
                 {1002, 502});
    ExpectLayout("no sources", Focus, {}, 10, NoFitting, {}, hd);
    ExpectLayout("no sources, fitted", Focus, {}, 10, {1281, 721}, {}, {1280, 720});
    ExpectLayout("fractional sides round up to even", Row, {{1000.2, 10}}, 0, NoFitting, {{0, 0, 1000.2, 10}},
                 {1002, 10});
    ExpectLayout("the smallest picture", Row, {{1, 1}}, 0, NoFitting, {{0, 0, 1, 1}}, {2, 2});
    ExpectLayout("fitting rounds down to even", Row, {hd}, 0, {1281, 721}, {{0, 0, 1280, 720}}, {1280, 720});
    ExpectLayout("fitting to the smallest picture", Row, {{100, 100}}, 0, {2.9, 1.5}, {{0, 0, 2, 2}}, {2, 2});
    for (Size fitting : {Size{1000, 0}, Size{0, 1000}, Size{1000, 0.5}, Size{NaN, 1000}})
        ExpectLayout("a side below one is no fitting", Row, {hd}, 0, fitting, {{0, 0, 1920, 1080}}, hd);
    ExpectLayout("fitting scales up and centres", Row, {{100, 50}}, 0, {400, 400}, {{0, 100, 400, 200}},
                 {400, 400});
    // Content 202 × 100 at scale 0.5 is 101 wide in a 400-pixel picture: 149.5 before it, taken as 149.
    // The shared edge at x = 101 lands on 50.5 → 50: the first source gets 50 pixels, the second 51.
    ExpectLayout("fitting scales edges so neighbours touch", Row, {{101, 100}, {101, 100}}, 0, {400, 50},
                 {{149, 0, 50, 50}, {199, 0, 51, 50}}, {400, 50});
    // The scale is 18 / 7, so 21 scales to 54 and 5 pixels are left on each side. In doubles 21 · s comes
    // out just above 54, and without an allowance the offset would drop to 4.
    ExpectLayout("fitting centres despite an inexact scale", Row, {{21, 7}}, 0, {64, 18}, {{5, 0, 54, 18}},
                 {64, 18});

    // Columns and rows of a grid, read off the picture's size in 10 × 10 cells, beside the five above: the
    // fewest, the squares and just past one. (Three in two by two cells the command line's grid take
    // reads back.)
    for (auto [count, size] :
         std::vector<std::pair<size_t, Size>>{{2, {20, 10}}, {4, {20, 20}}, {9, {30, 30}}, {10, {40, 30}}})
        EXPECT_EQ(Layout(Grid, std::vector<Size>(count, Size{10, 10}), 0, NoFitting).size(), size) << count;
}

} // namespace
} // namespace quorva
