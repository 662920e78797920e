#pragma once

#include "core/source/SoundLevels.h"

#include <QWidget>

#include <algorithm>
#include <array>

namespace quorva {

// A stereo sound meter, one bar a channel from −60 dBFS (empty) to 0 dBFS (full), green, then yellow
// from −18 and red from −6: solid up to the RMS level, lighter up to the peak, a mark at the highest
// peak of the last moment, the held peak written beside it, and a clip light that stays lit for two
// seconds after the sound clipped. Fed on the window's timer with what a SoundLevels measured since the
// last time; it repaints only when what it shows moved. Main thread only.
class SoundMeterWidget final : public QWidget {
    Q_OBJECT

public:
    static constexpr double Bottom = -60;
    static constexpr double ClipHoldSeconds = 2;

    explicit SoundMeterWidget(QWidget* parent = nullptr);

    // Shows `reading`, taken at `now` (media clock seconds). The peak falls back at once (40 dB a second)
    // so that the bar follows the sound; the RMS level is averaged over about 300 ms. A reading without
    // sound holds what is shown for a moment, as blocks may come further apart than readings.
    void showReading(const SoundLevels::Reading& reading, double now);
    // Empties the meter: no sound.
    void clear();

    // What the meter shows, in dBFS (Bottom or less: nothing).
    double peak(size_t channel) const { return _peak[channel]; }
    double rms(size_t channel) const { return _rms[channel]; }
    double heldPeak() const { return std::max(_held[0], _held[1]); }
    bool clipLit() const { return _clipLit; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    // Where each thing shown lands, in pixels: what is painted, compared to decide whether to paint.
    std::array<int, 8> drawn() const;
    // The bars' width: the clip light and the held peak's figure take the right end.
    int barsWidth() const;
    void retranslate();

    std::array<double, SoundLevels::Channels> _peak{SoundLevels::Floor, SoundLevels::Floor},
        _rms{SoundLevels::Floor, SoundLevels::Floor}, _held{SoundLevels::Floor, SoundLevels::Floor},
        _meanSquare{};
    std::array<double, SoundLevels::Channels> _heldAt{};
    double _shownAt = 0;
    bool _clipLit = false;
    std::array<int, 8> _painted{};
};

} // namespace quorva
