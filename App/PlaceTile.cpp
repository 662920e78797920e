#include "App/PlaceTile.h"
#include "App/Preview.h"
#include "App/SoundMeterWidget.h"

#include "core/composition/RecorderPlace.h"
#include "core/movie/Take.h"

#include <QApplication>
#include <QDrag>
#include <QLabel>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QVBoxLayout>

#include <cmath>

namespace quorva {

namespace {

// A movie that held a picture is shown as held this long, so that a crew sees it.
constexpr double HeldShownSeconds = 1;
constexpr int Margin = 6;

// Restyling costs a polish of the widget: only when the style changes.
void Restyle(QWidget* widget, const char* style) {
    if (widget->styleSheet() != QLatin1String(style))
        widget->setStyleSheet(style);
}

} // namespace

PlaceTile::PlaceTile(std::shared_ptr<RecorderPlace> place, const std::shared_ptr<PictureEngine>& engine,
                     QWidget* parent)
    : QFrame(parent), _place(std::move(place)) {
    setFocusPolicy(Qt::ClickFocus);
    setFixedWidth(PictureWidth + 2 * Margin);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(Margin, Margin, Margin, Margin);
    layout->setSpacing(3);
    _title = new QLabel(this);
    _title->setObjectName("tileTitle");
    QFont bold = _title->font();
    bold.setBold(true);
    _title->setFont(bold);
    // Two lines, so that a long title is read whole rather than cut.
    _title->setWordWrap(true);
    _title->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    _title->setFixedHeight(2 * _title->fontMetrics().lineSpacing());
    layout->addWidget(_title);

    std::weak_ptr<RecorderPlace> weak = _place;
    // Ten pictures a second are enough for a tile, and leave the processor to the encoders.
    _picture = PreviewView::make(
        engine,
        [weak] {
            auto place = weak.lock();
            return place ? PreviewFrame{place->latestFrame(), place->flipped()} : PreviewFrame{};
        },
        {}, true, this);
    _picture->setObjectName("tilePicture");
    _picture->setFixedSize(PictureWidth, PictureHeight);
    layout->addWidget(_picture);

    _format = new QLabel(this);
    _format->setObjectName("tileFormat");
    layout->addWidget(_format);
    auto* status = new QHBoxLayout;
    _stateLabel = new QLabel(this);
    _stateLabel->setObjectName("tileState");
    _dropped = new QLabel(this);
    _dropped->setObjectName("tileDropped");
    _dropped->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    status->addWidget(_stateLabel);
    status->addWidget(_dropped, 1);
    layout->addLayout(status);
    _meter = new SoundMeterWidget(this);
    _meter->setObjectName("tileMeter");
    // Its room is kept when hidden, so that tiles with and without sound line up.
    QSizePolicy kept = _meter->sizePolicy();
    kept.setRetainSizeWhenHidden(true);
    _meter->setSizePolicy(kept);
    _meter->hide();
    layout->addWidget(_meter);
    layout->addStretch(1);
    showTexts();
}

bool PlaceTile::hasMeter() const {
    return !_meter->isHidden();
}

void PlaceTile::showPlace(size_t index, bool recording, double now) {
    _index = index;
    const auto movie = std::dynamic_pointer_cast<const TakeMovie>(_place->movie());
    _inTake = movie != nullptr;
    _droppedCount = movie ? movie->framesDropped() : 0;
    const uint64_t held = movie ? movie->framesHeld() : 0;
    if (recording && held > _heldSeen)
        _heldUntil = now + HeldShownSeconds;
    // A new take's movie starts counting again.
    _heldSeen = held;
    if (!_place->isOnline())
        _state = State::NoSignal;
    else if (recording && now < _heldUntil)
        _state = State::Held;
    else
        _state = State::Live;
    const bool sound = _place->hasSoundAtTime(now);
    if (sound != hasMeter()) {
        _meter->setVisible(sound);
        _meter->clear();
    }
    showTexts();
}

void PlaceTile::showLevels(double now) {
    SoundLevels::Reading reading = _place->soundLevels().read();
    if (hasMeter())
        _meter->showReading(reading, now);
}

void PlaceTile::showTexts() {
    const QString title = QString::fromStdString(_place->title());
    _title->setToolTip(title);
    // Past two lines it is shortened, whole in the tooltip.
    _title->setText(_title->fontMetrics().elidedText(QString("%1  %2").arg(_index + 1).arg(title),
                                                     Qt::ElideRight, 2 * PictureWidth - 40));
    const int64_t width = _place->width(), height = _place->height();
    _format->setText(width > 0 && height > 0
                         ? tr("%1 × %2 · %3 fps").arg(width).arg(height).arg(std::round(_place->fps()))
                         : tr("No picture yet"));
    switch (_state) {
    case State::Live:
        _stateLabel->setText(tr("● Live"));
        Restyle(_stateLabel, "color: #2e9d43; font-weight: bold;");
        break;
    case State::NoSignal:
        _stateLabel->setText(tr("● No signal"));
        Restyle(_stateLabel, "color: #d33; font-weight: bold;");
        break;
    case State::Held:
        _stateLabel->setText(tr("● Held"));
        Restyle(_stateLabel, "color: #d08a00; font-weight: bold;");
        break;
    }
    _dropped->setText(_inTake ? tr("%1 dropped").arg(_droppedCount) : QString());
    _dropped->setToolTip(tr("Pictures of this source that its movie dropped in the take"));
    setToolTip(tr("Drag to change the order; Delete removes the selected place"));
}

void PlaceTile::setSelected(bool selected) {
    if (selected == _selected)
        return;
    _selected = selected;
    update();
}

void PlaceTile::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor edge = _selected ? palette().color(QPalette::Highlight) : palette().color(QPalette::Mid);
    painter.setPen(QPen(edge, _selected ? 3 : 1));
    painter.setBrush(palette().color(QPalette::Base));
    painter.drawRoundedRect(QRectF(rect()).adjusted(1.5, 1.5, -1.5, -1.5), 5, 5);
}

void PlaceTile::mousePressEvent(QMouseEvent* event) {
    _pressedAt = event->position().toPoint();
    emit selected();
    QFrame::mousePressEvent(event);
}

void PlaceTile::mouseMoveEvent(QMouseEvent* event) {
    if (!(event->buttons() & Qt::LeftButton) || !_movable ||
        (event->position().toPoint() - _pressedAt).manhattanLength() < QApplication::startDragDistance())
        return;
    auto* drag = new QDrag(this);
    auto* data = new QMimeData;
    data->setData(MimeType, QByteArray::number(qulonglong(_index)));
    drag->setMimeData(data);
    drag->setPixmap(grab().scaledToWidth(width() / 2, Qt::SmoothTransformation));
    drag->exec(Qt::MoveAction);
}

void PlaceTile::resizeEvent(QResizeEvent* event) {
    QFrame::resizeEvent(event);
    showTexts();
}

void PlaceTile::changeEvent(QEvent* event) {
    if (event->type() == QEvent::LanguageChange)
        showTexts();
    QFrame::changeEvent(event);
}

} // namespace quorva
