#pragma once

#include "core/Geometry.h"
#include "core/Layout.h"
#include "core/RecorderPlace.h"

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace quorva {

class Compositor;
class Picture;
class PictureEngine;
class Take;

// Pictures a second of the monitor while recording in performance mode.
inline constexpr double RecorderLimitedDisplayRate = 10.0;

// The monitor's layout for `layout` (made of `kind`, `sizes` and `gap`): the same, unless a side is
// larger than 4096 pixels, then fitted within 4096 with even sides.
Layout MonitorLayout(const Layout& layout, LayoutKind kind, const std::vector<Size>& sizes, int64_t gap);

// Decides when the assembled picture of all places is composed, and with what: for the assembled movie
// of a running take, paced by the pictures of one place (the clock place), and for the monitor shown on
// screen, at most 250 times a second (10 in performance mode while recording) and never larger than
// 4096 pixels on a side, to leave the GPU to the encoders. Nothing here waits for the GPU: a picture
// is shown once it is drawn.
//
// placeReceivedFrame() runs on the sources' threads, several at once; everything else on the main
// thread; the compositors complete on the picture engine's thread. What they share is guarded by one
// lock, held only to read or store it, never across a composition or a call into the take.
class CompositionScheduler {
public:
    // What the monitor composes outside a take with an assembled movie: the places and the layout
    // settings.
    struct Arrangement {
        Places places{};
        LayoutKind kind = LayoutKind::Row;
        int64_t gap = 0;
        Size fittingSize{}; // 0 either way: the sources' own size
        bool transparent = false;
    };

    // Without an engine nothing is composed, and no picture is shown.
    CompositionScheduler(const std::shared_ptr<PictureEngine>& engine, std::shared_ptr<Take> take);
    CompositionScheduler(const CompositionScheduler&) = delete;
    CompositionScheduler& operator=(const CompositionScheduler&) = delete;

    // The places or the layout settings changed: the monitor follows, as soon as the GPU has drawn it.
    // A clock place that is no longer among the places is forgotten.
    void arrangementChanged(Arrangement arrangement);
    // While limited, the monitor is composed RecorderLimitedDisplayRate times a second at most.
    void displayLimitChanged(bool limited);
    // A take with an assembled movie of `layout` (nothing for none) began: its pictures are composed
    // as it asks for them, and the monitor shows that layout too, fitted (`sizes` and `gap` made it),
    // composed on its own at its own rate.
    void takeStarted(std::shared_ptr<const Layout> layout, const std::vector<Size>& sizes, int64_t gap,
                     bool transparent);
    void takeStopped();
    // The take's assembled layout while it records; nothing otherwise.
    std::shared_ptr<const Layout> takeLayout() const;

    // Every picture of every place, on the source's thread: the clock place's pictures compose.
    void placeReceivedFrame(const std::shared_ptr<RecorderPlace>& place, double time);
    // The refresh: the first online place (of `places`, in order) becomes the clock place, and when
    // nothing was composed for a while the monitor is, so that it keeps moving without a clock.
    void refreshAtTime(const Places& places, double now);

    // The last monitor picture composed, for the preview to draw; nothing when there is no place or the
    // GPU refused. Any thread.
    std::shared_ptr<Picture> assembledFrame() const;
    void showPicture(std::shared_ptr<Picture> picture);
    // The place whose pictures set the pace, if any.
    std::shared_ptr<RecorderPlace> clockPlace() const;
    // When the last composition of the monitor began, in seconds on the media clock.
    double lastComposeTime() const;

private:
    void composeMonitorAtTime(double time);
    // Composes `places` into `layout` with `compositor`; `then` gets the picture once drawn, on the
    // engine's thread. With no place, or when the GPU refuses, no picture is shown.
    void composePlaces(const Places& places, const Layout& layout, bool transparent,
                       const std::shared_ptr<Compositor>& compositor, double time,
                       std::function<void(const std::shared_ptr<Picture>&)> then);

    const std::shared_ptr<Take> _take;
    const std::shared_ptr<Compositor> _monitorCompositor;

    mutable std::mutex _lock;
    Arrangement _arrangement;
    std::shared_ptr<const Layout> _takeLayout;
    std::shared_ptr<const Layout> _takeMonitorLayout;
    bool _takeTransparent = false;
    std::shared_ptr<RecorderPlace> _clockPlace;
    double _lastComposeTime = 0;
    bool _displayLimited = false;
    // The last composed picture. Apart from the scheduler, so that a composition that completes on the
    // engine's thread stores its picture without holding the scheduler (whose last release there would
    // join that very thread).
    struct Shown {
        mutable std::mutex lock;
        std::shared_ptr<Picture> picture;
    };
    const std::shared_ptr<Shown> _shown = std::make_shared<Shown>();
};

} // namespace quorva
