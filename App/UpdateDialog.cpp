#include "App/UpdateDialog.h"

#include "App/Language.h"
#include "updater/QuorvaUpdater.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace quorva {

UpdateDialog::UpdateDialog(std::shared_ptr<QuorvaUpdater> updater, QWidget* parent)
    : QDialog(parent), _updater(std::move(updater)) {
    setObjectName("updateSheet");
    auto* layout = new QVBoxLayout(this);
    _version = new QLabel(this);
    _headline = new QLabel(this);
    _headline->setObjectName("updateHeadline");
    _headline->setStyleSheet("font-weight: bold;");
    _detail = new QLabel(this);
    _detail->setObjectName("updateDetail");
    _detail->setWordWrap(true);
    _detail->setTextInteractionFlags(Qt::TextSelectableByMouse);
    _detail->setMinimumWidth(420);
    layout->addWidget(_headline);
    layout->addWidget(_version);
    layout->addWidget(_detail, 1);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    _close = new QPushButton(this);
    _install = new QPushButton(this);
    _install->setObjectName("installUpdate");
    // Return installs: Close, though it has the focus first, never becomes the default.
    _close->setAutoDefault(false);
    _install->setDefault(true);
    buttons->addWidget(_close);
    buttons->addWidget(_install);
    layout->addLayout(buttons);
    connect(_close, &QPushButton::clicked, this, &QDialog::reject);
    connect(_install, &QPushButton::clicked, this, [this] {
        if (_updater->state().release)
            _updater->downloadAndInstall(*_updater->state().release);
    });
    // However the sheet is closed, the updater hears of it.
    connect(this, &QDialog::finished, this, [this] { _updater->setUpdateSheetPresented(false); });
    refresh();
}

void UpdateDialog::refresh() {
    const UpdateState& state = _updater->state();
    const auto blocked = _updater->service().replaceability();
    const UpdateTexts texts =
        TextsOf(state, _updater->service().configuration().currentVersion,
                Language::isFrench() ? UpdateLanguage::French : UpdateLanguage::English, blocked);
    setWindowTitle(QString::fromStdString(texts.title));
    _version->setText(QString::fromStdString(texts.currentVersion));
    _headline->setText(QString::fromStdString(texts.headline));
    _detail->setText(QString::fromStdString(texts.detail));
    _install->setText(QString::fromStdString(texts.installButton));
    _install->setVisible(state.kind == UpdateState::Kind::UpdateAvailable);
    _install->setEnabled(!blocked);
    _close->setText(tr("Close"));
    _close->setEnabled(!_updater->isBusy() || state.kind == UpdateState::Kind::Checking);
    // Notes and errors differ in length: the sheet takes the size of what it shows now.
    adjustSize();
}

} // namespace quorva
