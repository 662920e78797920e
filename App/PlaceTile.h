#pragma once

#include <QFrame>
#include <QPoint>

#include <memory>

class QLabel;

namespace quorva {

class PictureEngine;
class PreviewView;
class RecorderPlace;
class SoundMeterWidget;

// One place as a live tile: its number and title, a small live picture, its size and rate, its state,
// the pictures its movie dropped in the take, and its sound meter while it has sound. A click selects
// it; dragged, it carries its place's index (PlaceTiles puts it where it is dropped). Main thread only.
class PlaceTile final : public QFrame {
    Q_OBJECT

public:
    // Live: pictures arrive. No signal: none came for a second (the source left, stopped or is not
    // there yet). Held: recording, pictures come but the movie has had to hold its last one lately, as
    // the next was late.
    enum class State { Live, NoSignal, Held };
    // The dragged tile's data: its place's index, from 0.
    static constexpr const char* MimeType = "application/x-quorva-place";
    // The picture's size: 16:9, small enough for eight tiles in a row of a large window.
    static constexpr int PictureWidth = 192, PictureHeight = 108;

    PlaceTile(std::shared_ptr<RecorderPlace> place, const std::shared_ptr<PictureEngine>& engine,
              QWidget* parent = nullptr);

    const std::shared_ptr<RecorderPlace>& place() const { return _place; }
    // Shows what the place is now: `index` is its position, from 0; `recording`, whether a take runs.
    // From the controller's notifications, every quarter of a second at least.
    void showPlace(size_t index, bool recording, double now);
    // Feeds the meter, on the window's meter timer.
    void showLevels(double now);

    State state() const { return _state; }
    // Whether the meter shows: the place has sound.
    bool hasMeter() const;
    const SoundMeterWidget& meter() const { return *_meter; }
    bool isSelected() const { return _selected; }
    void setSelected(bool selected);
    // Whether it may be dragged to another place: not while recording.
    void setMovable(bool movable) { _movable = movable; }

signals:
    void selected();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void showTexts();

    const std::shared_ptr<RecorderPlace> _place;
    QLabel *_title = nullptr, *_format = nullptr, *_stateLabel = nullptr, *_dropped = nullptr;
    PreviewView* _picture = nullptr;
    SoundMeterWidget* _meter = nullptr;
    size_t _index = 0;
    State _state = State::NoSignal;
    bool _inTake = false;
    uint64_t _droppedCount = 0;
    uint64_t _heldSeen = 0;
    double _heldUntil = 0;
    bool _selected = false;
    bool _movable = true;
    QPoint _pressedAt;
};

} // namespace quorva
