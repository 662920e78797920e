#pragma once

#include <chrono>

namespace quorva {

// The host's media clock: seconds since an arbitrary origin, from CLOCK_MONOTONIC, which never jumps
// with the wall clock. Frame and sound arrival times, pacing and every time-out of the kit use it.
class MediaClock {
public:
    static double now();

    // The steady-clock instant `seconds` from now, for waits on condition variables. std::chrono's
    // steady clock is CLOCK_MONOTONIC on Linux, so both agree. Huge or infinite delays are capped at
    // about thirty years instead of overflowing; negative ones mean "now".
    static std::chrono::steady_clock::time_point deadlineAfter(double seconds);
};

} // namespace quorva
