#include "core/movie/FramePacer.h"

#include <algorithm>
#include <cmath>

namespace quorva {

namespace {

// Saturates: a time absurdly far from the origin must not overflow the conversion.
int64_t Saturated(double slot) {
    if (slot >= 9223372036854775807.0)
        return std::numeric_limits<int64_t>::max();
    if (slot <= -9223372036854775808.0)
        return std::numeric_limits<int64_t>::min();
    return int64_t(slot);
}

// The slot of a frame d seconds after the origin. Rounding to the nearest slot, halves up, counts a
// frame that arrives a little early (sources jitter either way) for the slot it was meant for.
int64_t SlotOf(double d, double framesPerSecond) {
    return Saturated(std::round(d * framesPerSecond));
}

} // namespace

FramePacer::FramePacer(double framesPerSecond, double origin) : _framesPerSecond(framesPerSecond) {
    if (!std::isnan(origin)) {
        _started = true;
        _firstTime = origin;
    }
}

FramePacerDecision FramePacer::decisionForFrameAtTime(double time) {
    // A frame without a usable time is refused before it can become the origin: one bad time stamp
    // must not spoil the grid of the whole recording.
    if (!std::isfinite(time))
        return {};
    if (!_started) {
        _started = true;
        _firstTime = time;
    }
    const double d = time - _firstTime;
    if (d < 0)
        return {};
    const int64_t slot = SlotOf(d, _framesPerSecond);
    if (slot <= _lastSlot)
        return {.refused = true};
    _lastSlot = slot;
    return {.keep = true, .slot = slot};
}

bool FramePacer::wouldKeepFrameAtTime(double time) const {
    if (!std::isfinite(time))
        return false;
    if (!_started)
        return true;
    const double d = time - _firstTime;
    return d >= 0 && SlotOf(d, _framesPerSecond) > _lastSlot;
}

int64_t FramePacer::slotAtTime(double time) const {
    return _started && std::isfinite(time) ? std::max<int64_t>(0, SlotOf(time - _firstTime, _framesPerSecond))
                                           : 0;
}

} // namespace quorva
