#include "core/movie/FramePacer.h"

#include <gtest/gtest.h>

#include <limits>

namespace quorva {
namespace {

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

struct Frame {
    double time;
    bool keep;
    int64_t slot;
    bool refused = false;
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
        EXPECT_EQ(decision.slot, f.slot);
        EXPECT_EQ(decision.refused, f.refused);
    }
}

TEST(FramePacer, KeepsTheFirstFrameOfEachSlotAndRefusesASecond) {
    // 0.3 of a slot is still slot 0; 0.6 is slot 1.
    ExpectDecisions(
        "first frame wins", 30, 10,
        {{10.000, true, 0}, {10.010, false, 0, true}, {10.020, true, 1}, {10.030, false, 0, true}});
    // At 2 frames a second these times are exact in binary, so each lands exactly half-way: 0.5 slots
    // go to slot 1, 2.5 to slot 3, not 2.
    ExpectDecisions(
        "half-way goes later", 2, 0,
        {{0.0, true, 0}, {0.25, true, 1}, {0.5, false, 0, true}, {1.25, true, 3}, {1.5, false, 0, true}});
    ExpectDecisions("a late source joins the grid", 30, 10, {{12.0, true, 60}, {12.01, false, 0, true}});
    // Before the origin is nobody's slot, and not counted as a second frame for one.
    ExpectDecisions("before the origin", 30, 10, {{9.99, false, 0}, {9.5, false, 0}, {10.0, true, 0}});
    ExpectDecisions("the first frame is the origin", 30, NaN,
                    {{123.4, true, 0}, {123.4 + 0.02, true, 1}, {100.0, false, 0}});
    // A frame without a usable time does not become the origin.
    ExpectDecisions("unusable times", 30, NaN,
                    {{NaN, false, 0}, {std::numeric_limits<double>::infinity(), false, 0}, {5.0, true, 0}});
    ExpectDecisions("the slot saturates", 1e6, 0,
                    {{1e300, true, std::numeric_limits<int64_t>::max()}, {1e301, false, 0, true}});
}

TEST(FramePacer, GivesTheSlotNearestATime) {
    FramePacer pacer(10, 100);
    EXPECT_EQ(pacer.slotAtTime(101.04), 10);
    EXPECT_EQ(pacer.slotAtTime(101.06), 11);
    EXPECT_EQ(pacer.slotAtTime(99), 0);
    EXPECT_EQ(FramePacer(30).slotAtTime(5), 0) << "no origin yet";
}

} // namespace
} // namespace quorva
