#include "App/Preview.h"
#include "App/VulkanPreview.h"

#include "core/composition/CompositionScheduler.h"
#include "platform/Log.h"
#include "platform/MemoryPicture.h"
#include "platform/PictureEngine.h"
#include "platform/gpu/GpuPictureEngine.h"

#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QScreen>
#include <QWindow>

#include <algorithm>
#include <cmath>

namespace quorva {

PreviewExtent FittedExtent(double pictureWidth, double pictureHeight, double viewWidth, double viewHeight) {
    if (!(pictureWidth > 0 && pictureHeight > 0 && viewWidth > 0 && viewHeight > 0))
        return {};
    const double scale = std::min(viewWidth / pictureWidth, viewHeight / pictureHeight);
    return {scale * pictureWidth / viewWidth, scale * pictureHeight / viewHeight};
}

std::array<float, 16> PreviewVertices(PreviewExtent extent, bool flipped) {
    const auto x = float(extent.x), y = float(extent.y), f = flipped ? 1.0f : 0.0f;
    return {-x, -y, 0, 1 - f, -x, y, 0, f, x, -y, 1, 1 - f, x, y, 1, f};
}

namespace {

// The rate when not limited: the fastest screen's, never below 60.
double FullRate() {
    double fastest = 60;
    for (const QScreen* screen : QGuiApplication::screens())
        fastest = std::max(fastest, screen->refreshRate());
    return fastest;
}

// Draws the processor's pictures: the engine fits each into a picture of the view's size, bars and all,
// which is then copied to the screen as it is, so that no scaling runs in the painter.
class ProcessorPreview final : public PreviewView {
public:
    ProcessorPreview(std::shared_ptr<PictureCompositor> compositor, PreviewProvider provider,
                     WatchHandler watched, bool limited, QWidget* parent)
        : PreviewView(std::move(provider), std::move(watched), limited, parent),
          _compositor(std::move(compositor)) {
        setAttribute(Qt::WA_OpaquePaintEvent);
    }

protected:
    void redraw() override { update(); }

    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        const PreviewFrame shown = frame();
        const qreal ratio = devicePixelRatioF();
        const auto width = uint32_t(std::lround(this->width() * ratio));
        const auto height = uint32_t(std::lround(this->height() * ratio));
        std::shared_ptr<MemoryPicture> fitted;
        if (shown.picture && _compositor && width > 0 && height > 0) {
            const PreviewExtent extent =
                FittedExtent(shown.picture->width(), shown.picture->height(), width, height);
            const auto placedWidth = int64_t(std::lround(extent.x * width));
            const auto placedHeight = int64_t(std::lround(extent.y * height));
            PicturePlacement placement{shown.picture,
                                       (int64_t(width) - placedWidth) / 2,
                                       (int64_t(height) - placedHeight) / 2,
                                       placedWidth,
                                       placedHeight,
                                       shown.flipped};
            auto composed = _compositor->compose(width, height, {placement}, false, nullptr);
            if (composed)
                fitted = std::dynamic_pointer_cast<MemoryPicture>(composed.value());
        }
        if (!fitted) {
            painter.fillRect(rect(), Qt::black);
            return;
        }
        // Opaque already: the composition made every drawn pixel so.
        QImage image(fitted->bytes(), int(fitted->width()), int(fitted->height()),
                     qsizetype(fitted->stride()), QImage::Format_RGB32);
        image.setDevicePixelRatio(ratio);
        painter.drawImage(QPointF(0, 0), image);
    }

private:
    const std::shared_ptr<PictureCompositor> _compositor;
};

} // namespace

PreviewView::PreviewView(PreviewProvider provider, WatchHandler watched, bool limited, QWidget* parent)
    : QWidget(parent), _provider(std::move(provider)), _watchHandler(std::move(watched)),
      _fullRate(FullRate()), _limited(limited) {
    _timer.setTimerType(Qt::PreciseTimer);
    connect(&_timer, &QTimer::timeout, this, [this] {
        checkWatched();
        redraw();
    });
    _timer.start(int(std::lround(1000 / rate())));
}

PreviewView::~PreviewView() {
    if (_watched && _watchHandler)
        _watchHandler(false);
}

void PreviewView::checkWatched() {
    const QWidget* top = window();
    const QWindow* handle = top->windowHandle();
    const bool watched = isVisible() && !top->isMinimized() && handle && handle->isExposed();
    if (watched == _watched)
        return;
    _watched = watched;
    if (_watchHandler)
        _watchHandler(watched);
}

void PreviewView::setLimited(bool limited) {
    if (limited == _limited)
        return;
    _limited = limited;
    _timer.setInterval(int(std::lround(1000 / rate())));
}

double PreviewView::rate() const {
    return _limited ? RecorderLimitedDisplayRate : _fullRate;
}

PreviewView* PreviewView::make(const std::shared_ptr<PictureEngine>& engine, PreviewProvider provider,
                               WatchHandler watched, bool limited, QWidget* parent) {
    if (auto gpu = std::dynamic_pointer_cast<GpuPictureEngine>(engine))
        return MakeVulkanPreview(gpu, std::move(provider), std::move(watched), limited, parent);
    auto compositor = engine->makeCompositor();
    if (!compositor) {
        // Without one the monitor stays black; recording does not need it.
        Log("QuorvaRecorder: ", "the monitor shows nothing: " + compositor.error().message());
        return new ProcessorPreview(nullptr, std::move(provider), std::move(watched), limited, parent);
    }
    return new ProcessorPreview(compositor.value(), std::move(provider), std::move(watched), limited, parent);
}

} // namespace quorva
