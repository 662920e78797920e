#include "App/TakePanel.h"
#include "App/SoundMeterWidget.h"

#include "core/control/RecorderController.h"
#include "core/movie/TakeReport.h"

#include <QDesktopServices>
#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

#include <cmath>

namespace quorva {

namespace {

constexpr const char* NoTimecode = "--:--:--:--";

QString Duration(double seconds) {
    const auto whole = int64_t(std::max(0.0, seconds));
    return QString("%1:%2:%3")
        .arg(whole / 3600)
        .arg(whole / 60 % 60, 2, 10, QChar('0'))
        .arg(whole % 60, 2, 10, QChar('0'));
}

// Figures that a crew reads from across the room: large, each digit as wide as the others, and never cut:
// the label keeps the room that `widest` needs.
QLabel* LargeFigures(QWidget* parent, const char* name, const char* widest) {
    auto* label = new QLabel(parent);
    label->setObjectName(name);
    QFont font("DejaVu Sans Mono");
    font.setStyleHint(QFont::Monospace);
    font.setPointSize(26);
    font.setBold(true);
    label->setFont(font);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setMinimumWidth(label->fontMetrics().horizontalAdvance(widest));
    return label;
}

QLabel* Caption(QWidget* parent) {
    auto* label = new QLabel(parent);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.85);
    label->setFont(font);
    label->setStyleSheet("color: #777;");
    return label;
}

// Restyling costs a polish of the widget: only when the style changes.
void Restyle(QWidget* widget, const char* style) {
    if (widget->styleSheet() != QLatin1String(style))
        widget->setStyleSheet(style);
}

QIcon MakeRecordIcon() {
    QPixmap dot(32, 32);
    dot.fill(Qt::transparent);
    QPainter painter(&dot);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0xd3, 0x2f, 0x2f));
    painter.drawEllipse(QRectF(4, 4, 24, 24));
    return QIcon(dot);
}

const QIcon& RecordIcon() {
    static const QIcon icon = MakeRecordIcon();
    return icon;
}

} // namespace

TakePanel::TakePanel(std::shared_ptr<RecorderController> controller, QWidget* parent)
    : QFrame(parent), _controller(std::move(controller)) {
    setObjectName("takePanel");
    setFrameShape(QFrame::StyledPanel);
    auto* rows = new QVBoxLayout(this);
    auto* top = new QHBoxLayout;
    auto column = [&](QWidget* upper, QWidget* lower) {
        auto* stack = new QVBoxLayout;
        stack->setSpacing(0);
        stack->addWidget(upper);
        stack->addWidget(lower);
        top->addLayout(stack);
        top->addSpacing(18);
    };
    _elapsedCaption = Caption(this);
    _elapsed = LargeFigures(this, "elapsed", "00:00:00");
    column(_elapsedCaption, _elapsed);
    _timecodeCaption = Caption(this);
    _timecode = LargeFigures(this, "timecode", NoTimecode);
    column(_timecodeCaption, _timecode);
    _state = new QLabel(this);
    _state->setObjectName("state");
    _disk = new QLabel(this);
    _disk->setObjectName("disk");
    QFont larger = _disk->font();
    larger.setPointSizeF(larger.pointSizeF() * 1.25);
    larger.setBold(true);
    _disk->setFont(larger);
    _state->setFont(larger);
    column(_state, _disk);
    top->addStretch(1);
    _computerCaption = Caption(this);
    _computerMeter = new SoundMeterWidget(this);
    _computerMeter->setObjectName("computerMeter");
    _computerMeter->setMinimumWidth(180);
    column(_computerCaption, _computerMeter);
    _record = new QPushButton(this);
    _record->setObjectName("record");
    _record->setMinimumSize(150, 52);
    _record->setIconSize(QSize(18, 18));
    QFont big = _record->font();
    big.setPointSizeF(big.pointSizeF() * 1.3);
    big.setBold(true);
    _record->setFont(big);
    _record->setFocusPolicy(Qt::NoFocus); // Space belongs to the record action, not to a focused button
    connect(_record, &QPushButton::clicked, this, [this] { _controller->toggle(); });
    top->addWidget(_record);
    rows->addLayout(top);

    auto* bottom = new QHBoxLayout;
    _summary = new QLabel(this);
    _summary->setObjectName("takeSummary");
    _summary->setWordWrap(true);
    _summary->setTextInteractionFlags(Qt::TextSelectableByMouse);
    _report = new QPushButton(this);
    _report->setObjectName("openReportButton");
    connect(_report, &QPushButton::clicked, this, [this] {
        if (!_controller->lastReport().empty())
            QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(_controller->lastReport())));
    });
    bottom->addWidget(_summary, 1);
    bottom->addWidget(_report);
    rows->addLayout(bottom);
    showTake();
}

void TakePanel::showTake() {
    const RecorderState state = _controller->state();
    const QString states[] = {tr("Idle"), tr("● Recording"), tr("Finishing…")};
    _state->setText(states[int(state)]);
    const bool recording = state == RecorderState::Recording;
    Restyle(_state, recording ? "color: #d32f2f;" : "");
    const bool idle = state == RecorderState::Idle;
    _record->setText(idle ? tr("Record") : tr("Stop"));
    if (_record->icon().isNull() == idle)
        _record->setIcon(idle ? RecordIcon() : QIcon());
    _record->setEnabled(state != RecorderState::Finishing);
    // Red while recording, so that nobody wonders whether it records.
    Restyle(_record, recording ? "QPushButton { background-color: #d32f2f; color: white; border: none; "
                                 "border-radius: 6px; padding: 6px 18px; }"
                               : "");
    _record->setToolTip(tr("Starts and stops the take (Space)"));

    const double minutes = _controller->diskMinutes();
    _disk->setText(tr("%1 min of disk")
                       .arg(minutes < 100 ? QString::number(minutes, 'f', 1)
                                          : QString::number(std::floor(minutes), 'f', 0)));
    // Red once the disk holds less than the recorder warns about.
    Restyle(_disk, minutes < RecorderController::DiskWarningMinutes ? "color: #d33;" : "");
    _disk->setToolTip(tr("Minutes of these movies that the disk of the folder still holds"));

    const bool computer = _controller->sound() == RecorderComputerSound;
    _computerCaption->setVisible(computer);
    _computerMeter->setVisible(computer);
    _computerCaption->setText(tr("The computer's sound"));

    const auto movies = _controller->moviesOfTheTake();
    QString summary;
    if (state != RecorderState::Idle) {
        summary = tr("%1 frames, %2 dropped").arg(_controller->frames()).arg(_controller->dropped());
    } else if (movies.empty()) {
        summary = tr("Add sources to the places, then press Record or Space");
    } else {
        uint64_t written = 0, held = 0, dropped = 0;
        for (const auto& movie : movies) {
            written += movie->framesWritten();
            held += movie->framesHeld();
            dropped += movie->framesDropped();
        }
        summary = tr("Last take “%1” · movies: %2 · pictures: %3 written, %4 held, %5 dropped")
                      .arg(QString::fromStdString(_controller->take()->stem()))
                      .arg(movies.size())
                      .arg(written)
                      .arg(held)
                      .arg(dropped);
        if (!_controller->recordingError().empty())
            summary += " · " + QString::fromStdString(_controller->recordingError());
    }
    // A take that asked more than this computer encodes keeps saying what it chose for as long as its
    // figures are shown.
    if (const double rate = _controller->loweredAssembledRate(); rate > 0 && !movies.empty())
        summary += " · " + tr("assembled movie at %1 frames a second").arg(rate);
    _summary->setText(summary);
    _report->setText(tr("Open the Report"));
    _report->setVisible(state == RecorderState::Idle && !_controller->lastReport().empty());
    showTimes();
}

void TakePanel::tick(double now) {
    if (_controller->state() == RecorderState::Recording)
        showTimes();
    const SoundLevels::Reading reading = _controller->computerSoundLevels().read();
    if (_computerMeter->isVisible())
        _computerMeter->showReading(reading, now);
}

void TakePanel::showTimes() {
    const double timeOfDay = _controller->timeOfDay();
    const bool taken = timeOfDay >= 0;
    const bool idle = _controller->state() == RecorderState::Idle;
    const double elapsed = taken ? _controller->elapsed() : 0;
    _elapsedCaption->setText(idle && taken ? tr("Last take lasted") : tr("Elapsed"));
    _elapsed->setText(Duration(elapsed));
    _timecodeCaption->setText(idle && taken ? tr("Its timecode began at") : tr("Timecode"));
    const auto movies = _controller->moviesOfTheTake();
    std::string timecode;
    if (taken && !movies.empty())
        timecode =
            TimecodeAt(idle ? timeOfDay : timeOfDay + elapsed, movies.front()->recorder()->framesPerSecond());
    _timecode->setText(timecode.empty() ? QString(NoTimecode) : QString::fromStdString(timecode));
}

void TakePanel::changeEvent(QEvent* event) {
    if (event->type() == QEvent::LanguageChange)
        showTake();
    QFrame::changeEvent(event);
}

} // namespace quorva
