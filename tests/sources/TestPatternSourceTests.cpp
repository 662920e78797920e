#include "platform/MediaClock.h"
#include "platform/Semaphore.h"
#include "sources/TestPatternDirectory.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace quorva {
namespace {

TEST(TestPatternSourceTest, TheDirectoryOffersThreePatternsAndConnectsOnlyByExactTitle) {
    TestPatternDirectory directory;
    std::vector<std::string> titles;
    for (const auto& source : directory.availableSources()) {
        EXPECT_EQ(source.kind(), SourceKindPattern);
        titles.push_back(source.title());
    }
    EXPECT_EQ(titles, (std::vector<std::string>{"Test Pattern 1080p60", "Test Pattern 720p30",
                                                "Test Pattern Alpha 1080p30"}));
    EXPECT_EQ(directory.connectToSourceWithTitle("Test Pattern", testing::SharedDevice()), nullptr);
    EXPECT_EQ(SourceKindName(SourceKindPattern), "pattern");
    EXPECT_EQ(SourceKindName(7), "pipewire");
}

// Two sources at once, as a show would have them: each delivers pictures of its size at no more than its
// rate, never in a burst, and sound that keeps up with the clock. Counted over a window that opens once
// both have begun, with bounds loose enough for a software GPU on a busy machine.
TEST(TestPatternSourceTest, SourcesDeliverPicturesAtTheirRateWithTheirSound) {
    TestPatternDirectory directory;
    struct Counts {
        std::atomic<uint64_t> pictures{0}, wrongSize{0}, soundFrames{0};
    };
    const std::vector<std::tuple<std::string, uint32_t, double>> formats = {
        {"Test Pattern 1080p60", 1920, 60}, {"Test Pattern 720p30", 1280, 30}};
    std::vector<std::shared_ptr<FrameSource>> sources;
    std::vector<std::unique_ptr<Counts>> counts;
    for (const auto& [title, width, rate] : formats) {
        auto source = directory.connectToSourceWithTitle(title, testing::SharedDevice());
        ASSERT_TRUE(source);
        auto& count = *counts.emplace_back(std::make_unique<Counts>());
        source->setFrameHandler([&count, width = width](const std::shared_ptr<Texture>& picture) {
            count.wrongSize += picture->width() != width;
            ++count.pictures;
        });
        source->setSoundHandler([&count](const std::shared_ptr<SourceSound>& sound) {
            EXPECT_EQ(sound->sampleRate(), 48000);
            count.soundFrames += sound->frameCount();
        });
        sources.push_back(source);
    }
    for (int wait = 0; wait < 300 && (counts[0]->pictures == 0 || counts[1]->pictures == 0); ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::vector<std::pair<uint64_t, uint64_t>> before;
    for (auto& count : counts)
        before.emplace_back(count->pictures, count->soundFrames);
    double start = MediaClock::now();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    double window = MediaClock::now() - start;

    for (size_t i = 0; i < formats.size(); ++i) {
        SCOPED_TRACE(std::get<0>(formats[i]));
        double pictures = double(counts[i]->pictures - before[i].first);
        double seconds = double(counts[i]->soundFrames - before[i].second) / 48000;
        EXPECT_TRUE(sources[i]->isAlive());
        EXPECT_GE(pictures, 1);
        EXPECT_LE(pictures, std::get<2>(formats[i]) * window + 2);
        EXPECT_EQ(counts[i]->wrongSize, 0u);
        EXPECT_GE(seconds, window / 2);
        EXPECT_LE(seconds, window + 1);
    }
    for (auto& source : sources) {
        source->stop();
        EXPECT_FALSE(source->isAlive());
    }
    uint64_t afterStop = counts[0]->pictures;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(counts[0]->pictures, afterStop);
}

// A receiver may let go of the source from inside its own picture handler: the source's thread then
// ends by itself, and what it held goes with it.
TEST(TestPatternSourceTest, ASourceReleasedFromItsOwnHandlerEndsItsThread) {
    TestPatternDirectory directory;
    auto holder = std::make_shared<std::shared_ptr<FrameSource>>(
        directory.connectToSourceWithTitle("Test Pattern Alpha 1080p30", testing::SharedDevice()));
    ASSERT_TRUE(*holder);
    auto ended = std::make_shared<Semaphore>();
    std::shared_ptr<void> endsWithTheHandler(nullptr, [ended](void*) { ended->signal(); });
    (*holder)->setFrameHandler(
        [holder, endsWithTheHandler](const std::shared_ptr<Texture>&) { holder->reset(); });
    endsWithTheHandler.reset();
    holder.reset();
    EXPECT_TRUE(ended->wait(10));
}

} // namespace
} // namespace quorva
