#include "platform/MediaClock.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <time.h>

namespace quorva {
namespace {

double Monotonic() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

TEST(MediaClock, ReadsTheMonotonicClockInSeconds) {
    double before = Monotonic();
    double now = MediaClock::now();
    double after = Monotonic();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(MediaClock, DeadlinesAgreeWithTheClockAndSurviveOddDelays) {
    using Clock = std::chrono::steady_clock;
    auto before = Clock::now();
    auto inOneSecond = MediaClock::deadlineAfter(1.0);
    EXPECT_GE(inOneSecond - before, std::chrono::milliseconds(1000));
    EXPECT_LT(inOneSecond - before, std::chrono::seconds(60));

    // "Now" for what is not a positive delay.
    for (double odd : {0.0, -5.0, std::nan("")}) {
        auto deadline = MediaClock::deadlineAfter(odd);
        EXPECT_LE(deadline, Clock::now()) << odd;
    }
    // Far away, but no overflow into the past.
    for (double huge : {1e12, 1e300, std::numeric_limits<double>::infinity()}) {
        auto deadline = MediaClock::deadlineAfter(huge);
        EXPECT_GT(deadline, Clock::now() + std::chrono::hours(24 * 365)) << huge;
    }
}

} // namespace
} // namespace quorva
