#include "App/PlaceTiles.h"
#include "App/PlaceTile.h"

#include "core/control/RecorderController.h"
#include "platform/MediaClock.h"

#include <QAction>
#include <QDragEnterEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMimeData>
#include <QScrollBar>

#include <algorithm>

namespace quorva {

namespace {

constexpr int Spacing = 8;

} // namespace

PlaceTiles::PlaceTiles(std::shared_ptr<RecorderController> controller, QWidget* parent)
    : QScrollArea(parent), _controller(std::move(controller)) {
    setObjectName("places");
    setWidgetResizable(true);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    setFocusPolicy(Qt::ClickFocus);
    setAcceptDrops(true);
    _row = new QWidget(this);
    _layout = new QHBoxLayout(_row);
    _layout->setContentsMargins(4, 4, 4, 4);
    _layout->setSpacing(Spacing);
    _addHere = new QLabel(_row);
    _addHere->setObjectName("addPlaceHere");
    _addHere->setWordWrap(true);
    _addHere->setAlignment(Qt::AlignCenter);
    _addHere->setFixedWidth(PlaceTile::PictureWidth + 12);
    _addHere->setMinimumHeight(PlaceTile::PictureHeight + 80);
    _addHere->setStyleSheet(
        "QLabel { border: 2px dashed #8a8a8a; border-radius: 5px; color: #777; padding: 8px; }");
    _layout->addWidget(_addHere);
    _layout->addStretch(1);
    setWidget(_row);
    _dropMark = new QWidget(_row);
    _dropMark->setAutoFillBackground(true);
    QPalette mark = _dropMark->palette();
    mark.setColor(QPalette::Window, mark.color(QPalette::Highlight));
    _dropMark->setPalette(mark);
    _dropMark->hide();
    setMinimumHeight(_row->sizeHint().height() + horizontalScrollBar()->sizeHint().height() +
                     2 * frameWidth());
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);

    _removeAction = new QAction(this);
    _removeAction->setShortcut(QKeySequence::Delete);
    _removeAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(_removeAction, &QAction::triggered, this, &PlaceTiles::removeSelected);
    addAction(_removeAction);
    retranslate();
    showPlaces();
}

void PlaceTiles::showPlaces() {
    const Places& places = _controller->places();
    std::vector<PlaceTile*> tiles;
    for (const auto& place : places) {
        auto found = std::find_if(_tiles.begin(), _tiles.end(),
                                  [&](const PlaceTile* tile) { return tile->place() == place; });
        if (found != _tiles.end()) {
            tiles.push_back(*found);
            _tiles.erase(found);
            continue;
        }
        auto* tile = new PlaceTile(place, _controller->engine(), _row);
        tile->setContextMenuPolicy(Qt::ActionsContextMenu);
        tile->addAction(_removeAction);
        std::weak_ptr<RecorderPlace> weak = place;
        connect(tile, &PlaceTile::selected, this, [this, weak] {
            _selected = weak;
            for (PlaceTile* shown : _tiles)
                shown->setSelected(shown->place() == weak.lock());
        });
        tiles.push_back(tile);
    }
    // What is left lost its place. Later: the place may be removed from the tile's own menu.
    for (PlaceTile* gone : _tiles) {
        _layout->removeWidget(gone);
        gone->hide();
        gone->deleteLater();
    }
    _tiles = std::move(tiles);
    for (size_t i = 0; i < _tiles.size(); ++i) {
        if (_layout->indexOf(_tiles[i]) != int(i)) {
            _layout->removeWidget(_tiles[i]);
            _layout->insertWidget(int(i), _tiles[i]);
        }
    }
    const bool recording = _controller->isRecording();
    const double now = MediaClock::now();
    const auto selected = _selected.lock();
    for (size_t i = 0; i < _tiles.size(); ++i) {
        _tiles[i]->showPlace(i, recording, now);
        _tiles[i]->setMovable(!recording);
        _tiles[i]->setSelected(selected && _tiles[i]->place() == selected);
    }
    _removeAction->setEnabled(!recording);
    _addHere->setVisible(!recording && places.size() < RecorderMaximumPlaces);
}

void PlaceTiles::showLevels(double now) {
    for (PlaceTile* tile : _tiles)
        tile->showLevels(now);
}

int PlaceTiles::selectedIndex() const {
    const auto selected = _selected.lock();
    for (size_t i = 0; selected && i < _tiles.size(); ++i) {
        if (_tiles[i]->place() == selected)
            return int(i);
    }
    return -1;
}

void PlaceTiles::select(int index) {
    if (index >= 0 && size_t(index) < _tiles.size())
        emit _tiles[size_t(index)]->selected();
}

void PlaceTiles::removeSelected() {
    if (const int index = selectedIndex(); index >= 0)
        _controller->removeSourceAtPlace(index + 1);
}

size_t PlaceTiles::dropIndex(QPoint position) const {
    const QPoint inRow = _row->mapFrom(viewport(), position);
    return size_t(std::count_if(_tiles.begin(), _tiles.end(), [&](const PlaceTile* tile) {
        return tile->geometry().center().x() < inRow.x();
    }));
}

void PlaceTiles::showDropMark(QPoint position) {
    const size_t index = dropIndex(position);
    const QWidget* after = index < _tiles.size() ? static_cast<QWidget*>(_tiles[index]) : _addHere;
    const int x = index < _tiles.size() || _tiles.empty() ? after->geometry().left() - Spacing / 2
                                                          : _tiles.back()->geometry().right() + Spacing / 2;
    _dropMark->setGeometry(x - 1, 2, 3, _row->height() - 4);
    _dropMark->show();
    _dropMark->raise();
}

void PlaceTiles::dragEnterEvent(QDragEnterEvent* event) {
    const QMimeData* data = event->mimeData();
    if (_controller->isRecording() ||
        !(data->hasFormat(SourceMimeType) || data->hasFormat(PlaceTile::MimeType)))
        return;
    event->acceptProposedAction();
    showDropMark(event->position().toPoint());
}

void PlaceTiles::dragMoveEvent(QDragMoveEvent* event) {
    event->acceptProposedAction();
    showDropMark(event->position().toPoint());
}

void PlaceTiles::dragLeaveEvent(QDragLeaveEvent*) {
    _dropMark->hide();
}

void PlaceTiles::dropEvent(QDropEvent* event) {
    _dropMark->hide();
    const QMimeData* data = event->mimeData();
    const size_t index = dropIndex(event->position().toPoint());
    event->acceptProposedAction();
    if (data->hasFormat(SourceMimeType)) {
        const std::string title = QString::fromUtf8(data->data(SourceMimeType)).toStdString();
        // Added last, then moved where it was dropped; a source that has a place already moves there.
        if (!_controller->addSourceMatching(title))
            return;
        const size_t from = _controller->indexOfPlaceWithTitle(title);
        if (from != NoIndex && from != index)
            _controller->moveSourceFromPlace(int64_t(from + 1),
                                             int64_t((index > from ? index - 1 : index) + 1));
    } else if (data->hasFormat(PlaceTile::MimeType)) {
        bool read = false;
        const size_t from = data->data(PlaceTile::MimeType).toULongLong(&read);
        const size_t to = index > from ? index - 1 : index;
        if (read && from < _tiles.size() && to != from)
            _controller->moveSourceFromPlace(int64_t(from + 1), int64_t(to + 1));
    }
}

void PlaceTiles::changeEvent(QEvent* event) {
    if (event->type() == QEvent::LanguageChange)
        retranslate();
    QScrollArea::changeEvent(event);
}

void PlaceTiles::retranslate() {
    _addHere->setText(tr("Add a source: double-click it in the list of sources, or drag it here"));
    _removeAction->setText(tr("Remove the Place"));
}

} // namespace quorva
