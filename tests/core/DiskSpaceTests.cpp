#include "core/control/DiskSpace.h"

#include <gtest/gtest.h>

namespace quorva {
namespace {

TEST(DiskSpace, TheMinutesLeftKeepTheFinishAsideAndEstimatesErrTowardsTooLittleRoom) {
    const double rate = 1e6; // a megabyte a second
    const uint64_t reserved = BytesToFinish(rate, 0, 1);
    EXPECT_EQ(MinutesLeft(reserved / 2, rate, 0, 1), 0);
    EXPECT_DOUBLE_EQ(MinutesLeft(reserved + 60000000, rate, 0, 1), 1);
    // A longer take has a longer header to write, and so do more movies.
    EXPECT_GT(BytesToFinish(rate, 3600, 1), reserved);
    EXPECT_GT(BytesToFinish(rate, 3600, 3), BytesToFinish(rate, 3600, 1));
    EXPECT_EQ(MinutesLeft(1000000000, 0, 0, 1), 0) << "no rate, no promise";

    const double h264 = EstimatedBytesPerSecond(Codec::H264, 1920, 1080, 30, 0, false);
    const double prores = EstimatedBytesPerSecond(Codec::ProRes422, 1920, 1080, 30, 0, false);
    EXPECT_NEAR(prores, 147e6 / 8 * 30 / 29.97, 1e6); // Apple's 147 Mb/s
    EXPECT_GT(EstimatedBytesPerSecond(Codec::ProRes4444, 1920, 1080, 30, 0, false), prores);
    EXPECT_GT(prores, h264);
    EXPECT_DOUBLE_EQ(EstimatedBytesPerSecond(Codec::H264, 1920, 1080, 30, 80, false), 10e6);
    EXPECT_DOUBLE_EQ(EstimatedBytesPerSecond(Codec::ProRes422, 1920, 1080, 30, 0, true), prores + 288000);
    // A size or rate not known yet counts as 1080p30, and so does a take of no movie.
    PlannedTake take;
    take.plan.settings.setCodec(Codec::ProRes422);
    EXPECT_DOUBLE_EQ(EstimatedBytesPerSecond(take), prores);
    take.plan.titles = {"Cam", "Desk"};
    take.plan.sizes = {Size{1920, 1080}};
    take.plan.output = TakeOutput::Both;
    take.plan.assembledSize = {3840, 1080};
    take.assembledRate = 30;
    EXPECT_DOUBLE_EQ(EstimatedBytesPerSecond(take), 4 * prores); // two 1080p movies and one twice as wide

    EXPECT_FALSE(FreeBytes("/nonexistent/folder"));
}

} // namespace
} // namespace quorva
