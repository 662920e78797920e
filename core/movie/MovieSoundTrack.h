#pragma once

#include "core/movie/MovieWriter.h"
#include "core/movie/SoundTimeline.h"
#include "core/source/SourceSound.h"
#include "core/source/WaitingSound.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>

struct SwrContext;

namespace quorva {

// The sound track of the movie that a recorder writes. Sound blocks arrive on any thread, each stamped
// with the host time it arrived at, and wait, two seconds of them at most (thirty while a gap is being
// filled with silence, as sound then piles up behind it), for a pass on the recorder's queue. A pass
// places them on the movie's timeline (SoundTimeline: gaps become silence, overlaps are left out),
// brings them to the track's 48 kHz and hands them to the writer, with at most a second of silence a
// pass so that pictures never wait behind a long gap. Sound that never reaches the file is counted as
// left out, whatever the reason.
//
// Threads: start(), stop(), append(), written() and leftOut() from any thread; write(), finish(),
// keepWhatTheFileHolds() and forget() on the recorder's queue only, which owns the timeline, the rate
// converter and the sound placed. The recorder calls start() and stop() under its own lock; this class
// never calls out while holding its lock.
class MovieSoundTrack {
public:
    MovieSoundTrack() = default;
    ~MovieSoundTrack();
    MovieSoundTrack(const MovieSoundTrack&) = delete;
    MovieSoundTrack& operator=(const MovieSoundTrack&) = delete;

    // Begins a movie's track: its counts at 0, and its sound accepted from now on when it `records`.
    void start(bool records);
    // Accepts no more sound. What waits stays for finish() or forget().
    void stop();
    // Queues a block that arrived at host time `time`, as it ends then; a block longer than may wait keeps
    // its end. Answers whether the caller must schedule a pass with write(…, true): none is due yet.
    bool append(const std::shared_ptr<SourceSound>& sound, double time);

    // One pass: writes what waits to `writer` (nothing without one, or where it has no sound track or has
    // failed), on a timeline whose time 0 is the host time `origin` (nothing before that is known).
    // `scheduled`: this is the pass that append() or an earlier pass asked for. Answers after how many
    // seconds the caller must schedule the next, when one is due and none is scheduled yet.
    std::optional<double> write(MovieWriter* writer, std::optional<double> origin, bool scheduled);
    // Writes everything that waits, once stop() has been called, so that the track goes as far as the
    // sound that came; it stops early only where the writer fails.
    void finish(MovieWriter& writer, double origin);
    // Brings the seconds written down to what the file of `writer`, now ended, holds.
    void keepWhatTheFileHolds(const MovieWriter& writer);
    // Whatever sound has not reached the file by now never will: it counts as left out, whether the
    // movie ended, failed or never had a frame.
    void forget();

    // Seconds of sound track written, silence included.
    double written() const;
    // Seconds of received sound that will never be written (too much waiting, trimmed blocks, what was
    // left at the end).
    double leftOut() const;

private:
    struct Silence {
        int64_t frames;
    };
    using PlacedSound = std::variant<std::shared_ptr<SourceSound>, Silence>;

    // A pass; false when an append failed.
    bool pass(MovieWriter& writer);
    bool placedIncludesSound() const;
    bool nothingWaits() const;
    void place(const std::shared_ptr<SourceSound>& sound, double time);
    std::shared_ptr<SourceSound> convert(const std::shared_ptr<SourceSound>& sound);
    void endConversion();
    bool appendSamples(MovieWriter& writer, const float* samples, int64_t frameCount);

    // Belong to the recorder's queue.
    std::unique_ptr<SoundTimeline> _timeline;
    double _rate = 0; // of the sound being converted
    SwrContext* _resampler = nullptr;
    std::deque<PlacedSound> _placed;
    int64_t _position = 0; // 48 kHz frames handed to the writer

    mutable std::mutex _lock; // guards everything below
    bool _accepting = false;
    std::deque<WaitingSound> _waiting;
    double _secondsWaiting = 0;
    bool _passScheduled = false;
    bool _behindGap = false;
    double _written = 0;
    double _leftOut = 0;
};

} // namespace quorva
