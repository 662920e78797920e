#include "sources/TestPattern.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

namespace quorva {

namespace {

// Beyond this many pictures a busy consumer only costs memory; extra ones are not kept.
constexpr size_t MaximumKeptPictures = 8;
// What a recording holds of one source at once: the latest picture, three in flight to its movie, and
// the one being drawn.
constexpr size_t WarmPictures = 5;

// Colours as stored: blue, green, red, alpha.
constexpr uint32_t Colour(uint8_t b, uint8_t g, uint8_t r, uint8_t a) {
    return uint32_t(b) | uint32_t(g) << 8 | uint32_t(r) << 16 | uint32_t(a) << 24;
}
constexpr uint32_t White = Colour(255, 255, 255, 255);
constexpr uint32_t HalfWhite = Colour(255, 255, 255, 128);
constexpr uint32_t Black = Colour(0, 0, 0, 255);
constexpr uint32_t Ground = Colour(38, 38, 38, 255); // 15 % grey
constexpr uint32_t Clear = 0;
// 75 %: white, yellow, cyan, green, magenta, red, blue.
constexpr uint32_t BarColours[TestPatternGeometry::Bars] = {
    Colour(191, 191, 191, 255), Colour(0, 191, 191, 255), Colour(191, 191, 0, 255), Colour(0, 191, 0, 255),
    Colour(191, 0, 191, 255),   Colour(0, 0, 191, 255),   Colour(191, 0, 0, 255)};
// Lit segments of each digit: bit 0 is the top one (a), then clockwise (b to f), bit 6 the middle (g).
constexpr uint8_t Segments[10] = {0x3F, 0x06, 0x5B, 0x4F, 0x66, 0x6D, 0x7D, 0x07, 0x7F, 0x6F};

// The whole pixels that a rectangle covers inside the picture.
struct Span {
    uint32_t left = 0, top = 0, right = 0, bottom = 0;
};
Span Pixels(const MemoryPicture& picture, const Rect& rectangle) {
    auto clamp = [](double value, uint32_t limit) { return uint32_t(std::clamp(value, 0.0, double(limit))); };
    return {clamp(rectangle.x, picture.width()), clamp(rectangle.y, picture.height()),
            clamp(rectangle.x + rectangle.width, picture.width()),
            clamp(rectangle.y + rectangle.height, picture.height())};
}

void Fill(MemoryPicture& picture, const Rect& rectangle, uint32_t colour) {
    const Span span = Pixels(picture, rectangle);
    for (uint32_t y = span.top; y < span.bottom; ++y) {
        auto* row = reinterpret_cast<uint32_t*>(picture.row(y));
        std::fill(row + span.left, row + std::max(span.left, span.right), colour);
    }
}

// Puts back the still picture under a rectangle.
void Restore(MemoryPicture& picture, const MemoryPicture& still, const Rect& rectangle) {
    const Span span = Pixels(picture, rectangle);
    if (span.right <= span.left)
        return;
    for (uint32_t y = span.top; y < span.bottom; ++y)
        std::memcpy(picture.row(y) + span.left * 4, still.row(y) + span.left * 4,
                    size_t(span.right - span.left) * 4);
}

} // namespace

TestPatternGeometry TestPatternGeometry::of(uint32_t width, uint32_t height, bool transparent) {
    TestPatternGeometry g;
    g.width = width;
    g.height = height;
    double lowerTop = std::floor(height * 2.0 / 3);
    g.barsBottom = transparent ? std::floor(height / 3.0) : lowerTop;
    g.squareSide = std::max(2.0, std::floor(height / 6.0));
    g.squareTop = lowerTop + std::floor((height - lowerTop - g.squareSide) / 2);
    g.squareStep = std::max(1.0, std::floor(width / 120.0)); // across a 1920 picture in two seconds at 60
    g.digitHeight = std::max(7.0, std::floor(height / 12.0));
    g.digitWidth = std::max(4.0, std::floor(g.digitHeight / 2));
    g.digitGap = std::max(1.0, std::floor(g.digitWidth / 3));
    g.stroke = std::max(1.0, std::floor(g.digitHeight / 10));
    double counterWidth = Digits * g.digitWidth + (Digits - 1) * g.digitGap;
    g.digitLeft = std::max(g.stroke, std::floor((width - counterWidth) / 2));
    g.digitTop = std::max(g.stroke, std::floor((g.barsBottom - g.digitHeight) / 2));
    return g;
}

Rect TestPatternGeometry::squareAt(uint64_t frame) const {
    // Positions run from the left edge to the right one, then start again.
    uint64_t positions = uint64_t(std::max(0.0, width - squareSide) / squareStep) + 1;
    double x = double(frame % positions) * squareStep;
    return {x, squareTop, squareSide, squareSide};
}

Rect TestPatternGeometry::digit(int index) const {
    return {digitLeft + index * (digitWidth + digitGap), digitTop, digitWidth, digitHeight};
}

Rect TestPatternGeometry::counter() const {
    return {digitLeft - stroke, digitTop - stroke, Digits * digitWidth + (Digits - 1) * digitGap + 2 * stroke,
            digitHeight + 2 * stroke};
}

Result<std::shared_ptr<TestPattern>> TestPattern::make(uint32_t width, uint32_t height, bool transparent) {
    // As large as the pictures that a GPU of this program takes.
    constexpr uint32_t Largest = 16384;
    if (width < 16 || height < 16 || width > Largest || height > Largest)
        return Error(std::string(ApplicationIdentifier) + ".TestPattern", -1,
                     "A test pattern of " + std::to_string(width) + " × " + std::to_string(height) +
                         " pixels cannot be drawn");
    Result<std::shared_ptr<MemoryPicture>> still = MemoryPicture::make(width, height);
    if (!still)
        return still.error();
    const TestPatternGeometry geometry = TestPatternGeometry::of(width, height, transparent);
    MemoryPicture& picture = *still.value();
    Fill(picture, {0, 0, double(width), double(height)}, transparent ? Clear : Ground);
    for (int i = 0; i < TestPatternGeometry::Bars; ++i) {
        // A column belongs to the bar under its centre.
        const double left = std::ceil(i * double(width) / TestPatternGeometry::Bars - 0.5);
        const double right = std::ceil((i + 1) * double(width) / TestPatternGeometry::Bars - 0.5);
        Fill(picture,
             {left, 0, (i + 1 == TestPatternGeometry::Bars ? double(width) : right) - left,
              geometry.barsBottom},
             BarColours[i]);
    }
    Fill(picture, geometry.counter(), Black);
    auto pattern =
        std::shared_ptr<TestPattern>(new TestPattern(std::move(still.value()), geometry, transparent));
    // The pictures that a take keeps in flight are made now, with the still part in them, rather than
    // in the first moments of a take, when every encoder is starting too.
    for (size_t i = 0; i < WarmPictures; ++i) {
        Result<std::shared_ptr<MemoryPicture>> made = MemoryPicture::make(width, height);
        if (!made)
            break;
        Restore(*made.value(), *pattern->_still, {0, 0, double(width), double(height)});
        pattern->_slots.push_back({std::move(made.value()), std::nullopt});
    }
    return pattern;
}

TestPattern::TestPattern(std::shared_ptr<MemoryPicture> still, TestPatternGeometry geometry, bool transparent)
    : _still(std::move(still)), _geometry(geometry), _transparent(transparent) {}

Result<std::shared_ptr<MemoryPicture>> TestPattern::drawFrame(uint64_t frame) {
    std::shared_ptr<MemoryPicture> picture;
    std::optional<uint64_t> shown;
    {
        // Only this object hands out holds on its pictures, so one held here alone stays free.
        std::lock_guard guard(_lock);
        for (const Slot& slot : _slots) {
            if (slot.picture.use_count() == 1) {
                picture = slot.picture;
                shown = slot.frame;
                break;
            }
        }
    }
    if (!picture) {
        Result<std::shared_ptr<MemoryPicture>> made =
            MemoryPicture::make(uint32_t(_geometry.width), uint32_t(_geometry.height));
        if (!made)
            return made.error();
        picture = std::move(made.value());
        std::lock_guard guard(_lock);
        if (_slots.size() < MaximumKeptPictures)
            _slots.push_back({picture, std::nullopt});
    }
    draw(*picture, shown, frame);
    std::lock_guard guard(_lock);
    for (Slot& slot : _slots) {
        if (slot.picture == picture)
            slot.frame = frame;
    }
    return picture;
}

void TestPattern::draw(MemoryPicture& picture, std::optional<uint64_t> shown, uint64_t frame) const {
    const TestPatternGeometry& g = _geometry;
    if (shown)
        Restore(picture, *_still, g.squareAt(*shown));
    else
        Restore(picture, *_still, {0, 0, g.width, g.height});
    Fill(picture, g.squareAt(frame), _transparent ? HalfWhite : White);

    // The digits over their box, which the square never reaches.
    Restore(picture, *_still, g.counter());
    const double w = g.digitWidth, h = g.digitHeight, s = g.stroke;
    const double middle = std::floor((h - s) / 2);
    const Rect segments[7] = {{s, 0, w - 2 * s, s},
                              {w - s, s, s, middle - s},
                              {w - s, middle + s, s, h - middle - 2 * s},
                              {s, h - s, w - 2 * s, s},
                              {0, middle + s, s, h - middle - 2 * s},
                              {0, s, s, middle - s},
                              {s, middle, w - 2 * s, s}};
    uint64_t number = frame % 100000000;
    for (int index = TestPatternGeometry::Digits - 1; index >= 0; --index, number /= 10) {
        const Rect cell = g.digit(index);
        for (int segment = 0; segment < 7; ++segment) {
            if (Segments[number % 10] & (1 << segment))
                Fill(picture,
                     {cell.x + segments[segment].x, cell.y + segments[segment].y, segments[segment].width,
                      segments[segment].height},
                     White);
        }
    }
}

} // namespace quorva
