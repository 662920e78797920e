#include "core/Layout.h"

#include <gtest/gtest.h>

#include <cmath>
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

constexpr int64_t Row = 0;
constexpr int64_t Column = 1;
constexpr int64_t Grid = 2;
constexpr int64_t Focus = 3;
constexpr Size NoFitting{0, 0};

TEST(LayoutNames, KindNamesInTheirFixedOrder) {
    EXPECT_EQ(Layout::kindNames(), (std::vector<std::string>{"row", "column", "grid", "focus"}));
    EXPECT_EQ(Layout::nameForKind(2), "grid");
    EXPECT_EQ(Layout::nameForKind(3), "focus");
    // Out of range, either way, reads as the first name.
    EXPECT_EQ(Layout::nameForKind(-1), "row");
    EXPECT_EQ(Layout::nameForKind(4), "row");
    EXPECT_EQ(Layout::nameForKind(std::numeric_limits<int64_t>::min()), "row");
}

TEST(LayoutNames, NamesMatchWholeAfterLowerCasing) {
    int64_t kind = -7;
    EXPECT_TRUE(Layout::getKind(kind, "Grid"));
    EXPECT_EQ(kind, 2);
    EXPECT_TRUE(Layout::getKind(kind, "FOCUS"));
    EXPECT_EQ(kind, 3);
    EXPECT_TRUE(Layout::getKind(kind, "row"));
    EXPECT_EQ(kind, 0);

    kind = -7;
    for (std::string_view bad : {"", "gri", "grids", " grid", "grid ", "colunm"}) {
        EXPECT_FALSE(Layout::getKind(kind, bad)) << bad;
        EXPECT_EQ(kind, -7) << bad;
    }
    EXPECT_FALSE(Layout::getKind(kind, std::string_view("grid\0", 5)));
    EXPECT_EQ(kind, -7);
}

TEST(LayoutRow, SourcesTakeTheTallestHeightSideBySide) {
    Layout layout(Row, {{1920, 1080}, {1280, 720}}, 10, NoFitting);
    EXPECT_EQ(layout.kind(), Row);
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 1920, 1080}, {1930, 0, 1920, 1080}}));
    EXPECT_EQ(layout.size(), (Size{3850, 1080}));
}

TEST(LayoutRow, ScaledWidthRoundsHalvesUpAndOddSizeGrowsToEven) {
    // The second source scaled to height 10 is 2.5 wide: 3 pixels. The content is then 23 wide, and
    // the picture 24, with the spare column left empty at the far edge.
    Layout layout(Row, {{20, 10}, {1, 4}}, 0, NoFitting);
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 20, 10}, {20, 0, 3, 10}}));
    EXPECT_EQ(layout.size(), (Size{24, 10}));
}

TEST(LayoutRow, NegativeGapCountsAsNone) {
    Layout layout(Row, {{100, 100}, {100, 100}}, -30, NoFitting);
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 100, 100}, {100, 0, 100, 100}}));
    EXPECT_EQ(layout.size(), (Size{200, 100}));
}

TEST(LayoutColumn, SourcesTakeTheWidestWidthStacked) {
    Layout layout(Column, {{1920, 1080}, {1280, 720}}, 10, NoFitting);
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 1920, 1080}, {0, 1090, 1920, 1080}}));
    EXPECT_EQ(layout.size(), (Size{1920, 2170}));

    // 10 · 1 / 4 = 2.5 rounds to 3; 20 + 5 + 3 = 28.
    Layout halves(Column, {{10, 20}, {4, 1}}, 5, NoFitting);
    EXPECT_EQ(halves.frames(), (std::vector<Rect>{{0, 0, 10, 20}, {0, 25, 10, 3}}));
    EXPECT_EQ(halves.size(), (Size{10, 28}));
}

TEST(LayoutGrid, ThreeSourcesFillTwoByTwoRowByRow) {
    Layout layout(Grid, {{1920, 1080}, {1920, 1080}, {1920, 1080}}, 0, NoFitting);
    EXPECT_EQ(layout.frames(),
              (std::vector<Rect>{{0, 0, 1920, 1080}, {1920, 0, 1920, 1080}, {0, 1080, 1920, 1080}}));
    EXPECT_EQ(layout.size(), (Size{3840, 2160}));
}

TEST(LayoutGrid, ColumnsAndRowsForEachCount) {
    struct Case {
        size_t count;
        Size size; // 10 × 10 cells, so columns and rows read off the picture size
    };
    for (Case c : {Case{2, {20, 10}}, Case{3, {20, 20}}, Case{4, {20, 20}}, Case{5, {30, 20}},
                   Case{6, {30, 20}}, Case{7, {30, 30}}, Case{9, {30, 30}}, Case{10, {40, 30}}}) {
        Layout layout(Grid, std::vector<Size>(c.count, Size{10, 10}), 0, NoFitting);
        EXPECT_EQ(layout.size(), c.size) << c.count << " sources";
    }

    // A short last row keeps its cells at the left; gaps lie between cells only.
    Layout five(Grid, std::vector<Size>(5, Size{100, 100}), 2, NoFitting);
    EXPECT_EQ(five.frames()[2], (Rect{204, 0, 100, 100}));
    EXPECT_EQ(five.frames()[3], (Rect{0, 102, 100, 100}));
    EXPECT_EQ(five.frames()[4], (Rect{102, 102, 100, 100}));
    EXPECT_EQ(five.size(), (Size{304, 202}));
}

TEST(LayoutGrid, SourceIsFittedWholeAndCentredInItsCell) {
    // The cell is 1920 × 1080. 1000 × 999 scales by 1080 / 999 to 1081 × 1080, which leaves 839
    // pixels across: 419 before it (rounded down), 420 after.
    Layout layout(Grid, {{1920, 1080}, {1000, 999}}, 10, NoFitting);
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 1920, 1080}, {2349, 0, 1081, 1080}}));
    EXPECT_EQ(layout.size(), (Size{3850, 1080}));

    // The cell takes the largest width and the largest height separately: 400 × 301, so the wide
    // source has 201 rows to spare, 100 of them above it.
    Layout mixed(Grid, {{400, 100}, {100, 301}}, 0, NoFitting);
    EXPECT_EQ(mixed.frames(), (std::vector<Rect>{{0, 100, 400, 100}, {550, 0, 100, 301}}));
    EXPECT_EQ(mixed.size(), (Size{800, 302}));
}

TEST(LayoutFocus, OthersShareOneColumnBesideTheFirst) {
    Layout layout(Focus, {{1920, 1080}, {1280, 720}, {1280, 720}}, 0, NoFitting);
    EXPECT_EQ(layout.frames(),
              (std::vector<Rect>{{0, 0, 1920, 1080}, {1920, 0, 960, 540}, {1920, 540, 960, 540}}));
    EXPECT_EQ(layout.size(), (Size{2880, 1080}));
}

TEST(LayoutFocus, SideHeightRoundsDownAndNarrowSourcesAreCentred) {
    // (700 − 2 · 10) / 3 = 226.67: height 226. Widths 301.33 → 301, 226, 150.67 → 151; the column is
    // 301 wide, so the others sit 37 (of 75) and 75 pixels in.
    Layout layout(Focus, {{1000, 700}, {400, 300}, {300, 300}, {200, 300}}, 10, NoFitting);
    EXPECT_EQ(layout.frames(),
              (std::vector<Rect>{
                  {0, 0, 1000, 700}, {1010, 0, 301, 226}, {1047, 236, 226, 226}, {1085, 472, 151, 226}}));
    EXPECT_EQ(layout.size(), (Size{1312, 700}));
}

TEST(LayoutFocus, HugeGapStillLeavesOnePixelSources) {
    Layout layout(Focus, {{100, 100}, {100, 100}, {100, 100}}, 200, NoFitting);
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 100, 100}, {300, 0, 1, 1}, {300, 201, 1, 1}}));
    EXPECT_EQ(layout.size(), (Size{302, 100}));
}

TEST(LayoutFocus, UnknownKindsAreLaidOutAsFocus) {
    for (int64_t kind : {int64_t(4), int64_t(-1)}) {
        Layout layout(kind, {{1920, 1080}, {1280, 720}, {1280, 720}}, 0, NoFitting);
        EXPECT_EQ(layout.kind(), kind);
        EXPECT_EQ(layout.frames()[2], (Rect{1920, 540, 960, 540})) << kind;
        EXPECT_EQ(layout.size(), (Size{2880, 1080})) << kind;
    }
}

TEST(LayoutSources, UnusableSizesCountAsFullHD) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (Size bad : {Size{0, 0}, Size{0.5, 100}, Size{100, -1}, Size{nan, 100}, Size{100, nan}}) {
        Layout layout(Row, {bad, {960, 540}}, 0, NoFitting);
        EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 1920, 1080}, {1920, 0, 1920, 1080}}));
    }
}

TEST(LayoutSources, OneSourceKeepsItsOwnSizeWhateverTheKind) {
    for (int64_t kind : {Row, Column, Grid, Focus}) {
        Layout layout(kind, {{1001, 501}}, 40, NoFitting);
        EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 1001, 501}})) << kind;
        EXPECT_EQ(layout.size(), (Size{1002, 502})) << kind;
    }
}

TEST(LayoutSources, NoSourcesGiveFullHDOrTheFittingSize) {
    for (int64_t kind : {Row, Column, Grid, Focus}) {
        Layout natural(kind, {}, 10, NoFitting);
        EXPECT_TRUE(natural.frames().empty());
        EXPECT_EQ(natural.size(), (Size{1920, 1080}));
        Layout fitted(kind, {}, 10, {1281, 721});
        EXPECT_TRUE(fitted.frames().empty());
        EXPECT_EQ(fitted.size(), (Size{1280, 720}));
    }
}

TEST(LayoutNaturalSize, FractionalSidesRoundUpToEven) {
    Layout layout(Row, {{1000.2, 10}}, 0, NoFitting);
    EXPECT_EQ(layout.size(), (Size{1002, 10}));
    Layout tiny(Row, {{1, 1}}, 0, NoFitting);
    EXPECT_EQ(tiny.size(), (Size{2, 2}));
}

TEST(LayoutFitting, FittingSizeRoundsDownToEven) {
    Layout layout(Row, {{1920, 1080}}, 0, {1281, 721});
    EXPECT_EQ(layout.size(), (Size{1280, 720}));
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 1280, 720}}));

    Layout fractional(Row, {{100, 100}}, 0, {2.9, 1.5});
    EXPECT_EQ(fractional.size(), (Size{2, 2}));
    EXPECT_EQ(fractional.frames(), (std::vector<Rect>{{0, 0, 2, 2}}));
}

TEST(LayoutFitting, EitherSideBelowOneMeansNoFitting) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (Size fitting : {Size{1000, 0}, Size{0, 1000}, Size{1000, 0.5}, Size{nan, 1000}}) {
        Layout layout(Row, {{1920, 1080}}, 0, fitting);
        EXPECT_EQ(layout.size(), (Size{1920, 1080}));
        EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 0, 1920, 1080}}));
    }
}

TEST(LayoutFitting, ScalesUpAndCentresTheShortSide) {
    Layout layout(Row, {{100, 50}}, 0, {400, 400});
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{0, 100, 400, 200}}));
    EXPECT_EQ(layout.size(), (Size{400, 400}));
}

TEST(LayoutFitting, EdgesAreScaledSoNeighboursStillTouch) {
    // Content 202 × 100 at scale 0.5 is 101 wide in a 400-pixel picture: 149.5 before it, taken as 149.
    // The shared edge at x = 101 lands on 50.5 → 50, so the first source gets 50 pixels and the
    // second the remaining 51.
    Layout layout(Row, {{101, 100}, {101, 100}}, 0, {400, 50});
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{149, 0, 50, 50}, {199, 0, 51, 50}}));
    EXPECT_EQ(layout.size(), (Size{400, 50}));
}

TEST(LayoutFitting, CentringSurvivesAScaleThatIsNotExact) {
    // The scale is 18 / 7, so 21 scales to 54 and 5 pixels are left on each side. In doubles 21 · s
    // comes out just above 54, and without an allowance the offset would drop to 4.
    Layout layout(Row, {{21, 7}}, 0, {64, 18});
    EXPECT_EQ(layout.frames(), (std::vector<Rect>{{5, 0, 54, 18}}));
    EXPECT_EQ(layout.size(), (Size{64, 18}));
}

} // namespace
} // namespace quorva
