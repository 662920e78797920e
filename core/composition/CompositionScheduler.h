#pragma once

#include "core/composition/Layout.h"
#include "core/composition/RecorderPlace.h"
#include "core/source/Geometry.h"
#include "platform/SerialQueue.h"

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace quorva {

class Compositor;
class Picture;
class Semaphore;
class PictureEngine;
class Take;

// Pictures a second of the monitor while recording in performance mode.
inline constexpr double RecorderLimitedDisplayRate = 10.0;

// The monitor's layout for `layout` (made of `kind`, `sizes` and `gap`): the same, unless a side is
// larger than 4096 pixels, then fitted within 4096 with even sides.
Layout MonitorLayout(const Layout& layout, LayoutKind kind, const std::vector<Size>& sizes, int64_t gap);

// Decides when the assembled picture of all places is composed, and with what: for the assembled movie
// of a running take, paced by the pictures of one place (the clock place), and for the monitor shown on
// screen while someone watches it, at most 250 times a second (10 in performance mode while recording)
// and never larger than 4096 pixels on a side, to leave the processor and the GPU to the encoders.
//
// Composition runs on a queue of its own, never on a source's thread: several sources may share one
// thread (PipeWire delivers every stream on one), and none of them may wait for a composition of all.
// A source's picture only records a request, and the newest request replaces one still waiting, so no
// backlog ever builds: a replaced request is simply not composed. For the assembled movie the queue
// hands the take the pictures' placements, which the movie's own queue draws straight into the
// encoder's picture; only the monitor is drawn here.
//
// placeReceivedFrame() runs on the sources' threads, several at once; everything else on the main
// thread; compositions on the scheduler's queue, and the monitor's complete on the picture engine's
// thread. What they share is guarded by one lock, held only to read or store it, never across a
// composition or a call into the take.
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

    // Without an engine no monitor is drawn, and no picture is shown.
    CompositionScheduler(const std::shared_ptr<PictureEngine>& engine, std::shared_ptr<Take> take);
    CompositionScheduler(const CompositionScheduler&) = delete;
    CompositionScheduler& operator=(const CompositionScheduler&) = delete;

    // The places or the layout settings changed. A clock place that is no longer among the places is
    // forgotten. A watched monitor follows at once: this waits for it up to half a second, so that the
    // change and its picture show together, and a stalled GPU cannot hold the caller longer.
    void arrangementChanged(Arrangement arrangement);
    // While limited, the monitor is composed RecorderLimitedDisplayRate times a second at most.
    void displayLimitChanged(bool limited);
    // Whether someone watches the monitor: only then is it composed (and at once when watching begins).
    void monitorWatched(bool watched);
    // A take with an assembled movie of `layout` (nothing for none) began: its pictures are composed
    // as it asks for them, and a watched monitor shows that layout too, fitted (`sizes` and `gap` made
    // it), composed on its own for the movie's pictures only (and within the monitor's own limit).
    void takeStarted(std::shared_ptr<const Layout> layout, const std::vector<Size>& sizes, int64_t gap,
                     bool transparent);
    void takeStopped();
    // The take's assembled layout while it records; nothing otherwise.
    std::shared_ptr<const Layout> takeLayout() const;

    // Every picture of every place, on the source's thread: the clock place's pictures ask for a
    // composition.
    void placeReceivedFrame(const std::shared_ptr<RecorderPlace>& place, double time);
    // The refresh: the first online place (of `places`, in order) becomes the clock place, and when a
    // watched monitor was not composed for a while it is, so that it keeps moving without a clock.
    void refreshAtTime(const Places& places, double now);

    // The last monitor picture composed, for the preview to draw; nothing when there is no place or the
    // GPU refused. Any thread.
    std::shared_ptr<Picture> assembledFrame() const;
    void showPicture(std::shared_ptr<Picture> picture);
    // The place whose pictures set the pace, if any.
    std::shared_ptr<RecorderPlace> clockPlace() const;
    // When the monitor was last composed, in seconds on the media clock.
    double lastComposeTime() const;

private:
    friend struct CompositionSchedulerProbe; // lets tests hold the queue

    // On _queue: the newest request.
    void composeRequested();
    // On _queue. `drawn`, if any, is signalled once the picture is drawn or refused.
    void composeMonitorAtTime(double time, const std::shared_ptr<Semaphore>& drawn = nullptr);

    const std::shared_ptr<Take> _take;
    const std::shared_ptr<Compositor> _monitorCompositor;

    mutable std::mutex _lock;
    Arrangement _arrangement;
    std::shared_ptr<const Layout> _takeLayout;
    std::shared_ptr<const Layout> _takeMonitorLayout;
    bool _takeTransparent = false;
    std::shared_ptr<RecorderPlace> _clockPlace;
    std::optional<double> _request; // the time of the clock place's picture that waits to be composed
    double _lastComposeTime = 0;
    bool _displayLimited = false;
    bool _watched = false;
    // The last composed picture. Apart from the scheduler, so that a composition that completes on the
    // engine's thread stores its picture without holding the scheduler (whose last release there would
    // join that very thread).
    struct Shown {
        mutable std::mutex lock;
        std::shared_ptr<Picture> picture;
    };
    const std::shared_ptr<Shown> _shown = std::make_shared<Shown>();

    // Last, so that it goes first, finishing the compositions already asked for, which use everything
    // above.
    SerialQueue _queue{"composition"};
};

} // namespace quorva
