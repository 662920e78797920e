#pragma once

#include <QDialog>

#include <memory>

class QLabel;
class QPushButton;

namespace quorva {

class QuorvaUpdater;

// The update sheet: the version running, what the check found (the new version and its notes), the
// install button, and the progress or failure of an install. It shows the updater's state and leaves
// every decision to it. Main thread only.
class UpdateDialog final : public QDialog {
    Q_OBJECT

public:
    UpdateDialog(std::shared_ptr<QuorvaUpdater> updater, QWidget* parent);
    // Shows the updater's state now, in the window's language.
    void refresh();

private:
    const std::shared_ptr<QuorvaUpdater> _updater;
    QLabel *_version = nullptr, *_headline = nullptr, *_detail = nullptr;
    QPushButton *_install = nullptr, *_close = nullptr;
};

} // namespace quorva
