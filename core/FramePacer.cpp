#include "core/FramePacer.h"

#include <cmath>

namespace quorva {

namespace {

// The slot of a frame d seconds after the origin. Rounding to the nearest slot, halves up, counts a
// frame that arrives a little early (sources jitter either way) for the slot it was meant for.
int64_t SlotOf(double d, double framesPerSecond) {
    double slot = std::round(d * framesPerSecond);
    // Saturate: a frame absurdly far from the origin must not overflow the conversion.
    if (slot >= 9223372036854775807.0)
        return std::numeric_limits<int64_t>::max();
    if (slot <= -9223372036854775808.0)
        return std::numeric_limits<int64_t>::min();
    return int64_t(slot);
}

} // namespace

FramePacer::FramePacer(double framesPerSecond, double origin)
    // A rate that is not a finite number puts no limit on frames, as 0 does; only that keeps the slot
    // arithmetic meaningful.
    : _framesPerSecond(std::isfinite(framesPerSecond) && framesPerSecond > 0 ? framesPerSecond : 0) {
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
    double d = time - _firstTime;
    if (d < 0)
        return {};
    if (_framesPerSecond == 0) {
        if (!(d > _lastTime))
            return {};
        _lastTime = d;
        return {true, d};
    }
    int64_t slot = SlotOf(d, _framesPerSecond);
    if (slot <= _lastSlot)
        return {};
    _lastSlot = slot;
    return {true, double(slot) / _framesPerSecond};
}

bool FramePacer::wouldKeepFrameAtTime(double time) const {
    if (!std::isfinite(time))
        return false;
    if (!_started)
        return true;
    double d = time - _firstTime;
    if (d < 0)
        return false;
    if (_framesPerSecond == 0)
        return d > _lastTime;
    return SlotOf(d, _framesPerSecond) > _lastSlot;
}

} // namespace quorva
