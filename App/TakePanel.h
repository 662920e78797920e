#pragma once

#include <QFrame>

#include <memory>

class QLabel;
class QPushButton;

namespace quorva {

class RecorderController;
class SoundMeterWidget;

// The take at a glance, large enough to read from across a room: the state, the time since the take
// began and the take's timecode (after a take, how long it lasted and where its timecode began), the
// record button (red while recording), the minutes of recording that the disk still holds, the meter
// of the computer's sound when the takes record it, and after a take what its movies hold, with a
// button that opens its report. Main thread only.
class TakePanel final : public QFrame {
    Q_OBJECT

public:
    explicit TakePanel(std::shared_ptr<RecorderController> controller, QWidget* parent = nullptr);

    // Shows what the controller holds now; at every change it tells of.
    void showTake();
    // The running time and timecode, and the computer's meter; on the window's meter timer.
    void tick(double now);

    QPushButton* recordButton() const { return _record; }
    const SoundMeterWidget& computerMeter() const { return *_computerMeter; }

protected:
    void changeEvent(QEvent* event) override;

private:
    void showTimes();

    const std::shared_ptr<RecorderController> _controller;
    QLabel *_state = nullptr, *_elapsedCaption = nullptr, *_elapsed = nullptr, *_timecodeCaption = nullptr,
           *_timecode = nullptr, *_disk = nullptr, *_summary = nullptr, *_computerCaption = nullptr;
    QPushButton *_record = nullptr, *_report = nullptr;
    SoundMeterWidget* _computerMeter = nullptr;
};

} // namespace quorva
