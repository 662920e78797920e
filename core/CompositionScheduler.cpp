#include "core/CompositionScheduler.h"

#include "core/Compositor.h"
#include "core/Take.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"

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
    {
        std::lock_guard lock(_lock);
        _arrangement = std::move(arrangement);
        if (_clockPlace && !Contains(_arrangement.places, _clockPlace))
            _clockPlace = nullptr;
    }
    composeMonitorAtTime(MediaClock::now());
}

void CompositionScheduler::displayLimitChanged(bool limited) {
    std::lock_guard lock(_lock);
    _displayLimited = limited;
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
    Places places;
    std::shared_ptr<const Layout> takeLayout;
    double lastComposeTime = 0, interval = 0;
    {
        std::lock_guard lock(_lock);
        if (!Contains(_arrangement.places, place))
            return;
        // The clock stays with one source while it delivers and passes to another within a second after
        // it stops.
        if (_clockPlace != place &&
            (!_clockPlace || time - _clockPlace->lastFrameTime() > ClockHandOverInterval))
            _clockPlace = place;
        if (_clockPlace != place)
            return; // its picture waits for the next composition
        places = _arrangement.places;
        takeLayout = _takeLayout;
        lastComposeTime = _lastComposeTime;
        interval = _displayLimited ? 1 / RecorderLimitedDisplayRate : MonitorInterval;
    }
    if (takeLayout && _take->wantsAssembledFrameAtTime(time)) {
        // The assembled movie draws the pictures itself, straight into its encoder's frame.
        std::vector<std::shared_ptr<Picture>> pictures;
        std::vector<bool> flipped;
        for (const auto& place : places) {
            pictures.push_back(place->source() ? place->latestFrame() : nullptr);
            flipped.push_back(place->flipped());
        }
        if (auto placements = Placements(*takeLayout, pictures, flipped))
            _take->appendAssembledPlacements(std::move(*placements), time);
    }
    if (time - lastComposeTime >= interval)
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
        composeMonitor = now - _lastComposeTime > IdleMonitorInterval;
    }
    if (composeMonitor)
        composeMonitorAtTime(now);
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

void CompositionScheduler::composeMonitorAtTime(double time) {
    Arrangement arrangement;
    std::shared_ptr<const Layout> monitorLayout;
    bool transparent = false;
    {
        std::lock_guard lock(_lock);
        arrangement = _arrangement;
        monitorLayout = _takeMonitorLayout;
        transparent = monitorLayout ? _takeTransparent : arrangement.transparent;
    }
    if (!monitorLayout) {
        const std::vector<Size> sizes = LayoutSizes(SizesOfPlaces(arrangement.places));
        monitorLayout = std::make_shared<const Layout>(
            MonitorLayout(Layout(arrangement.kind, sizes, arrangement.gap, arrangement.fittingSize),
                          arrangement.kind, sizes, arrangement.gap));
    }
    composePlaces(arrangement.places, *monitorLayout, transparent, _monitorCompositor, time, nullptr);
}

void CompositionScheduler::composePlaces(const Places& places, const Layout& layout, bool transparent,
                                         const std::shared_ptr<Compositor>& compositor, double time,
                                         std::function<void(const std::shared_ptr<Picture>&)> then) {
    std::vector<std::shared_ptr<Picture>> pictures;
    std::vector<bool> flipped;
    for (const auto& place : places) {
        pictures.push_back(place->source() ? place->latestFrame() : nullptr);
        flipped.push_back(place->flipped());
    }
    {
        std::lock_guard lock(_lock);
        _lastComposeTime = time;
    }
    if (!places.empty() && compositor) {
        auto composed = compositor->compose(
            layout, pictures, flipped, transparent,
            [shown = _shown, then = std::move(then)](const std::shared_ptr<Picture>& picture) {
                {
                    std::lock_guard lock(shown->lock);
                    shown->picture = picture;
                }
                if (then)
                    then(picture);
            });
        if (composed)
            return;
    }
    showPicture(nullptr);
}

} // namespace quorva
