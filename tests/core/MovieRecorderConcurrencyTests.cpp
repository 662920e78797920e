#include "sources/ToneGenerator.h"
#include "tests/core/MovieRecorderFixture.h"

#include <atomic>

namespace quorva {
namespace {

using testing::MovieRecorderTest;

// Frames from one thread as fast as it can hand them in, sound from another, the counters read from a
// third: every frame is either written or dropped, and the movie holds the written ones and, on every
// other slot of the grid, the one before.
TEST_F(MovieRecorderTest, FramesSoundAndCountersFromSeveralThreadsAtOnce) {
    constexpr double T0 = 500;
    ASSERT_TRUE(
        recorder->startWritingToURL(folder / "busy.mov", Settings(Codec::H264, 160, 120, 30, true), T0));
    auto picture = testing::MakeSolidPicture(*engine, 200, 100, {10, 200, 30, 255});
    std::atomic<bool> running{true};
    std::thread reader([&] {
        while (running)
            EXPECT_LE(recorder->framesPending(), MovieRecorder::MaximumFramesInFlight);
    });
    std::thread sound([&] {
        ToneGenerator tone;
        for (int block = 0; block < 200; ++block)
            recorder->appendSound(tone.nextSound(480), T0 + 0.01 * (block + 1));
    });
    // At 60 a second onto a grid of 30: frame 0 and every odd frame win their slot, 61 in all; the others
    // come second to theirs.
    for (int i = 0; i < 120; ++i)
        recorder->appendPicture(picture, i % 2 == 1, T0 + i / 60.0);
    sound.join();
    EXPECT_FALSE(Finish(T0 + 2));
    running = false;
    reader.join();

    EXPECT_EQ(recorder->framesWritten() + recorder->framesDropped(), 120u);
    EXPECT_GE(recorder->framesWritten(), MovieRecorder::MaximumFramesInFlight);
    EXPECT_EQ(recorder->framesPending(), 0u);
    testing::Movie movie = testing::ReadMovie(folder / "busy.mov");
    ASSERT_EQ(movie.times.size(), 60u);
    // (That each lies on its slot is the codecs' case to check.)
    EXPECT_EQ(recorder->framesWritten() + recorder->framesHeld(), 60u);
    EXPECT_NEAR(movie.audioDuration, 2.0, 1.0 / 30);
}

} // namespace
} // namespace quorva
