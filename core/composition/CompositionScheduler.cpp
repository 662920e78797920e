#include "core/composition/CompositionScheduler.h"

#include "core/composition/Compositor.h"
#include "core/movie/Take.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"
#include "platform/Semaphore.h"

#include <algorithm>
#include <cmath>

namespace quorva {

namespace {

// The clock passes to another place once the clock place's last picture is this much older.
constexpr double ClockHandOverInterval = 1.0;
// The monitor is composed at most this often (250 a second) outside performance mode.
constexpr double MonitorInterval = 0.004;
// Without a clock, the monitor is composed after this long without a composition.
constexpr double IdleMonitorInterval = 0.25;
// The monitor picture is at most this large either way, to leave the GPU to the encoders.
constexpr double MonitorMaximumSide = 4096;
// A change of arrangement waits this long at most for the watched monitor to follow.
constexpr double MonitorWait = 0.5;

// Nothing, and the log says why, when the engine cannot compose: the monitor then stays empty and an
// assembled movie gets no picture, but the sources are still recorded.
std::shared_ptr<Compositor> MakeCompositor(const std::shared_ptr<PictureEngine>& engine) {
    if (!engine)
        return nullptr;
    Result<std::shared_ptr<Compositor>> compositor = Compositor::make(engine);
    if (!compositor) {
        Log("CompositionScheduler: ", "nothing can be composed: " + compositor.error().message());
        return nullptr;
    }
    return compositor.value();
}

// Each place's latest picture (nothing without a source, or before its first) and whether it is stored
// bottom-up.
struct PlacePictures {
    std::vector<std::shared_ptr<Picture>> pictures;
    std::vector<bool> flipped;
};
PlacePictures PicturesOf(const Places& places) {
    PlacePictures latest;
    for (const auto& place : places) {
        latest.pictures.push_back(place->source() ? place->latestFrame() : nullptr);
        latest.flipped.push_back(place->flipped());
    }
    return latest;
}

bool Contains(const Places& places, const std::shared_ptr<RecorderPlace>& place) {
    return std::find(places.begin(), places.end(), place) != places.end();
}

} // namespace

Layout MonitorLayout(const Layout& layout, LayoutKind kind, const std::vector<Size>& sizes, int64_t gap) {
    const Size size = layout.size();
    const double larger = std::max(size.width, size.height);
    if (larger <= MonitorMaximumSide)
        return layout;
    const double scale = MonitorMaximumSide / larger;
    auto side = [scale](double length) { return std::max(2.0, 2 * std::round(length * scale / 2)); };
    return Layout(kind, sizes, gap, Size{side(size.width), side(size.height)});
}

CompositionScheduler::CompositionScheduler(const std::shared_ptr<PictureEngine>& engine,
                                           std::shared_ptr<Take> take)
    : _take(std::move(take)), _monitorCompositor(MakeCompositor(engine)) {}

void CompositionScheduler::arrangementChanged(Arrangement arrangement) {
    bool watched;
    {
        std::lock_guard lock(_lock);
        _arrangement = std::move(arrangement);
        if (_clockPlace && !Contains(_arrangement.places, _clockPlace))
            _clockPlace = nullptr;
        watched = _watched;
    }
    if (!watched)
        return;
    auto drawn = std::make_shared<Semaphore>();
    _queue.post([this, now = MediaClock::now(), drawn] { composeMonitorAtTime(now, drawn); });
    drawn->wait(MonitorWait);
}

void CompositionScheduler::displayLimitChanged(bool limited) {
    std::lock_guard lock(_lock);
    _displayLimited = limited;
}

void CompositionScheduler::monitorWatched(bool watched) {
    {
        std::lock_guard lock(_lock);
        if (watched == _watched)
            return;
        _watched = watched;
    }
    if (watched)
        _queue.post([this, now = MediaClock::now()] { composeMonitorAtTime(now); });
}

void CompositionScheduler::takeStarted(std::shared_ptr<const Layout> layout, const std::vector<Size>& sizes,
                                       int64_t gap, bool transparent) {
    auto monitorLayout =
        layout ? std::make_shared<const Layout>(MonitorLayout(*layout, layout->kind(), sizes, gap)) : nullptr;
    std::lock_guard lock(_lock);
    _takeLayout = std::move(layout);
    _takeMonitorLayout = std::move(monitorLayout);
    _takeTransparent = transparent;
}

void CompositionScheduler::takeStopped() {
    std::lock_guard lock(_lock);
    _takeLayout = nullptr;
    _takeMonitorLayout = nullptr;
}

std::shared_ptr<const Layout> CompositionScheduler::takeLayout() const {
    std::lock_guard lock(_lock);
    return _takeLayout;
}

void CompositionScheduler::placeReceivedFrame(const std::shared_ptr<RecorderPlace>& place, double time) {
    std::optional<double> replaced;
    std::shared_ptr<const Layout> takeLayout;
    {
        std::lock_guard lock(_lock);
        if (!Contains(_arrangement.places, place))
            return;
        // The clock stays with one source while it delivers and passes to another within a second after
        // it stops.
        if (_clockPlace != place &&
            (!_clockPlace || time - _clockPlace->lastFrameTime() > ClockHandOverInterval))
            _clockPlace = place;
        // Other places' pictures wait for the next composition; without a take or a watcher there is none.
        if (_clockPlace != place || (!_takeLayout && !_watched))
            return;
        replaced = _request;
        _request = time;
        takeLayout = _takeLayout;
    }
    if (!replaced) {
        _queue.post([this] { composeRequested(); });
    } else if (takeLayout) {
        // The task already posted composes this newer time instead; the assembled movie counts the
        // picture that it will not get.
        _take->dropAssembledFrameAtTime(*replaced);
    }
}

void CompositionScheduler::composeRequested() {
    double time = 0;
    Places places;
    std::shared_ptr<const Layout> takeLayout;
    bool composeMonitor = false;
    {
        std::lock_guard lock(_lock);
        if (!_request)
            return;
        time = *_request;
        _request.reset();
        places = _arrangement.places;
        takeLayout = _takeLayout;
        const double interval = _displayLimited ? 1 / RecorderLimitedDisplayRate : MonitorInterval;
        composeMonitor = _watched && time - _lastComposeTime >= interval;
    }
    if (takeLayout) {
        const bool wanted = _take->wantsAssembledFrameAtTime(time);
        if (wanted) {
            // The assembled movie draws the pictures itself, straight into its encoder's frame.
            const PlacePictures latest = PicturesOf(places);
            if (auto placements = Placements(*takeLayout, latest.pictures, latest.flipped))
                _take->appendAssembledPlacements(std::move(*placements), time);
        }
        // While an assembled movie records, the monitor shows its pictures and no others: a picture of
        // that size more often would take from the encoders what the movie itself was refused.
        composeMonitor = composeMonitor && wanted;
    }
    if (composeMonitor)
        composeMonitorAtTime(time);
}

void CompositionScheduler::refreshAtTime(const Places& places, double now) {
    bool composeMonitor = false;
    {
        std::lock_guard lock(_lock);
        for (const auto& place : places) {
            if (place->isOnline()) {
                _clockPlace = place;
                break;
            }
        }
        composeMonitor = _watched && now - _lastComposeTime > IdleMonitorInterval;
    }
    if (composeMonitor)
        _queue.post([this, now] { composeMonitorAtTime(now); });
}

std::shared_ptr<Picture> CompositionScheduler::assembledFrame() const {
    std::lock_guard lock(_shown->lock);
    return _shown->picture;
}

void CompositionScheduler::showPicture(std::shared_ptr<Picture> picture) {
    std::lock_guard lock(_shown->lock);
    _shown->picture = std::move(picture);
}

std::shared_ptr<RecorderPlace> CompositionScheduler::clockPlace() const {
    std::lock_guard lock(_lock);
    return _clockPlace;
}

double CompositionScheduler::lastComposeTime() const {
    std::lock_guard lock(_lock);
    return _lastComposeTime;
}

void CompositionScheduler::composeMonitorAtTime(double time, const std::shared_ptr<Semaphore>& drawn) {
    Arrangement arrangement;
    std::shared_ptr<const Layout> monitorLayout;
    bool transparent = false;
    {
        std::lock_guard lock(_lock);
        arrangement = _arrangement;
        monitorLayout = _takeMonitorLayout;
        transparent = monitorLayout ? _takeTransparent : arrangement.transparent;
        _lastComposeTime = time;
    }
    if (!monitorLayout) {
        const std::vector<Size> sizes = LayoutSizes(SizesOfPlaces(arrangement.places));
        monitorLayout = std::make_shared<const Layout>(
            MonitorLayout(Layout(arrangement.kind, sizes, arrangement.gap, arrangement.fittingSize),
                          arrangement.kind, sizes, arrangement.gap));
    }
    const PlacePictures latest = PicturesOf(arrangement.places);
    if (!arrangement.places.empty() && _monitorCompositor &&
        _monitorCompositor->compose(*monitorLayout, latest.pictures, latest.flipped, transparent,
                                    [shown = _shown, drawn](const std::shared_ptr<Picture>& picture) {
                                        {
                                            std::lock_guard lock(shown->lock);
                                            shown->picture = picture;
                                        }
                                        if (drawn)
                                            drawn->signal();
                                    }))
        return;
    showPicture(nullptr);
    if (drawn)
        drawn->signal();
}

} // namespace quorva
