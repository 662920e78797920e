#pragma once

#include "core/source/SourceDescription.h"

#include <QListWidget>

#include <vector>

namespace quorva {

// The sources that can be recorded, each shown whole: its title, then its kind and detail, wrapped to
// the list's width rather than cut or scrolled sideways. A source dragged from here carries its title
// (PlaceTiles::SourceMimeType). Each item's text is the source's title; its data (Qt::UserRole) too.
// Main thread only.
class SourcesList final : public QListWidget {
    Q_OBJECT

public:
    explicit SourcesList(QWidget* parent = nullptr);

    // Shows `sources`; a list that did not change keeps its selection.
    void showSources(const std::vector<SourceDescription>& sources);
    // What the second part of an item reads: the kind, as the user calls it, and the detail.
    QString kindAndDetail(const QListWidgetItem& item) const;

protected:
    QStringList mimeTypes() const override;
    QMimeData* mimeData(const QList<QListWidgetItem*>& items) const override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;
};

} // namespace quorva
