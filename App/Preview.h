#pragma once

#include <QTimer>
#include <QWidget>

#include <array>
#include <functional>
#include <memory>

namespace quorva {

class Picture;
class PictureEngine;

// The picture to show now, and whether it is stored bottom-up; asked on every redraw, never kept.
struct PreviewFrame {
    std::shared_ptr<Picture> picture;
    bool flipped = false;
};
using PreviewProvider = std::function<PreviewFrame()>;
// Told, on the main thread, when the view begins or stops being watched: shown, in a window that is
// exposed (neither hidden nor minimised). Pictures are worth composing for it only meanwhile.
using WatchHandler = std::function<void(bool watched)>;

// Half the width and height, in the view's normalised coordinates (-1 to 1), of a picture fitted inside
// the view without distortion and centred: bars fill the rest.
struct PreviewExtent {
    double x = 0, y = 0;
};
PreviewExtent FittedExtent(double pictureWidth, double pictureHeight, double viewWidth, double viewHeight);

// The quad of a fitted picture as a four-vertex triangle strip, each vertex (x, y, u, v) with y up: a
// flipped picture is turned the right way up by swapping the v coordinates.
std::array<float, 16> PreviewVertices(PreviewExtent extent, bool flipped);

// The monitor: the provider's picture letterboxed on black, redrawn at the full rate, or at
// RecorderLimitedDisplayRate while limited. An empty frame shows black, still redrawn every time.
//
// Threads: a view is a widget, made, driven and destroyed on the main thread only, and it calls its
// provider and watch handler there: the provider at every redraw, so it must answer at once with a
// picture already composed (never compose or wait for a composition itself, or the window stutters);
// the handler when watching starts or stops, and once more, with false, from the destructor. The
// processor's view fits the picture into the view's size on the main thread too. FittedExtent and
// PreviewVertices touch nothing shared and may be called from any thread.
class PreviewView : public QWidget {
public:
    // Draws with the engine's own means: Vulkan into a window surface on the GPU, the processor's
    // pictures straight from memory otherwise.
    static PreviewView* make(const std::shared_ptr<PictureEngine>& engine, PreviewProvider provider,
                             WatchHandler watched, bool limited, QWidget* parent = nullptr);
    // No longer watched, if it was.
    ~PreviewView() override;

    // Changes the rate without making the view again.
    void setLimited(bool limited);

protected:
    PreviewView(PreviewProvider provider, WatchHandler watched, bool limited, QWidget* parent);
    // Called at the view's rate.
    virtual void redraw() = 0;
    PreviewFrame frame() const { return _provider(); }

private:
    double rate() const;
    // Tells the handler when being watched changed. Asked at every tick: Qt tells a widget inside a
    // window of neither minimising nor exposure.
    void checkWatched();

    const PreviewProvider _provider;
    const WatchHandler _watchHandler;
    const double _fullRate;
    bool _limited;
    bool _watched = false;
    QTimer _timer;
};

} // namespace quorva
