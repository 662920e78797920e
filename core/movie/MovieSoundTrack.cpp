#include "core/movie/MovieSoundTrack.h"

#include "core/movie/FFmpegHandles.h"
#include "platform/Log.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace quorva {

namespace {

constexpr double SoundRate = MovieWriter::SoundRate;
// Durations are compared with this much slack, so that a block of exactly the limit is not cut.
constexpr double Slack = 0.000001;
// Waiting sound is bounded by duration: two seconds, or thirty while silence is being written (then
// sound piles up behind the gap and must not be lost).
constexpr double WaitingLimit = 2;
constexpr double WaitingLimitBehindGap = 30;
// A pass writes at most a second of silence, so that pictures are never kept waiting behind a long gap.
constexpr int64_t SilenceBudget = MovieWriter::SoundRate;
// After an append failed, the next pass waits this long.
constexpr double RetryAfter = 0.002;

} // namespace

MovieSoundTrack::~MovieSoundTrack() {
    swr_free(&_resampler);
}

void MovieSoundTrack::start(bool records) {
    std::lock_guard guard(_lock);
    _accepting = records;
    // The last movie's sound was forgotten as it ended.
    _waiting.clear();
    _secondsWaiting = 0;
    _behindGap = false;
    _written = _leftOut = 0;
}

void MovieSoundTrack::stop() {
    std::lock_guard guard(_lock);
    _accepting = false;
}

bool MovieSoundTrack::append(const std::shared_ptr<SourceSound>& sound, double time) {
    if (!sound || sound->frameCount() == 0)
        return false;
    double limit;
    {
        std::lock_guard guard(_lock);
        if (!_accepting)
            return false;
        limit = _behindGap ? WaitingLimitBehindGap : WaitingLimit;
    }
    // A block longer than the queue may hold keeps its end; it still ends at its arrival.
    std::shared_ptr<SourceSound> kept = sound;
    double cut = 0;
    if (sound->duration() > limit + Slack) {
        const uint64_t keep = uint64_t(std::llround(limit * sound->sampleRate()));
        kept = sound->soundFromFrame(sound->frameCount() - std::min(keep, sound->frameCount()));
        cut = sound->duration() - (kept ? kept->duration() : 0);
    }
    std::lock_guard guard(_lock);
    _leftOut += cut;
    if (!kept || !_accepting)
        return false;
    _waiting.emplace_back(kept, time);
    _secondsWaiting += kept->duration();
    while (_waiting.size() > 1 && _secondsWaiting > limit + Slack) {
        const double dropped = _waiting.front().sound()->duration();
        _waiting.pop_front();
        _secondsWaiting -= dropped;
        _leftOut += dropped;
    }
    const bool scheduled = _passScheduled;
    _passScheduled = true;
    return !scheduled;
}

std::optional<double> MovieSoundTrack::write(MovieWriter* writer, std::optional<double> origin,
                                             bool scheduled) {
    if (scheduled) {
        std::lock_guard guard(_lock);
        _passScheduled = false;
    }
    if (!writer || !writer->format().recordsSound || writer->hasFailed())
        return std::nullopt;
    if (!_timeline) {
        if (!origin)
            return std::nullopt;
        _timeline = std::make_unique<SoundTimeline>(*origin);
    }
    const bool progressed = pass(*writer);
    const bool placedSilence = std::any_of(_placed.begin(), _placed.end(),
                                           [](const PlacedSound& placed) { return placed.index() == 1; });
    std::lock_guard guard(_lock);
    _behindGap = placedSilence || (_behindGap && _secondsWaiting > WaitingLimit + Slack);
    if ((_waiting.empty() && _placed.empty()) || _passScheduled)
        return std::nullopt;
    _passScheduled = true;
    return progressed ? 0 : RetryAfter;
}

bool MovieSoundTrack::pass(MovieWriter& writer) {
    int64_t budget = SilenceBudget;
    for (;;) {
        while (!_placed.empty()) {
            PlacedSound& head = _placed.front();
            if (auto* sound = std::get_if<std::shared_ptr<SourceSound>>(&head)) {
                if (!appendSamples(writer, (*sound)->samples(), int64_t((*sound)->frameCount())))
                    return false;
                _placed.pop_front();
                continue;
            }
            Silence& silence = std::get<Silence>(head);
            if (silence.frames < 1) {
                _placed.pop_front();
                continue;
            }
            if (budget == 0)
                break;
            const int64_t frames = std::min(silence.frames, budget);
            if (!appendSamples(writer, nullptr, frames))
                return false;
            budget -= frames;
            silence.frames -= frames;
            if (silence.frames == 0)
                _placed.pop_front();
        }
        if (placedIncludesSound())
            return true;
        WaitingSound next;
        {
            std::lock_guard guard(_lock);
            if (_waiting.empty())
                return true;
            next = std::move(_waiting.front());
            _waiting.pop_front();
            _secondsWaiting -= next.sound()->duration();
        }
        place(next.sound(), next.time());
    }
}

void MovieSoundTrack::finish(MovieWriter& writer, double origin) {
    if (!writer.format().recordsSound)
        return;
    if (!_timeline)
        _timeline = std::make_unique<SoundTimeline>(origin);
    // Nothing is accepted any more, so what waits now is all there is, and no other pass comes. A pass
    // places all of it, or writes a second of the silence before it, or finds the writer failed: the
    // passes come to an end without waiting for anything. The rate converter's tail goes last.
    bool flushed = false;
    while (!writer.hasFailed() && pass(writer)) {
        if (!nothingWaits())
            continue;
        if (!flushed) {
            endConversion();
            flushed = true;
        } else if (_placed.empty()) {
            return;
        }
    }
}

bool MovieSoundTrack::nothingWaits() const {
    std::lock_guard guard(_lock);
    return _waiting.empty();
}

bool MovieSoundTrack::placedIncludesSound() const {
    return std::any_of(_placed.begin(), _placed.end(),
                       [](const PlacedSound& placed) { return placed.index() == 0; });
}

void MovieSoundTrack::place(const std::shared_ptr<SourceSound>& sound, double time) {
    const double silenceBefore = _timeline->silenceAdded();
    std::vector<std::shared_ptr<SourceSound>> pieces = _timeline->piecesForSound(sound, time);
    if (pieces.empty())
        return;
    // The timeline's silence is expressed once, at the track's own rate, rather than as its blocks.
    const int64_t gap = std::llround((_timeline->silenceAdded() - silenceBefore) * SoundRate);
    if (sound->sampleRate() != _rate || gap >= 1)
        endConversion();
    _rate = sound->sampleRate();
    if (!_resampler && _rate != SoundRate) {
        // The converter takes whole rates that an int holds.
        const double rate = std::round(_rate);
        AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
        if (!(rate >= 1 && rate <= INT_MAX) ||
            swr_alloc_set_opts2(&_resampler, &stereo, AV_SAMPLE_FMT_FLT, int(SoundRate), &stereo,
                                AV_SAMPLE_FMT_FLT, int(rate), 0, nullptr) < 0 ||
            swr_init(_resampler) < 0) {
            Log("MovieRecorder: ", "could not convert sound: the converter did not open");
            swr_free(&_resampler);
        }
    }
    if (gap >= 1)
        _placed.push_back(Silence{gap});
    if (!_resampler && _rate != SoundRate) {
        // Sound that cannot be brought to the track's rate never will be: it counts as left out.
        std::lock_guard guard(_lock);
        _leftOut += pieces.back()->duration();
        return;
    }
    std::shared_ptr<SourceSound> last = _resampler ? convert(pieces.back()) : pieces.back();
    if (last)
        _placed.push_back(std::move(last));
}

std::shared_ptr<SourceSound> MovieSoundTrack::convert(const std::shared_ptr<SourceSound>& sound) {
    if (!_resampler)
        return nullptr;
    const int64_t capacity = (sound ? int64_t(std::ceil(double(sound->frameCount()) * SoundRate / _rate))
                                    : int64_t(swr_get_out_samples(_resampler, 0))) +
                             1024;
    SourceSound::Buffer buffer(static_cast<float*>(std::malloc(size_t(capacity) * 2 * sizeof(float))));
    if (!buffer)
        return nullptr;
    int64_t collected = 0;
    const uint8_t* input = sound ? reinterpret_cast<const uint8_t*>(sound->samples()) : nullptr;
    int inputFrames = sound ? int(sound->frameCount()) : 0;
    // Input goes in once; flushing (no input) is repeated until the converter has nothing left.
    for (;;) {
        uint8_t* output = reinterpret_cast<uint8_t*>(buffer.get() + 2 * collected);
        const int converted = swr_convert(_resampler, &output, int(capacity - collected),
                                          input ? &input : nullptr, inputFrames);
        if (converted < 0) {
            Log("MovieRecorder: ", "could not convert sound: " + FFmpegErrorText(converted));
            break;
        }
        collected += converted;
        if (sound || converted == 0 || collected >= capacity)
            break;
    }
    if (collected == 0)
        return nullptr;
    return SourceSound::make(std::move(buffer), uint64_t(collected), SoundRate);
}

void MovieSoundTrack::endConversion() {
    if (!_resampler)
        return;
    if (std::shared_ptr<SourceSound> rest = convert(nullptr))
        _placed.push_back(std::move(rest));
    swr_free(&_resampler);
}

bool MovieSoundTrack::appendSamples(MovieWriter& writer, const float* samples, int64_t frameCount) {
    if (!writer.appendSound(samples, frameCount, _position))
        return false;
    _position += frameCount;
    std::lock_guard guard(_lock);
    _written += double(frameCount) / SoundRate;
    return true;
}

void MovieSoundTrack::keepWhatTheFileHolds(const MovieWriter& writer) {
    std::lock_guard guard(_lock);
    _written = std::min(_written, double(writer.soundInFile()) / SoundRate);
}

void MovieSoundTrack::forget() {
    double remaining = 0;
    for (const PlacedSound& placed : _placed)
        if (auto* sound = std::get_if<std::shared_ptr<SourceSound>>(&placed))
            remaining += (*sound)->duration();
    _timeline.reset();
    swr_free(&_resampler);
    _rate = 0;
    _placed.clear();
    _position = 0;
    std::lock_guard guard(_lock);
    _leftOut += remaining + _secondsWaiting;
    _waiting.clear();
    _secondsWaiting = 0;
    _behindGap = false;
}

double MovieSoundTrack::written() const {
    std::lock_guard guard(_lock);
    return _written;
}

double MovieSoundTrack::leftOut() const {
    std::lock_guard guard(_lock);
    return _leftOut;
}

} // namespace quorva
