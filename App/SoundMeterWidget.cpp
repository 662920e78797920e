#include "App/SoundMeterWidget.h"

#include <QEvent>
#include <QPainter>

#include <algorithm>
#include <cmath>

namespace quorva {

namespace {

constexpr double PeakFallPerSecond = 40;
constexpr double HeldFallPerSecond = 20;
constexpr double HoldSeconds = 1.5;
constexpr double RmsSeconds = 0.3;
// Blocks may come this far apart: a reading without sound within it is not yet silence.
constexpr double QuietAfter = 0.5;
constexpr int ClipWidth = 7;
constexpr int Gap = 3;

// The colour zones of a bar, from the bottom of the scale: green, yellow from −18, red from −6.
struct Zone {
    double from, to;
    QColor colour;
};
const Zone Zones[] = {{SoundMeterWidget::Bottom, -18, QColor(0x3c, 0xc8, 0x50)},
                      {-18, -6, QColor(0xe6, 0xd2, 0x3c)},
                      {-6, 0, QColor(0xee, 0x3b, 0x3b)}};
const double Ticks[] = {-48, -36, -24, -12, -6};

double Decibels(double meanSquare) {
    return meanSquare > 0 ? std::max(SoundLevels::Floor, 10 * std::log10(2 * meanSquare))
                          : SoundLevels::Floor;
}

QString HeldText(double held) {
    // A real minus sign, as the scale is read from across a room.
    return held <= SoundMeterWidget::Bottom ? QString()
                                            : QString::number(held, 'f', 1).replace('-', u'\u2212');
}

} // namespace

SoundMeterWidget::SoundMeterWidget(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    QFont small = font();
    small.setPointSizeF(std::max(6.0, small.pointSizeF() * 0.8));
    setFont(small);
    retranslate();
}

QSize SoundMeterWidget::sizeHint() const {
    return {180, std::max(15, fontMetrics().height())};
}

QSize SoundMeterWidget::minimumSizeHint() const {
    return {80, sizeHint().height()};
}

void SoundMeterWidget::showReading(const SoundLevels::Reading& reading, double now) {
    const double elapsed = _shownAt > 0 ? std::clamp(now - _shownAt, 0.0, 1.0) : 0;
    _shownAt = now;
    const bool recent = reading.lastSound > 0 && now - reading.lastSound < QuietAfter;
    // The first reading is shown as it is; later ones are averaged in.
    const double blend = elapsed > 0 ? 1 - std::exp(-elapsed / RmsSeconds) : 1;
    for (size_t channel = 0; channel < SoundLevels::Channels; ++channel) {
        const bool sounding = reading.frames[channel] > 0;
        const bool quiet = !sounding && !recent;
        const double fallen = _peak[channel] - PeakFallPerSecond * elapsed;
        if (sounding || quiet)
            _peak[channel] = std::max({reading.peakDecibels(channel), fallen, SoundLevels::Floor});
        else
            _peak[channel] = std::max(reading.peakDecibels(channel), _peak[channel]);
        if (sounding || quiet) {
            _meanSquare[channel] +=
                blend * ((sounding ? reading.meanSquare[channel] : 0) - _meanSquare[channel]);
            _rms[channel] = Decibels(_meanSquare[channel]);
        }
        if (_peak[channel] >= _held[channel]) {
            _held[channel] = _peak[channel];
            _heldAt[channel] = now;
        } else if (now - _heldAt[channel] > HoldSeconds) {
            _held[channel] = std::max(_peak[channel], _held[channel] - HeldFallPerSecond * elapsed);
        }
    }
    _clipLit = reading.lastClip > 0 && now - reading.lastClip < ClipHoldSeconds;
    if (drawn() != _painted)
        update();
}

void SoundMeterWidget::clear() {
    _peak = _rms = _held = {SoundLevels::Floor, SoundLevels::Floor};
    _meanSquare = {};
    _shownAt = 0;
    _clipLit = false;
    if (drawn() != _painted)
        update();
}

std::array<int, 8> SoundMeterWidget::drawn() const {
    const int bars = barsWidth();
    auto x = [bars](double decibels) {
        return int(std::lround(std::clamp((decibels - Bottom) / -Bottom, 0.0, 1.0) * bars));
    };
    return {
        x(_rms[0]),  x(_peak[0]), x(_held[0]),      x(_rms[1]),
        x(_peak[1]), x(_held[1]), _clipLit ? 1 : 0, int(std::lround(std::max(Bottom - 1, heldPeak()) * 10))};
}

int SoundMeterWidget::barsWidth() const {
    return std::max(0, width() - ClipWidth - 2 * Gap -
                           fontMetrics().horizontalAdvance(QString(QChar(0x2212)) + "60.0"));
}

void SoundMeterWidget::paintEvent(QPaintEvent*) {
    _painted = drawn();
    QPainter painter(this);
    painter.fillRect(rect(), palette().window());
    const int bars = barsWidth();
    const int barHeight = std::max(2, (height() - 1) / 2);
    auto x = [bars](double decibels) {
        return int(std::lround(std::clamp((decibels - Bottom) / -Bottom, 0.0, 1.0) * bars));
    };
    const QRect scale(0, 0, bars, 2 * barHeight + 1);
    painter.fillRect(scale, QColor(0x1e, 0x1e, 0x1e));
    for (double tick : Ticks)
        painter.fillRect(QRect(x(tick), 0, 1, scale.height()), QColor(0x3a, 0x3a, 0x3a));
    for (size_t channel = 0; channel < SoundLevels::Channels; ++channel) {
        const int top = int(channel) * (barHeight + 1);
        auto fill = [&](double from, double to, int alpha) {
            for (const Zone& zone : Zones) {
                const int left = x(std::max(from, zone.from)), right = x(std::min(to, zone.to));
                if (right <= left)
                    continue;
                QColor colour = zone.colour;
                colour.setAlpha(alpha);
                painter.fillRect(QRect(left, top, right - left, barHeight), colour);
            }
        };
        fill(Bottom, _rms[channel], 255);
        fill(std::max(Bottom, _rms[channel]), _peak[channel], 130);
        if (_held[channel] > Bottom)
            painter.fillRect(QRect(std::min(x(_held[channel]), bars - 2), top, 2, barHeight),
                             QColor(0xf0, 0xf0, 0xf0));
    }
    const QRect clip(bars + Gap, 0, ClipWidth, scale.height());
    painter.fillRect(clip, _clipLit ? QColor(0xff, 0x30, 0x30) : QColor(0x48, 0x14, 0x14));
    painter.setPen(palette().color(QPalette::WindowText));
    painter.drawText(QRect(clip.right() + Gap, 0, width() - clip.right() - Gap, height()),
                     Qt::AlignRight | Qt::AlignVCenter, HeldText(heldPeak()));
}

void SoundMeterWidget::changeEvent(QEvent* event) {
    if (event->type() == QEvent::LanguageChange)
        retranslate();
    QWidget::changeEvent(event);
}

void SoundMeterWidget::retranslate() {
    setToolTip(tr("Sound level in dBFS: solid up to the RMS level, lighter up to the peak, with the "
                  "highest peak of the last moment written beside it. The red light stays lit for two "
                  "seconds after the sound clips."));
}

} // namespace quorva
