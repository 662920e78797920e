#pragma once

#include "core/source/SourceSound.h"
#include "core/source/WaitingSound.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace quorva {

// Turns sound blocks, each known only by the host time it arrived at, into one continuous track for a
// movie. Sources' clocks drift against the host's and their blocks come late, early or not at all, so
// the timeline places each block where it belongs, pads gaps with silence, leaves out sound that would
// overlap what is already written, and absorbs small jitter by smoothing rather than cutting.
//
// Sound comes in runs: each change of sample rate starts a new one, and the totals of earlier runs are
// carried over so that the durations below stay continuous. Not thread-safe: its movie's sound handling
// is the only caller.
class SoundTimeline {
public:
    // `origin`: the host time of movie time 0.
    explicit SoundTimeline(double origin);

    // Closes the current run and opens one at `rate`. The next block anchors the new run afresh.
    void startRunAtRate(double rate);

    // What to write for `sound`, which arrived at host time `time`, in order: silence then the block, the
    // block alone, the part of it that is new, or nothing. Silence longer than ten seconds repeats one
    // shared ten-second block. Nothing, with nothing changed, for a block whose time is not finite or
    // lies more than a day from the end of the track.
    std::vector<std::shared_ptr<SourceSound>> piecesForSound(const std::shared_ptr<SourceSound>& sound,
                                                             double time);

    // Seconds of track placed so far, sound and silence.
    double writtenDuration() const;
    // Seconds of silence inserted so far.
    double silenceAdded() const;
    // Seconds of received sound left out because it overlapped what was already placed.
    double soundLeftOut() const;

    double origin() const { return _origin; }
    // The sample rate of the current run; 0 before the first block.
    double rate() const { return _rate; }

private:
    // Appends `frameCount` frames of silence to `pieces`; false when there is no memory for it.
    bool appendSilence(std::vector<std::shared_ptr<SourceSound>>& pieces, int64_t frameCount);

    double _origin;
    double _rate = 0;
    double _runStart = 0;                         // movie time at which the current run begins
    int64_t _written = 0;                         // frames placed in the current run, sound and silence
    int64_t _silence = 0;                         // frames of silence inserted in the current run
    int64_t _leftOut = 0;                         // frames of sound left out in the current run
    bool _anchored = false;                       // the run's position has been fixed against the host clock
    double _smoothedError = 0;                    // running estimate of the placement error, in frames
    double _silenceBefore = 0;                    // seconds of silence inserted in earlier runs
    double _leftOutBefore = 0;                    // seconds of sound left out in earlier runs
    std::shared_ptr<SourceSound> _longestSilence; // ten seconds at the run's rate, made at first need
};

} // namespace quorva
