#include "App/SourcesList.h"
#include "App/PlaceTiles.h"

#include <QEvent>
#include <QMimeData>
#include <QPainter>
#include <QStyle>
#include <QStyledItemDelegate>

#include <algorithm>

namespace quorva {

namespace {

constexpr int KindRole = Qt::UserRole + 1;
constexpr int DetailRole = Qt::UserRole + 2;
constexpr int Padding = 5;
constexpr int LineGap = 2;

// Draws an item as its title in bold over its kind and detail, each wrapped to the list's width.
class SourceDelegate final : public QStyledItemDelegate {
public:
    explicit SourceDelegate(SourcesList* list) : QStyledItemDelegate(list), _list(list) {}

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override {
        QStyleOptionViewItem background = option;
        initStyleOption(&background, index);
        background.text.clear();
        _list->style()->drawControl(QStyle::CE_ItemViewItem, &background, painter, _list);
        const QListWidgetItem* item = _list->item(index.row());
        if (!item)
            return;
        const QRect area = option.rect.adjusted(Padding, Padding, -Padding, -Padding);
        painter->save();
        const bool selected = option.state & QStyle::State_Selected;
        painter->setPen(option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text));
        painter->setFont(bold(option.font));
        QRect title;
        painter->drawText(area, Qt::TextWordWrap, item->text(), &title);
        if (!selected)
            painter->setPen(option.palette.color(QPalette::PlaceholderText));
        painter->setFont(option.font);
        painter->drawText(area.adjusted(0, title.height() + LineGap, 0, 0), Qt::TextWordWrap,
                          _list->kindAndDetail(*item));
        painter->restore();
    }

    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        const QListWidgetItem* item = _list->item(index.row());
        const int width = std::max(60, _list->viewport()->width());
        if (!item)
            return {width, 0};
        const QRect bounds(0, 0, width - 2 * Padding, 100000);
        const int title =
            QFontMetrics(bold(option.font)).boundingRect(bounds, Qt::TextWordWrap, item->text()).height();
        const int rest = QFontMetrics(option.font)
                             .boundingRect(bounds, Qt::TextWordWrap, _list->kindAndDetail(*item))
                             .height();
        return {width, title + LineGap + rest + 2 * Padding};
    }

private:
    static QFont bold(QFont font) {
        font.setBold(true);
        return font;
    }

    SourcesList* const _list;
};

} // namespace

SourcesList::SourcesList(QWidget* parent) : QListWidget(parent) {
    setObjectName("availableSources");
    setItemDelegate(new SourceDelegate(this));
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setResizeMode(QListView::Adjust);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    setWordWrap(true);
    setDragEnabled(true);
    setDragDropMode(QAbstractItemView::DragOnly);
    setDefaultDropAction(Qt::CopyAction);
}

void SourcesList::showSources(const std::vector<SourceDescription>& sources) {
    bool same = int(sources.size()) == count();
    for (size_t i = 0; same && i < sources.size(); ++i) {
        const QListWidgetItem* shown = item(int(i));
        same = shown->data(Qt::UserRole).toString().toStdString() == sources[i].title() &&
               shown->data(DetailRole).toString().toStdString() == sources[i].detail() &&
               shown->data(KindRole).toLongLong() == sources[i].kind();
    }
    if (same)
        return; // keeps the selection
    clear();
    for (const SourceDescription& source : sources) {
        const QString title = QString::fromStdString(source.title());
        auto* shown = new QListWidgetItem(title);
        shown->setData(Qt::UserRole, title);
        shown->setData(KindRole, qlonglong(source.kind()));
        shown->setData(DetailRole, QString::fromStdString(source.detail()));
        addItem(shown);
    }
}

QString SourcesList::kindAndDetail(const QListWidgetItem& item) const {
    QString kind;
    switch (item.data(KindRole).toLongLong()) {
    case SourceKindNDI:
        kind = tr("NDI");
        break;
    case SourceKindPattern:
        kind = tr("Test pattern");
        break;
    default:
        kind = tr("PipeWire");
        break;
    }
    const QString detail = item.data(DetailRole).toString();
    return detail.isEmpty() ? kind : kind + " · " + detail;
}

QStringList SourcesList::mimeTypes() const {
    return {PlaceTiles::SourceMimeType};
}

QMimeData* SourcesList::mimeData(const QList<QListWidgetItem*>& items) const {
    if (items.isEmpty())
        return nullptr;
    auto* data = new QMimeData;
    data->setData(PlaceTiles::SourceMimeType, items.front()->data(Qt::UserRole).toString().toUtf8());
    return data;
}

void SourcesList::resizeEvent(QResizeEvent* event) {
    QListWidget::resizeEvent(event);
    // Each item's height follows its wrapped lines at the new width.
    scheduleDelayedItemsLayout();
}

void SourcesList::changeEvent(QEvent* event) {
    if (event->type() == QEvent::LanguageChange)
        scheduleDelayedItemsLayout();
    QListWidget::changeEvent(event);
}

} // namespace quorva
