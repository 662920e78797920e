#include "platform/MediaClock.h"

#include <algorithm>
#include <time.h>

namespace quorva {

double MediaClock::now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

std::chrono::steady_clock::time_point MediaClock::deadlineAfter(double seconds) {
    constexpr double longest = 1e9; // about thirty years: "forever" for any wait of this program
    // NaN fails both comparisons, so it lands on zero rather than poisoning the arithmetic.
    double clamped = seconds > 0 ? std::min(seconds, longest) : 0.0;
    auto delay = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(clamped));
    return std::chrono::steady_clock::now() + delay;
}

} // namespace quorva
