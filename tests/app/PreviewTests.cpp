// The monitor's drawing of the processor's pictures (the Vulkan drawing, and with it the letterbox's other
// cases and the flip, is VulkanPreviewTests').
#include "App/Preview.h"

#include "platform/MemoryPicture.h"
#include "platform/PictureEngine.h"
#include "tests/app/QtTesting.h"
#include "tests/platform/PictureTesting.h"

#include <QImage>

#include <cstring>

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

// Where the view letterboxes a picture, and in which colours, the window's tests read from the screen;
// here, that it goes black once the picture is gone.
TEST_F(ProcessorPreviewTest, ShowsBlackOnceThePictureIsGone) {
    auto picture = MemoryPicture::make(1920, 1080).value();
    std::memset(picture->bytes(), 255, picture->stride() * 1080); // white
    std::shared_ptr<Picture> shown = picture;
    std::unique_ptr<PreviewView> view(PreviewView::make(
        engine,
        [&] {
            return PreviewFrame{shown, false};
        },
        nullptr, false));
    EXPECT_GE(Drawn(*view).pixelColor(200, 200).value(), 250); // within what the scaling rounds
    shown = nullptr;
    EXPECT_EQ(Drawn(*view).pixelColor(200, 200), QColor(Qt::black));
}

} // namespace
} // namespace quorva
