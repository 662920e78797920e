#pragma once

#include <cstdint>
#include <limits>

namespace quorva {

// What the pacer says about one frame: whether the movie keeps it and for which slot of the grid, or
// whether it was refused for coming to a slot that an earlier frame already took.
struct FramePacerDecision {
    bool keep = false;
    int64_t slot = 0;
    bool refused = false;
};

// Puts incoming frames on a movie's frame-rate grid: a frame takes the slot nearest its arrival,
// counted from the origin, and a second frame for a slot already taken is refused. Every movie of a
// take that shares an origin shares one clock, slot k of each lying k / rate after it. Not thread-safe:
// its recorder locks around it.
class FramePacer {
public:
    // `framesPerSecond` must be above 0. Without an origin (NaN), the first frame decided on becomes
    // the origin.
    explicit FramePacer(double framesPerSecond = 60,
                        double origin = std::numeric_limits<double>::quiet_NaN());

    // Decides on a frame that arrived at host time `time`, and remembers a kept frame's slot.
    FramePacerDecision decisionForFrameAtTime(double time);
    // What decisionForFrameAtTime would answer, without changing anything: lets a caller skip work on
    // a frame that would be refused.
    bool wouldKeepFrameAtTime(double time) const;
    // The slot that a frame at host time `time` lies nearest (at least 0).
    int64_t slotAtTime(double time) const;

private:
    double _framesPerSecond;
    bool _started = false;
    double _firstTime = 0;
    int64_t _lastSlot = -1;
};

} // namespace quorva
