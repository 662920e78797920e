#pragma once

#include <QScrollArea>

#include <memory>
#include <vector>

class QAction;
class QHBoxLayout;
class QLabel;

namespace quorva {

class PlaceTile;
class RecorderController;
class RecorderPlace;

// The places as live tiles, in their order, in a row that scrolls sideways. A source dragged from the
// sources list (SourceMimeType) and dropped here is added where it is dropped; a tile dragged elsewhere
// in the row moves its place there; a click selects a tile, and Delete (or the tile's menu) removes the
// selected place. After the last tile, while there is room for another place, a box says how to add
// one. The controller refuses changes while recording, and the row offers none then. Main thread only.
class PlaceTiles final : public QScrollArea {
    Q_OBJECT

public:
    // A dragged source's data: its title, in UTF-8.
    static constexpr const char* SourceMimeType = "application/x-quorva-source";

    explicit PlaceTiles(std::shared_ptr<RecorderController> controller, QWidget* parent = nullptr);

    // Follows the controller: a tile for each place, kept for as long as its place is, in their order.
    void showPlaces();
    // Feeds the tiles' meters, on the window's meter timer.
    void showLevels(double now);

    const std::vector<PlaceTile*>& tiles() const { return _tiles; }
    // The selected tile's index, or -1.
    int selectedIndex() const;
    void select(int index);
    // Removes the selected place, if any and if the controller lets it.
    void removeSelected();

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    // Where in the order a drop at `position` (in the viewport) lands: the number of tiles before it.
    size_t dropIndex(QPoint position) const;
    void showDropMark(QPoint position);
    void retranslate();

    const std::shared_ptr<RecorderController> _controller;
    QWidget* _row = nullptr;
    QHBoxLayout* _layout = nullptr;
    QLabel* _addHere = nullptr;
    QWidget* _dropMark = nullptr;
    QAction* _removeAction = nullptr;
    std::vector<PlaceTile*> _tiles;
    std::weak_ptr<RecorderPlace> _selected;
};

} // namespace quorva
