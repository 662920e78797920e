#include "core/FramePacer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace quorva {
namespace {

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

struct Frame {
    double time;
    bool keep;
    double movieTime;
};

// Feeds frames one by one to a new pacer, checking each answer, and that asking first never changes it.
void ExpectDecisions(const char* name, double framesPerSecond, double origin,
                     std::initializer_list<Frame> frames) {
    SCOPED_TRACE(name);
    FramePacer pacer(framesPerSecond, origin);
    for (const Frame& f : frames) {
        SCOPED_TRACE(testing::Message() << "frame at " << f.time);
        EXPECT_EQ(pacer.wouldKeepFrameAtTime(f.time), f.keep);
        FramePacerDecision decision = pacer.decisionForFrameAtTime(f.time);
        EXPECT_EQ(decision.keep, f.keep);
        EXPECT_EQ(decision.time, f.movieTime);
    }
}

TEST(FramePacer, KeepsTheFirstFrameOfEachSlotAtTheSlotsTime) {
    // 0.3 of a slot is still slot 0; 0.6 is slot 1, at its exact time.
    ExpectDecisions("first frame wins", 30, 10,
                    {{10.000, true, 0}, {10.010, false, 0}, {10.020, true, 1.0 / 30}, {10.030, false, 0}});
    // At 2 frames a second these times are exact in binary, so each lands exactly half-way: 0.5 slots
    // go to slot 1, 2.5 to slot 3, not 2.
    ExpectDecisions("half-way goes later", 2, 0,
                    {{0.0, true, 0}, {0.25, true, 0.5}, {0.5, false, 0}, {1.25, true, 1.5}, {1.5, false, 0}});
    ExpectDecisions("empty slots are skipped", 10, 0, {{0.0, true, 0}, {0.5, true, 0.5}, {0.61, true, 0.6}});
    ExpectDecisions("a late source joins the grid", 30, 10, {{12.0, true, 2.0}, {12.01, false, 0}});
    // Without this refusal they would land in slot 0, or, with no limit, after the starting -1.
    ExpectDecisions("before the origin", 30, 10, {{9.99, false, 0}, {9.5, false, 0}, {10.0, true, 0}});
    ExpectDecisions("before the origin, no limit", 0, 10, {{9.5, false, 0}, {10.25, true, 0.25}});

    FramePacer far(1e6, 0.0);
    FramePacerDecision decision = far.decisionForFrameAtTime(1e300);
    EXPECT_TRUE(decision.keep);
    EXPECT_EQ(decision.time, 9223372036854775807.0 / 1e6) << "the slot saturates";
    EXPECT_FALSE(far.decisionForFrameAtTime(1e301).keep);
}

TEST(FramePacer, WithoutALimitKeepsEveryStrictlyLaterFrameAndWithoutAnOriginTakesTheFirst) {
    ExpectDecisions("no limit", 0, 0,
                    {{0.0, true, 0},
                     {0.5, true, 0.5},
                     {0.7, true, 0.7},
                     {0.7, false, 0},
                     {0.6, false, 0},
                     {0.70001, true, 0.70001}});
    ExpectDecisions("a negative rate is no limit", -30, 0,
                    {{0.0, true, 0}, {0.001, true, 0.001}, {0.002, true, 0.002}});
    ExpectDecisions("the first frame is the origin", 30, NaN,
                    {{123.4, true, 0}, {123.4 + 0.02, true, 1.0 / 30}, {100.0, false, 0}});
    // A frame without a usable time does not become the origin.
    ExpectDecisions("unusable times", 30, NaN,
                    {{NaN, false, 0},
                     {std::numeric_limits<double>::infinity(), false, 0},
                     {5.0, true, 0},
                     {NaN, false, 0}});

    // Not started yet: any time would be kept, and asking does not fix the origin.
    FramePacer pacer(30);
    EXPECT_TRUE(pacer.wouldKeepFrameAtTime(200.0));
    EXPECT_TRUE(pacer.wouldKeepFrameAtTime(100.0));
    EXPECT_TRUE(pacer.decisionForFrameAtTime(150.0).keep);
}

} // namespace
} // namespace quorva
