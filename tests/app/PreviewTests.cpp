// The monitor's drawing of the processor's pictures (the Vulkan drawing, and with it
// the letterbox's other cases and the flip, is VulkanPreviewTests').
#include "App/Preview.h"

#include "platform/MemoryPicture.h"
#include "platform/PictureEngine.h"
#include "tests/app/QtTesting.h"
#include "tests/platform/PictureTesting.h"

#include <QImage>

#include <gtest/gtest.h>

namespace quorva {
namespace {

class ProcessorPreviewTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { testing::Application(); }
    std::shared_ptr<PictureEngine> engine = testing::Engine("processor");
};

// What the view draws, read from the widget itself.
QImage Drawn(PreviewView& view) {
    view.resize(400, 400);
    return view.grab().toImage();
}

TEST_F(ProcessorPreviewTest, LetterboxesThePictureOnBlackAndShowsBlackWithout) {
    auto picture = MemoryPicture::make(1920, 1080).value();
    for (uint32_t y = 0; y < 1080; ++y)
        for (uint32_t x = 0; x < 1920; ++x) {
            uint8_t* pixel = picture->row(y) + 4 * x;
            const bool left = x < 960;
            pixel[0] = left ? 0 : 255, pixel[1] = 0, pixel[2] = left ? 255 : 0, pixel[3] = 0; // alpha ignored
        }
    std::shared_ptr<Picture> shown = picture;
    std::unique_ptr<PreviewView> view(PreviewView::make(
        engine,
        [&] {
            return PreviewFrame{shown, false};
        },
        nullptr, false));
    QImage image = Drawn(*view);
    EXPECT_EQ(image.pixelColor(200, 20), QColor(Qt::black));  // the bar above
    EXPECT_EQ(image.pixelColor(200, 380), QColor(Qt::black)); // and below
    // Within what the scaling's filter rounds.
    EXPECT_GE(image.pixelColor(50, 200).red(), 250);
    EXPECT_EQ(image.pixelColor(50, 200).blue(), 0);
    EXPECT_GE(image.pixelColor(350, 200).blue(), 250);
    EXPECT_EQ(image.pixelColor(350, 200).red(), 0);

    shown = nullptr;
    image = Drawn(*view);
    EXPECT_EQ(image.pixelColor(200, 200), QColor(Qt::black));
}

} // namespace
} // namespace quorva
