// The monitor drawn with Vulkan into a real window of an X display (Xvfb), read back from the screen as
// a user would see it; and the processor's drawing of it, read from the widget itself.

#include "App/Preview.h"
#include "platform/Log.h"
#include "tests/app/QtTesting.h"
#include "tests/platform/PictureTesting.h"

#include <QApplication>
#include <QColor>
#include <QElapsedTimer>
#include <QImage>
#include <QPixmap>
#include <QScreen>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quorva {
namespace {

constexpr QRgb Black = qRgb(0, 0, 0);
constexpr QRgb Red = qRgb(255, 0, 0);
constexpr QRgb Blue = qRgb(0, 0, 255);
constexpr QRgb Green = qRgb(0, 255, 0);
constexpr QRgb White = qRgb(255, 255, 255);

// A point of the view, in its own coordinates, and the colour it must show there.
struct Expected {
    int x, y;
    QRgb colour;
};

bool Near(QRgb a, QRgb b) {
    auto near = [](int p, int q) { return std::abs(p - q) <= 8; };
    return near(qRed(a), qRed(b)) && near(qGreen(a), qGreen(b)) && near(qBlue(a), qBlue(b));
}

class VulkanPreviewTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        testing::Application();
        SetLogSink([](const std::string& line) { logged.push_back(line); });
        // The GPU engine even on lavapipe, which the program would otherwise leave to the processor.
        engine = testing::Engine("vulkan");
    }

    static void TearDownTestSuite() { SetLogSink(nullptr); }

    void SetUp() override {
        if (!engine)
            GTEST_SKIP() << "no GPU engine";
        logged.clear();
    }

    // A 1920 × 1080 picture of the engine, its colour at each pixel given by `colourAt`.
    static std::shared_ptr<Picture> MakePicture(const std::function<QRgb(uint32_t x, uint32_t y)>& colourAt) {
        return testing::MakePicture(*engine, 1920, 1080, [&](uint32_t x, uint32_t y) {
            const QRgb colour = colourAt(x, y);
            return testing::Pixel{uint8_t(qBlue(colour)), uint8_t(qGreen(colour)), uint8_t(qRed(colour)),
                                  255};
        });
    }

    void show(int width, int height) {
        view.reset(PreviewView::make(
            engine, [this] { return shown; }, nullptr, false));
        view->resize(width, height);
        view->show();
    }

    // Waits (up to 20 seconds: lavapipe under the sanitizers is slow) until the screen shows every
    // expected colour, then checks them, with the log of the view when they are wrong, and that the view
    // gave up on nothing.
    void expectScreen(const std::vector<Expected>& expected) {
        QImage image;
        auto matches = [&] {
            return std::ranges::all_of(
                expected, [&](const Expected& e) { return Near(pixel(image, e.x, e.y), e.colour); });
        };
        QElapsedTimer waited;
        waited.start();
        do {
            QApplication::processEvents(QEventLoop::AllEvents, 50);
            image = view->screen()->grabWindow(view->winId()).toImage().convertToFormat(QImage::Format_RGB32);
        } while (!matches() && waited.elapsed() < 20000);
        std::string log;
        for (const std::string& line : logged) {
            EXPECT_EQ(line.find("monitor"), std::string::npos) << line;
            log += line + "\n";
        }
        for (const Expected& e : expected)
            EXPECT_TRUE(Near(pixel(image, e.x, e.y), e.colour))
                << "at (" << e.x << ", " << e.y << ") the screen shows "
                << QColor(pixel(image, e.x, e.y)).name().toStdString() << ", not "
                << QColor(e.colour).name().toStdString() << "\n"
                << log;
    }

    // The screen's pixel at a point of the view (the grab is in device pixels).
    QRgb pixel(const QImage& image, int x, int y) const {
        if (image.isNull() || view->width() == 0)
            return qRgb(1, 2, 3);
        const double scale = double(image.width()) / view->width();
        const QPoint at(int(x * scale), int(y * scale));
        return image.valid(at) ? image.pixel(at) : qRgb(1, 2, 3);
    }

    static inline std::shared_ptr<PictureEngine> engine;
    static inline std::vector<std::string> logged;

    PreviewFrame shown;
    std::unique_ptr<PreviewView> view;
};

TEST_F(VulkanPreviewTest, LetterboxesThePictureAndFollowsTheViewsSize) {
    shown.picture = MakePicture([](uint32_t x, uint32_t) { return x < 960 ? Red : Blue; });
    // In a square of 400 the picture is 400 × 225, with bars of 87.5 above and below.
    show(400, 400);
    const std::vector<Expected> square = {{200, 20, Black},  {200, 84, Black}, {100, 91, Red},
                                          {300, 91, Blue},   {100, 309, Red},  {300, 309, Blue},
                                          {200, 316, Black}, {200, 380, Black}};
    expectScreen(square);
    // Made wide, the view puts the bars at the sides: 533 × 300, from 33.3 to 566.7. The swap chain is
    // made again for the new size, or the picture stays where it was.
    view->resize(600, 300);
    const std::vector<Expected> wide = {{10, 150, Black},  {30, 150, Black}, {37, 5, Red},
                                        {37, 295, Red},    {563, 5, Blue},   {563, 295, Blue},
                                        {570, 150, Black}, {590, 150, Black}};
    expectScreen(wide);
}

TEST_F(VulkanPreviewTest, TurnsAFlippedPictureTheRightWayUpAndShowsBlackWithoutOne) {
    // Stored bottom-up: the first rows, green, are the bottom of the picture.
    shown.picture = MakePicture([](uint32_t, uint32_t y) { return y < 540 ? Green : White; });
    shown.flipped = true;
    show(400, 400);
    expectScreen({{200, 40, Black}, {200, 110, White}, {200, 290, Green}, {200, 360, Black}});
    // What the view showed before must not linger.
    shown = {};
    expectScreen({{200, 110, Black}, {200, 290, Black}, {10, 200, Black}, {390, 200, Black}});
}

// Where the processor's drawing letterboxes a picture, and in which colours, the window's tests read from
// the screen; here, that it goes black once the picture is gone.
TEST(ProcessorPreviewTest, ShowsBlackOnceThePictureIsGone) {
    testing::Application();
    const std::shared_ptr<PictureEngine> processor = testing::Engine("processor");
    std::shared_ptr<Picture> white = testing::MakeSolidPicture(*processor, 1920, 1080, {255, 255, 255, 255});
    auto frame = [&] { return PreviewFrame{white, false}; };
    const std::unique_ptr<PreviewView> view(PreviewView::make(processor, frame, nullptr, false));
    view->resize(400, 400);
    EXPECT_GE(view->grab().toImage().pixelColor(200, 200).value(), 250); // within what the scaling rounds
    white = nullptr;
    EXPECT_EQ(view->grab().toImage().pixelColor(200, 200), QColor(Qt::black));
}

} // namespace
} // namespace quorva
