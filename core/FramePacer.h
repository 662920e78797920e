#pragma once

#include <cstdint>
#include <limits>

namespace quorva {

// What the pacer says about one frame: whether the movie keeps it, and at what time, in seconds from
// the pacer's origin (0 for a frame it does not keep).
struct FramePacerDecision {
    bool keep = false;
    double time = 0;
};

// Picks which incoming frames a movie keeps so that it never holds more than `framesPerSecond` frames a
// second. Kept frames are stamped with the exact time of their slot on the frame-rate grid, so every
// movie of a take that shares an origin shares one grid. Slots that get no frame are skipped, not
// filled: the movie shows the previous frame for longer. Not thread-safe: its recorder locks around it.
class FramePacer {
public:
    // A rate of 0 (or below) puts no limit on frames. Without an origin (NaN), the first frame decided
    // on becomes the origin.
    explicit FramePacer(double framesPerSecond, double origin = std::numeric_limits<double>::quiet_NaN());

    // Decides on a frame that arrived at host time `time`, and remembers a kept frame's slot.
    FramePacerDecision decisionForFrameAtTime(double time);
    // What decisionForFrameAtTime would answer, without changing anything: lets a caller skip work on
    // a frame that would be refused.
    bool wouldKeepFrameAtTime(double time) const;

private:
    double _framesPerSecond;
    bool _started = false;
    double _firstTime = 0;
    double _lastTime = -1.0; // offset of the last kept frame when there is no grid
    int64_t _lastSlot = -1;
};

} // namespace quorva
