#include "core/composition/RecorderPlace.h"

#include "core/source/SourceDescription.h"
#include "platform/MediaClock.h"

#include <utility>

namespace quorva {

RecorderPlace::RecorderPlace(std::string title) : _title(std::move(title)) {}

std::string RecorderPlace::title() const {
    std::lock_guard guard(_lock);
    return _title;
}

void RecorderPlace::setTitle(std::string title) {
    std::lock_guard guard(_lock);
    _title = std::move(title);
}

std::shared_ptr<FrameSource> RecorderPlace::source() const {
    std::lock_guard guard(_lock);
    return _source;
}

void RecorderPlace::setSource(std::shared_ptr<FrameSource> source) {
    std::lock_guard guard(_lock);
    std::swap(_source, source);
    // The old source, if this was its last holder, goes outside the lock.
}

std::shared_ptr<MovieStatus> RecorderPlace::movie() const {
    std::lock_guard guard(_lock);
    return _movie;
}

void RecorderPlace::setMovie(std::shared_ptr<MovieStatus> movie) {
    std::lock_guard guard(_lock);
    std::swap(_movie, movie);
}

size_t RecorderPlace::receivedFrame(std::shared_ptr<Picture> picture, bool flipped, double time) {
    int64_t width = picture ? int64_t(picture->width()) : 0;
    int64_t height = picture ? int64_t(picture->height()) : 0;
    std::lock_guard guard(_lock);
    // The picture it replaces may be the last hold on a picture: swapping leaves its release to the
    // caller's frame, outside the lock.
    std::swap(_latestFrame, picture);
    _flipped = flipped;
    _width = width;
    _height = height;
    ++_frameCount;
    _lastFrameTime = time;
    return _takeIndex;
}

size_t RecorderPlace::receivedSoundAtTime(double time) {
    std::lock_guard guard(_lock);
    _lastSoundTime = time;
    return _takeIndex;
}

void RecorderPlace::letGoOfSource() {
    if (auto source = this->source())
        source->stop();
    std::shared_ptr<FrameSource> source;
    std::shared_ptr<Picture> frame;
    {
        std::lock_guard guard(_lock);
        std::swap(source, _source);
        std::swap(frame, _latestFrame);
        _lastSoundTime = 0;
    }
}

void RecorderPlace::setTakeIndex(size_t index) {
    std::lock_guard guard(_lock);
    _takeIndex = index;
}

void RecorderPlace::measureAtTime(double now) {
    uint64_t frameCount;
    double lastFrameTime;
    bool connected;
    {
        std::lock_guard guard(_lock);
        frameCount = _frameCount;
        lastFrameTime = _lastFrameTime;
        connected = _source != nullptr;
    }
    _online = connected && lastFrameTime > 0 && now - lastFrameTime < OnlineInterval;
    if (_measuredTime > 0 && _measuredTime < now) {
        double rate = double(frameCount - _measuredFrameCount) / (now - _measuredTime);
        // A source that stops shows 0 at once, and the first rate after a stop is taken as it is.
        _fps = rate == 0 || _fps == 0 ? rate : 0.5 * _fps + 0.5 * rate;
    }
    _measuredFrameCount = frameCount;
    _measuredTime = now;
}

double RecorderPlace::lastFrameTime() const {
    std::lock_guard guard(_lock);
    return _lastFrameTime;
}

bool RecorderPlace::hasSound() const {
    return hasSoundAtTime(MediaClock::now());
}

bool RecorderPlace::hasSoundAtTime(double now) const {
    std::lock_guard guard(_lock);
    return _source && _lastSoundTime > 0 && now - _lastSoundTime < SoundInterval;
}

int64_t RecorderPlace::width() const {
    std::lock_guard guard(_lock);
    return _width;
}

int64_t RecorderPlace::height() const {
    std::lock_guard guard(_lock);
    return _height;
}

std::shared_ptr<Picture> RecorderPlace::latestFrame() const {
    std::lock_guard guard(_lock);
    return _latestFrame;
}

bool RecorderPlace::flipped() const {
    std::lock_guard guard(_lock);
    return _flipped;
}

std::string RecorderPlace::file() const {
    auto movie = this->movie();
    // After a take, a movie that never got a picture left no file to show.
    if (!movie || (!_inTake && movie->framesWritten() == 0))
        return "";
    return movie->url().string();
}

uint64_t RecorderPlace::frames() const {
    auto movie = this->movie();
    return movie ? movie->framesWritten() : 0;
}

uint64_t RecorderPlace::dropped() const {
    auto movie = this->movie();
    return movie ? movie->framesDropped() : 0;
}

double RecorderPlace::soundWritten() const {
    auto movie = this->movie();
    return movie ? movie->soundWritten() : 0;
}

std::string RecorderPlace::kindName() const {
    return _kindKnown ? SourceKindName(_kind) : "";
}

SourceSizes SizesOfPlaces(const Places& places) {
    SourceSizes sizes;
    for (const auto& place : places) {
        int64_t width = place->width(), height = place->height();
        if (width >= 1 && height >= 1)
            sizes.push_back(Size{double(width), double(height)});
        else
            sizes.push_back(std::nullopt);
    }
    return sizes;
}

} // namespace quorva
