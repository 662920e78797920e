#include "core/movie/SoundTimeline.h"

#include "platform/Log.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace quorva {

namespace {

// Blocks further than this from the end of the track carry a broken time stamp, not a real gap.
constexpr double LargestDistance = 86400;
constexpr int64_t Largest = std::numeric_limits<int64_t>::max();
constexpr uint64_t LargestSilenceFrameCount = std::numeric_limits<uint64_t>::max() / (2 * sizeof(float));

// Nearest whole frame count, halves away from zero, kept within ±Largest so that negating it is safe.
int64_t RoundToFrames(double frames) {
    double rounded = std::round(frames);
    if (std::isnan(rounded))
        return 0;
    if (rounded >= 9223372036854775807.0)
        return Largest;
    if (rounded <= -9223372036854775807.0)
        return -Largest;
    return int64_t(rounded);
}

int64_t SaturatingSubtract(int64_t a, int64_t b) {
    int64_t difference;
    if (__builtin_sub_overflow(a, b, &difference))
        return b < 0 ? Largest : -Largest;
    return std::max(difference, -Largest);
}

} // namespace

SoundTimeline::SoundTimeline(double origin) : _origin(origin) {}

double SoundTimeline::writtenDuration() const {
    return _rate > 0 ? _runStart + double(_written) / _rate : _runStart;
}

double SoundTimeline::silenceAdded() const {
    return _rate > 0 ? _silenceBefore + double(_silence) / _rate : _silenceBefore;
}

double SoundTimeline::soundLeftOut() const {
    return _rate > 0 ? _leftOutBefore + double(_leftOut) / _rate : _leftOutBefore;
}

void SoundTimeline::startRunAtRate(double rate) {
    // Frame counts mean nothing at another rate, so the run so far is folded into seconds.
    double runStart = writtenDuration();
    double silenceBefore = silenceAdded();
    double leftOutBefore = soundLeftOut();
    _runStart = runStart;
    _silenceBefore = silenceBefore;
    _leftOutBefore = leftOutBefore;
    _written = 0;
    _silence = 0;
    _leftOut = 0;
    _rate = rate;
    _anchored = false;
    _smoothedError = 0;
    _longestSilence.reset();
}

bool SoundTimeline::appendSilence(std::vector<std::shared_ptr<SourceSound>>& pieces, int64_t frameCount) {
    double tenSeconds = std::round(10 * _rate);
    try {
        // Long gaps repeat one shared block instead of allocating the whole gap.
        if (tenSeconds >= 1 && double(frameCount) >= tenSeconds) {
            if (tenSeconds > double(LargestSilenceFrameCount))
                return false;
            if (!_longestSilence)
                _longestSilence = SourceSound::silenceOfFrameCount(uint64_t(tenSeconds), _rate);
            int64_t blockFrames = int64_t(tenSeconds);
            pieces.insert(pieces.end(), size_t(frameCount / blockFrames), _longestSilence);
            frameCount %= blockFrames;
        }
        if (frameCount > 0) {
            if (uint64_t(frameCount) > LargestSilenceFrameCount)
                return false;
            pieces.push_back(SourceSound::silenceOfFrameCount(uint64_t(frameCount), _rate));
        }
    } catch (const SilenceMemoryError& error) {
        Log("SoundTimeline: ", error.what());
        return false;
    }
    return true;
}

std::vector<std::shared_ptr<SourceSound>>
SoundTimeline::piecesForSound(const std::shared_ptr<SourceSound>& sound, double time) {
    // A block made around the factories' checks with a rate that cannot place it is refused like a bad
    // time.
    if (!sound || !IsUsableRate(sound->sampleRate()))
        return {};
    // A block ends at its arrival.
    double start = time - sound->duration() - _origin;
    if (!std::isfinite(start) || std::abs(start - writtenDuration()) > LargestDistance)
        return {};
    if (sound->sampleRate() != _rate)
        startRunAtRate(sound->sampleRate());

    const int64_t n = int64_t(sound->frameCount());
    // Positive: a gap before the block; negative: an overlap with what is already written.
    int64_t offset = SaturatingSubtract(RoundToFrames((start - _runStart) * _rate), _written);

    bool wasAnchored = _anchored;
    bool anchored = true;
    double smoothedError = 0;
    int64_t placement = offset;
    if (_anchored && std::abs(double(offset)) <= std::round(0.1 * _rate)) {
        // Within a tenth of a second: arrival times jitter by far more than the sound really drifts, so
        // blocks go back to back and only an error that persists beyond 20 ms moves the track.
        double weight = std::min(0.5 * sound->duration(), 1.0);
        smoothedError = _smoothedError + weight * (double(offset) - _smoothedError);
        placement = 0;
        if (std::abs(smoothedError) > 0.02 * _rate) {
            placement = RoundToFrames(smoothedError);
            smoothedError = 0;
        }
    }

    std::vector<std::shared_ptr<SourceSound>> pieces;
    if (placement > 0) {
        // Placement only commits once the silence exists, so running out of memory changes nothing.
        if (!appendSilence(pieces, placement))
            return {};
        pieces.push_back(sound);
        _silence += placement;
        _written += placement + n;
    } else if (placement == 0) {
        pieces.push_back(sound);
        _written += n;
    } else if (n > -placement) {
        std::shared_ptr<SourceSound> rest = sound->soundFromFrame(uint64_t(-placement));
        if (!rest)
            return {};
        pieces.push_back(std::move(rest));
        _leftOut += -placement;
        _written += n + placement;
    } else {
        // Wholly in the past. A stale block says nothing about where the run is now, so it does not
        // anchor it.
        _leftOut += n;
        anchored = wasAnchored;
    }
    _anchored = anchored;
    _smoothedError = smoothedError;
    return pieces;
}

} // namespace quorva
