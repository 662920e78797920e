#include "core/FramePacer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace quorva {
namespace {

struct Frame {
    double time;
    bool keep;
    double movieTime;
};

// Feeds frames one by one, checking each answer, and that asking first never changes the answer.
void ExpectDecisions(FramePacer& pacer, std::initializer_list<Frame> frames) {
    for (const Frame& f : frames) {
        SCOPED_TRACE(testing::Message() << "frame at " << f.time);
        EXPECT_EQ(pacer.wouldKeepFrameAtTime(f.time), f.keep);
        EXPECT_EQ(pacer.wouldKeepFrameAtTime(f.time), f.keep);
        FramePacerDecision decision = pacer.decisionForFrameAtTime(f.time);
        EXPECT_EQ(decision.keep, f.keep);
        EXPECT_EQ(decision.time, f.movieTime);
    }
}

TEST(FramePacerGrid, FirstFrameToReachASlotWinsIt) {
    FramePacer pacer(30, 10.0);
    ExpectDecisions(pacer, {
                               {10.000, true, 0},
                               {10.010, false, 0},       // 0.3 of a slot: still slot 0
                               {10.020, true, 1.0 / 30}, // 0.6 of a slot: slot 1, at its exact time
                               {10.030, false, 0},
                               {9.99, false, 0}, // before the origin
                           });
}

TEST(FramePacerGrid, HalfwayFramesBelongToTheLaterSlot) {
    // At 2 frames a second the times below are exact in binary, so each lands exactly half-way.
    FramePacer pacer(2, 0.0);
    ExpectDecisions(pacer, {
                               {0.0, true, 0},
                               {0.25, true, 0.5}, // 0.5 slots → slot 1
                               {0.5, false, 0},   // slot 1 again
                               {1.25, true, 1.5}, // 2.5 slots → slot 3, not 2
                               {1.5, false, 0},   // slot 3 again
                           });
}

TEST(FramePacerGrid, AFrameUpToHalfASlotEarlyCountsForTheComingSlot) {
    FramePacer pacer(25, 0.0);
    ExpectDecisions(pacer, {{0.0, true, 0}, {0.021, true, 0.04}, {0.039, false, 0}});
}

TEST(FramePacerGrid, EmptySlotsAreSkippedNotFilled) {
    FramePacer pacer(10, 0.0);
    ExpectDecisions(pacer, {{0.0, true, 0}, {0.5, true, 0.5}, {0.61, true, 0.6}});
}

TEST(FramePacerGrid, ALateSourceStartsOnTheSharedGrid) {
    FramePacer pacer(30, 10.0);
    ExpectDecisions(pacer, {{12.0, true, 2.0}, {12.01, false, 0}});
}

TEST(FramePacerOrigin, FramesBeforeAGivenOriginAreRefusedEvenBeforeAnyIsKept) {
    // Without this refusal they would land in slot 0, or, with no limit, after the starting -1.
    FramePacer grid(30, 10.0);
    ExpectDecisions(grid, {{9.99, false, 0}, {9.5, false, 0}, {10.0, true, 0}});
    FramePacer noLimit(0, 10.0);
    ExpectDecisions(noLimit, {{9.5, false, 0}, {10.25, true, 0.25}});
}

TEST(FramePacerGrid, AFrameFarInTheFutureSaturatesItsSlot) {
    FramePacer pacer(1e6, 0.0);
    FramePacerDecision decision = pacer.decisionForFrameAtTime(1e300);
    EXPECT_TRUE(decision.keep);
    EXPECT_EQ(decision.time, 9223372036854775807.0 / 1e6);
    EXPECT_FALSE(pacer.decisionForFrameAtTime(1e301).keep);
}

TEST(FramePacerNoLimit, KeepsEveryStrictlyLaterFrameAtItsOwnTime) {
    FramePacer pacer(0, 0.0);
    ExpectDecisions(pacer, {
                               {0.0, true, 0},
                               {0.5, true, 0.5},
                               {0.7, true, 0.7},
                               {0.7, false, 0}, // same time as the last kept frame
                               {0.6, false, 0}, // older
                               {0.70001, true, 0.70001},
                           });
}

TEST(FramePacerNoLimit, ANegativeRateMeansNoLimit) {
    FramePacer pacer(-30, 0.0);
    ExpectDecisions(pacer, {{0.0, true, 0}, {0.001, true, 0.001}, {0.002, true, 0.002}});
}

TEST(FramePacerOrigin, WithoutAnOriginTheFirstFrameBecomesIt) {
    FramePacer pacer(30);
    // Not started yet: any time would be kept, and asking does not fix the origin.
    EXPECT_TRUE(pacer.wouldKeepFrameAtTime(200.0));
    EXPECT_TRUE(pacer.wouldKeepFrameAtTime(100.0));
    ExpectDecisions(pacer, {
                               {123.4, true, 0},
                               {123.4 + 0.02, true, 1.0 / 30},
                               {100.0, false, 0},
                           });

    FramePacer explicitNaN(0, std::numeric_limits<double>::quiet_NaN());
    ExpectDecisions(explicitNaN, {{55.0, true, 0}, {55.0, false, 0}, {55.5, true, 0.5}});
}

TEST(FramePacerOrigin, AFrameWithoutAUsableTimeIsRefusedAndDoesNotBecomeTheOrigin) {
    FramePacer pacer(30);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    ExpectDecisions(pacer, {{nan, false, 0}, {inf, false, 0}, {5.0, true, 0}, {nan, false, 0}});
}

} // namespace
} // namespace quorva
