#include "platform/MediaClock.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <time.h>

namespace quorva {
namespace {

TEST(MediaClock, ReadsTheMonotonicClockAndItsDeadlinesSurviveOddDelays) {
    timespec before{}, after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    double now = MediaClock::now();
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_LE(double(before.tv_sec) + double(before.tv_nsec) * 1e-9, now);
    EXPECT_LE(now, double(after.tv_sec) + double(after.tv_nsec) * 1e-9);

    using Clock = std::chrono::steady_clock;
    auto start = Clock::now();
    auto inOneSecond = MediaClock::deadlineAfter(1.0);
    EXPECT_GE(inOneSecond - start, std::chrono::milliseconds(1000));
    EXPECT_LT(inOneSecond - start, std::chrono::seconds(60));
    // "Now" for what is not a positive delay; far away, but no overflow into the past, for huge ones.
    // The deadline is taken first: the order in which a call's arguments are evaluated is unspecified.
    for (double odd : {0.0, -5.0, std::nan("")}) {
        auto deadline = MediaClock::deadlineAfter(odd);
        EXPECT_LE(deadline, Clock::now()) << odd;
    }
    for (double huge : {1e12, 1e300, std::numeric_limits<double>::infinity()}) {
        auto deadline = MediaClock::deadlineAfter(huge);
        EXPECT_GT(deadline, Clock::now() + std::chrono::hours(24 * 365)) << huge;
    }
}

} // namespace
} // namespace quorva
