#include "platform/MediaClock.h"
#include "platform/Semaphore.h"
#include "sources/TestPatternDirectory.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace quorva {
namespace {

// Two sources at once, as a show would have them: each delivers pictures of its size at no more than its
// rate, never in a burst, and sound that keeps up with the clock. Counted over a window that opens once
// both have begun, with bounds loose enough for a busy machine.
TEST(TestPatternSourceTest, SourcesDeliverPicturesAtTheirRateWithTheirSound) {
    TestPatternDirectory directory;
    EXPECT_EQ(directory.connectToSourceWithTitle("Test Pattern", testing::Engine("processor")), nullptr);
    struct Feed {
        std::string title;
        uint32_t width;
        double rate;
        std::shared_ptr<FrameSource> source;
        std::atomic<uint64_t> pictures{0}, soundFrames{0};
        std::pair<uint64_t, uint64_t> before{}; // pictures and sound frames as the window opens
    };
    Feed feeds[] = {{"Test Pattern 1080p60", 1920, 60, {}}, {"Test Pattern 720p30", 1280, 30, {}}};
    for (auto& feed : feeds) {
        feed.source = directory.connectToSourceWithTitle(feed.title, testing::Engine("processor"));
        ASSERT_TRUE(feed.source);
        EXPECT_EQ(feed.source->framesPerSecond(), feed.rate);
        feed.source->output().setFrameHandler([&feed](const std::shared_ptr<Picture>& picture) {
            EXPECT_EQ(picture->width(), feed.width);
            ++feed.pictures;
        });
        feed.source->output().setSoundHandler([&feed](const std::shared_ptr<SourceSound>& sound) {
            EXPECT_EQ(sound->sampleRate(), 48000);
            feed.soundFrames += sound->frameCount();
        });
    }
    for (int wait = 0; wait < 300 && (feeds[0].pictures == 0 || feeds[1].pictures == 0); ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (auto& feed : feeds)
        feed.before = {feed.pictures, feed.soundFrames};
    double start = MediaClock::now();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    double window = MediaClock::now() - start;

    for (auto& feed : feeds) {
        SCOPED_TRACE(feed.title);
        double pictures = double(feed.pictures - feed.before.first);
        double seconds = double(feed.soundFrames - feed.before.second) / 48000;
        EXPECT_GE(pictures, 1);
        EXPECT_LE(pictures, feed.rate * window + 2);
        EXPECT_GE(seconds, window / 2);
        EXPECT_LE(seconds, window + 1);
        EXPECT_TRUE(feed.source->isAlive());
        feed.source->stop();
        EXPECT_FALSE(feed.source->isAlive());
    }
    uint64_t afterStop = feeds[0].pictures;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(feeds[0].pictures, afterStop);
}

// A receiver may let go of the source from inside its own picture handler: the source's thread then
// ends by itself, and what it held goes with it.
TEST(TestPatternSourceTest, ASourceReleasedFromItsOwnHandlerEndsItsThread) {
    TestPatternDirectory directory;
    auto holder = std::make_shared<std::shared_ptr<FrameSource>>(
        directory.connectToSourceWithTitle("Test Pattern Alpha 1080p30", testing::Engine("processor")));
    ASSERT_TRUE(*holder);
    auto ended = std::make_shared<Semaphore>();
    std::shared_ptr<void> endsWithTheHandler(nullptr, [ended](void*) { ended->signal(); });
    (*holder)->output().setFrameHandler(
        [holder, endsWithTheHandler](const std::shared_ptr<Picture>&) { holder->reset(); });
    endsWithTheHandler.reset();
    holder.reset();
    EXPECT_TRUE(ended->wait(10));
}

} // namespace
} // namespace quorva
