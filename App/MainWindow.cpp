#include "App/MainWindow.h"
#include "App/Language.h"
#include "App/PlaceTiles.h"
#include "App/Preview.h"
#include "App/ReleaseIdentity.h"
#include "App/SourcesList.h"
#include "App/Startup.h"
#include "App/TakePanel.h"
#include "App/UpdateDialog.h"
#include "App/Updates.h"
#include "updater/QuorvaUpdater.h"

#include "core/composition/Layout.h"
#include "core/control/RecorderController.h"
#include "core/movie/MovieRecorderSettings.h"
#include "core/movie/TakeNaming.h"
#include "platform/MediaClock.h"
#include "remote/RecorderNetwork.h"

#include <QActionGroup>
#include <QButtonGroup>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QSpinBox>
#include <QSplitter>
#include <QStackedWidget>
#include <QStatusBar>
#include <QTextBrowser>
#include <QToolButton>
#include <QUrl>
#include <QVBoxLayout>

#include <cmath>

namespace quorva {

namespace {

// How long an error stays in the status bar.
constexpr int ErrorDisplayMilliseconds = 6000;

QString Text(const std::string& text) {
    return QString::fromStdString(text);
}

// Fills a list of names once; the settings' own names are the items' data, what the user reads their text.
void FillNames(QComboBox* box, const std::vector<std::string>& names) {
    for (const std::string& name : names)
        box->addItem(Text(name), Text(name));
}

void SelectData(QComboBox* box, const QString& data) {
    const QSignalBlocker blocker(box);
    box->setCurrentIndex(std::max(0, box->findData(data)));
}

template <class Box, class Value>
void ShowValue(Box* box, Value value) {
    if (box->hasFocus())
        return; // never under the user's fingers
    const QSignalBlocker blocker(box);
    box->setValue(value);
}

void ShowText(QLineEdit* edit, const QString& text) {
    if (edit->hasFocus())
        return;
    edit->setText(text);
}

} // namespace

MainWindow::MainWindow(std::shared_ptr<RecorderController> controller,
                       std::shared_ptr<RecorderNetwork> network, std::shared_ptr<SettingsStore> defaults,
                       std::shared_ptr<QuorvaUpdater> updater)
    : _controller(std::move(controller)), _network(std::move(network)), _defaults(std::move(defaults)),
      _updater(std::move(updater)) {
    buildMenus();
    auto* splitter = new QSplitter(this);
    splitter->addWidget(buildSidebar());
    splitter->addWidget(buildCentre());
    splitter->addWidget(buildInspector());
    splitter->setStretchFactor(1, 1);
    setCentralWidget(splitter);
    buildStatusBar();
    _errorTimer.setSingleShot(true);
    connect(&_errorTimer, &QTimer::timeout, this, [this] { _error->clear(); });
    // The meters read what the sound's threads measured since the last tick: drawing them costs the
    // take nothing but these reads.
    connect(&_meterTimer, &QTimer::timeout, this, [this] {
        const double now = MediaClock::now();
        _places->showLevels(now);
        _takePanel->tick(now);
    });
    _meterTimer.start(50);
    _errorsSeen = _controller->errorCount();
    retranslate();
    controllerChanged();
    _observer = _controller->addObserver([this] { controllerChanged(); });
    _updater->setObserver([this] { updaterChanged(); });
    updaterChanged();
    resize(1280, 760);
}

MainWindow::~MainWindow() {
    _updater->setObserver({});
    _controller->removeObserver(_observer);
}

void MainWindow::buildMenus() {
    _fileMenu = menuBar()->addMenu(QString());
    _chooseFolderAction = _fileMenu->addAction(QString(), this, &MainWindow::chooseFolder);
    _networkAction = _fileMenu->addAction(QString(), this, &MainWindow::showNetworkAccess);
    _fileMenu->addSeparator();
    _quitAction = _fileMenu->addAction(QString(), this, &QWidget::close);
    _quitAction->setShortcut(QKeySequence::Quit);
    _quitAction->setMenuRole(QAction::QuitRole);

    _recordingMenu = menuBar()->addMenu(QString());
    _recordAction = _recordingMenu->addAction(QString(), this, [this] { _controller->toggle(); });
    // Space records and stops, except where it is typed into a field.
    _recordAction->setShortcut(Qt::Key_Space);
    // The last take's report, a page that the system's browser shows.
    _reportAction = _recordingMenu->addAction(QString(), this, [this] {
        if (!_controller->lastReport().empty())
            QDesktopServices::openUrl(QUrl::fromLocalFile(Text(_controller->lastReport())));
    });
    _reportAction->setObjectName("openReport");
    _performanceAction = _recordingMenu->addAction(QString());
    _performanceAction->setCheckable(true);
    connect(_performanceAction, &QAction::triggered, this,
            [this](bool on) { _controller->setPerformance(on); });

    _languageMenu = menuBar()->addMenu(QString());
    auto* languages = new QActionGroup(this);
    for (const char* code : {"", "en", "fr"}) {
        QAction* action = _languageMenu->addAction(QString());
        action->setCheckable(true);
        action->setData(QString(code));
        action->setChecked(Language::chosen(*_defaults) == code);
        languages->addAction(action);
        connect(action, &QAction::triggered, this, [this, code] { chooseLanguage(code); });
        _languageActions.push_back(action);
    }

    _helpMenu = menuBar()->addMenu(QString());
    _helpAction = _helpMenu->addAction(QString(), this, &MainWindow::showHelp);
    _helpAction->setShortcut(QKeySequence::HelpContents);
    _aboutAction = _helpMenu->addAction(QString(), this, [this] {
        QMessageBox::about(
            this, tr("About QuorvaRecorder"),
            tr("<h3>QuorvaRecorder %1</h3><p>Records up to eight live sources on one clock into "
               "QuickTime movies.</p>")
                .arg(QString::fromUtf8(ThisRelease().version.data(),
                                       qsizetype(ThisRelease().version.size()))));
    });
    _aboutAction->setMenuRole(QAction::AboutRole);
    _helpMenu->addSeparator();
    _checkUpdatesAction = _helpMenu->addAction(
        QString(), this, [this] { _updater->checkForUpdates(false, SecondsSince1970()); });
    _autoCheckAction = _helpMenu->addAction(QString());
    _autoCheckAction->setCheckable(true);
    connect(_autoCheckAction, &QAction::triggered, this,
            [this](bool on) { _updater->setAutoCheckOnLaunch(on); });
}

void MainWindow::updaterChanged() {
    _checkUpdatesAction->setEnabled(!_updater->isBusy());
    _autoCheckAction->setChecked(_updater->autoCheckOnLaunch());
    if (_updater->isUpdateSheetPresented() && !_updateSheet) {
        _updateSheet = new UpdateDialog(_updater, this);
        _updateSheet->setAttribute(Qt::WA_DeleteOnClose);
        connect(_updateSheet, &QObject::destroyed, this, [this] { _updateSheet = nullptr; });
        _updateSheet->show();
    }
    if (_updateSheet)
        _updateSheet->refresh();
}

QWidget* MainWindow::buildSidebar() {
    _sourcesBox = new QGroupBox(this);
    auto* sources = new QVBoxLayout(_sourcesBox);
    _available = new SourcesList(_sourcesBox);
    _addButton = new QPushButton(_sourcesBox);
    _addButton->setObjectName("addSource");
    auto add = [this] {
        if (QListWidgetItem* item = _available->currentItem())
            _controller->addSourceMatching(item->data(Qt::UserRole).toString().toStdString());
    };
    connect(_addButton, &QPushButton::clicked, this, add);
    connect(_available, &QListWidget::itemDoubleClicked, this, add);
    sources->addWidget(_available);
    sources->addWidget(_addButton);
    _sourcesBox->setMinimumWidth(260);
    return _sourcesBox;
}

QWidget* MainWindow::buildInspector() {
    _inspectorBox = new QGroupBox(this);
    auto* form = new QFormLayout(_inspectorBox);
    auto row = [&](QWidget* field) {
        auto* label = new QLabel(_inspectorBox);
        _inspectorLabels.push_back(label);
        form->addRow(label, field);
    };
    auto textSetting = [this](QComboBox* box, Setting setting) {
        connect(box, &QComboBox::activated, this, [this, box, setting] {
            _controller->setText(setting, box->currentData().toString().toStdString());
        });
    };
    auto numberSetting = [this](auto* box, Setting setting, double maximum) {
        box->setRange(0, maximum);
        box->setKeyboardTracking(false);
        connect(box, &std::remove_pointer_t<decltype(box)>::valueChanged, this,
                [this, setting](auto value) { _controller->setNumber(setting, double(value)); });
    };

    _codec = new QComboBox(_inspectorBox);
    FillNames(_codec, Names<Codec>());
    textSetting(_codec, Setting::Codec);
    row(_codec);
    _width = new QSpinBox(_inspectorBox);
    numberSetting(_width, Setting::Width, 16384);
    row(_width);
    _height = new QSpinBox(_inspectorBox);
    numberSetting(_height, Setting::Height, 16384);
    row(_height);
    _fps = new QDoubleSpinBox(_inspectorBox);
    numberSetting(_fps, Setting::FPS, 240);
    row(_fps);
    _bitrate = new QDoubleSpinBox(_inspectorBox);
    numberSetting(_bitrate, Setting::Bitrate, 1000);
    row(_bitrate);
    _output = new QComboBox(_inspectorBox);
    FillNames(_output, Names<TakeOutput>());
    textSetting(_output, Setting::Output);
    row(_output);
    _layout = new QComboBox(_inspectorBox);
    FillNames(_layout, Names<LayoutKind>());
    textSetting(_layout, Setting::Layout);
    row(_layout);
    _gap = new QSpinBox(_inspectorBox);
    numberSetting(_gap, Setting::Gap, 1000);
    row(_gap);
    _sound = new QComboBox(_inspectorBox);
    textSetting(_sound, Setting::Sound);
    row(_sound);
    _performance = new QCheckBox(_inspectorBox);
    connect(_performance, &QCheckBox::clicked, this, [this](bool on) { _controller->setPerformance(on); });
    row(_performance);
    _name = new QLineEdit(_inspectorBox);
    _name->setObjectName("name");
    connect(_name, &QLineEdit::editingFinished, this,
            [this] { _controller->setName(_name->text().toStdString()); });
    row(_name);
    auto* folderRow = new QWidget(_inspectorBox);
    auto* folderLayout = new QHBoxLayout(folderRow);
    folderLayout->setContentsMargins(0, 0, 0, 0);
    _folder = new QLineEdit(folderRow);
    _folder->setObjectName("folder");
    connect(_folder, &QLineEdit::editingFinished, this,
            [this] { _controller->setFolder(_folder->text().toStdString()); });
    _folderButton = new QPushButton(folderRow);
    connect(_folderButton, &QPushButton::clicked, this, &MainWindow::chooseFolder);
    folderLayout->addWidget(_folder, 1);
    folderLayout->addWidget(_folderButton);
    row(folderRow);
    _inspectorBox->setMinimumWidth(300);
    return _inspectorBox;
}

QWidget* MainWindow::buildCentre() {
    auto* centre = new QWidget(this);
    auto* layout = new QVBoxLayout(centre);
    _takePanel = new TakePanel(_controller, centre);
    layout->addWidget(_takePanel);

    std::weak_ptr<RecorderController> weak = _controller;
    _monitorStack = new QStackedWidget(centre);
    _monitorHint = new QLabel(_monitorStack);
    _monitorHint->setObjectName("monitorHint");
    _monitorHint->setAlignment(Qt::AlignCenter);
    _monitorHint->setWordWrap(true);
    _monitorHint->setMargin(24);
    _monitorHint->setStyleSheet("QLabel { background-color: black; color: #d8d8d8; font-size: 15pt; }");
    _monitorStack->addWidget(_monitorHint);
    _monitor = PreviewView::make(
        _controller->engine(),
        [weak] {
            auto controller = weak.lock();
            return PreviewFrame{controller ? controller->assembledFrame() : nullptr, false};
        },
        [weak](bool watched) {
            if (auto controller = weak.lock())
                controller->setMonitorWatched(watched);
        },
        _controller->displayIsLimited(), _monitorStack);
    _monitor->setObjectName("monitor");
    _monitorStack->addWidget(_monitor);
    _monitorStack->setMinimumSize(480, 270);
    layout->addWidget(_monitorStack, 1);

    auto* bar = new QHBoxLayout;
    _take = new QLabel(centre);
    _take->setObjectName("take");
    _take->setTextInteractionFlags(Qt::TextSelectableByMouse);
    _layoutPicker = new QButtonGroup(centre);
    for (size_t i = 0; i < Names<LayoutKind>().size(); ++i) {
        auto* button = new QToolButton(centre);
        button->setObjectName(Text("layout-" + Names<LayoutKind>()[i]));
        button->setCheckable(true);
        _layoutPicker->addButton(button, int(i));
        bar->addWidget(button);
    }
    connect(_layoutPicker, &QButtonGroup::idClicked, this,
            [this](int id) { _controller->setLayout(NameOf(LayoutKind(id))); });
    bar->addWidget(_take, 1);
    layout->addLayout(bar);

    _placesBox = new QGroupBox(centre);
    auto* places = new QVBoxLayout(_placesBox);
    places->setContentsMargins(4, 4, 4, 4);
    _places = new PlaceTiles(_controller, _placesBox);
    places->addWidget(_places);
    layout->addWidget(_placesBox);
    return centre;
}

void MainWindow::buildStatusBar() {
    for (QLabel** label : {&_file, &_error, &_ndi, &_ports}) {
        *label = new QLabel(this);
        statusBar()->addWidget(*label, label == &_file || label == &_error ? 1 : 0);
    }
    _error->setObjectName("error");
    _error->setStyleSheet("color: #d33;");
}

void MainWindow::retranslate() {
    setWindowTitle(tr("QuorvaRecorder"));
    _fileMenu->setTitle(tr("&File"));
    _chooseFolderAction->setText(tr("Choose &Folder…"));
    _networkAction->setText(tr("&Network Access…"));
    _quitAction->setText(tr("&Quit"));
    _recordingMenu->setTitle(tr("&Recording"));
    _performanceAction->setText(tr("&Performance Mode"));
    _reportAction->setText(tr("Open the Last Take's &Report"));
    _languageMenu->setTitle(tr("&Language"));
    _languageActions[0]->setText(tr("As the System"));
    _languageActions[1]->setText(QStringLiteral("English"));
    _languageActions[2]->setText(QStringLiteral("Français"));
    _helpMenu->setTitle(tr("&Help"));
    _helpAction->setText(tr("QuorvaRecorder &Help"));
    _aboutAction->setText(tr("&About QuorvaRecorder"));
    _checkUpdatesAction->setText(tr("Check for Updates…"));
    _autoCheckAction->setText(tr("Auto-check updates"));
    if (_updateSheet)
        _updateSheet->refresh();

    _sourcesBox->setTitle(tr("Sources"));
    _addButton->setText(tr("Add to the Places"));
    _placesBox->setTitle(tr("Places"));
    _monitorHint->setText(tr("No source is recorded yet.\n\nAdd one: double-click it in the list of "
                             "sources, or drag it onto the places below."));

    _inspectorBox->setTitle(tr("Settings"));
    const QString labels[] = {tr("Codec"),    tr("Width"),  tr("Height"), tr("Frame rate"),
                              tr("Bit rate"), tr("Output"), tr("Layout"), tr("Gap"),
                              tr("Sound"),    QString(),    tr("Name"),   tr("Folder")};
    for (size_t i = 0; i < _inspectorLabels.size(); ++i)
        _inspectorLabels[i]->setText(labels[i]);
    _performance->setText(tr("Performance mode"));
    _performance->setToolTip(tr("While recording, the monitor shows ten pictures a second"));
    for (QSpinBox* size : {_width, _height})
        size->setSpecialValueText(tr("The sources' size"));
    _fps->setSpecialValueText(tr("Every frame"));
    _fps->setSuffix(tr(" fps"));
    _bitrate->setSpecialValueText(tr("Automatic"));
    _bitrate->setSuffix(tr(" Mb/s"));
    _gap->setSuffix(tr(" px"));
    _name->setPlaceholderText(tr("Named after the date"));
    _folderButton->setText(tr("Choose…"));
    const QString outputs[] = {tr("One movie per source"), tr("Assembled movie"), tr("Both")};
    for (int i = 0; i < _output->count(); ++i)
        _output->setItemText(i, outputs[i]);
    const QString layouts[] = {tr("Row"), tr("Column"), tr("Grid"), tr("Focus")};
    for (int i = 0; i < _layout->count(); ++i) {
        _layout->setItemText(i, layouts[i]);
        _layoutPicker->button(i)->setText(layouts[i]);
    }
    showSettings();
    showPlaces();
    showStatus();
}

void MainWindow::changeEvent(QEvent* event) {
    if (event->type() == QEvent::LanguageChange)
        retranslate();
    QMainWindow::changeEvent(event);
}

void MainWindow::controllerChanged() {
    _monitor->setLimited(_controller->displayIsLimited());
    _available->showSources(_controller->availableSources());
    showPlaces();
    showSettings();
    showStatus();
}

void MainWindow::showPlaces() {
    _places->showPlaces();
    _monitorStack->setCurrentWidget(_controller->places().empty() ? static_cast<QWidget*>(_monitorHint)
                                                                  : _monitor);
    _addButton->setEnabled(!_controller->isRecording());
}

void MainWindow::showSettings() {
    SelectData(_codec, Text(_controller->codec()));
    ShowValue(_width, int(_controller->width()));
    ShowValue(_height, int(_controller->height()));
    ShowValue(_fps, _controller->fps());
    ShowValue(_bitrate, _controller->bitrate());
    SelectData(_output, Text(_controller->output()));
    SelectData(_layout, Text(_controller->layout()));
    if (QAbstractButton* button = _layoutPicker->button(int(_layout->currentIndex())))
        button->setChecked(true);
    ShowValue(_gap, int(_controller->gap()));
    {
        // Rebuilt only when the places change, so that an open list stays open.
        QStringList choices = {QString(), QString(RecorderComputerSound)};
        for (const auto& place : _controller->places())
            choices << Text(place->title());
        QStringList shown;
        for (int i = 0; i < _sound->count(); ++i)
            shown << _sound->itemData(i).toString();
        if (shown != choices) {
            const QSignalBlocker blocker(_sound);
            _sound->clear();
            for (const QString& choice : choices)
                _sound->addItem(choice, choice);
        }
        _sound->setItemText(0, tr("No sound"));
        _sound->setItemText(1, tr("The computer's sound"));
        SelectData(_sound, Text(_controller->sound()));
    }
    _performance->setChecked(_controller->performance());
    _performanceAction->setChecked(_controller->performance());
    ShowText(_name, Text(_controller->name()));
    ShowText(_folder, Text(_controller->folder()));
}

void MainWindow::showStatus() {
    const RecorderState state = _controller->state();
    _takePanel->showTake();
    _recordAction->setText(state == RecorderState::Idle ? tr("Start &Recording") : tr("Stop &Recording"));
    _file->setText(Text(_controller->file()));
    const QString name = _controller->name().empty() ? tr("named after the date") : Text(_controller->name());
    _take->setText(tr("Take %1 in %2").arg(name, Text(_controller->folder())));
    if (_controller->errorCount() != _errorsSeen) {
        _errorsSeen = _controller->errorCount();
        _error->setText(Text(_controller->error()));
        _errorTimer.start(ErrorDisplayMilliseconds);
    }
    _reportAction->setEnabled(!_controller->lastReport().empty());
    _ndi->setText(_controller->ndiAvailable() ? tr("NDI on") : tr("NDI off"));
    _ndi->setToolTip(Text(_controller->ndiReason()));
    _ports->setText(tr("OSC %1 · OSCQuery %2").arg(_network->oscPort()).arg(_network->oscQueryPort()));
}

void MainWindow::chooseFolder() {
    const QString folder =
        QFileDialog::getExistingDirectory(this, tr("Folder for the Movies"), Text(_controller->folder()));
    if (!folder.isEmpty())
        _controller->setFolder(folder.toStdString());
}

void MainWindow::showNetworkAccess() {
    auto* dialog = new QDialog(this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setObjectName("networkAccess");
    dialog->setWindowTitle(tr("Network Access"));
    auto* form = new QFormLayout(dialog);
    const NetworkAccess& access = _network->access();
    auto* allowed = new QLineEdit(
        access.allowed.allowsEveryone() ? QString() : Text(access.allowed.description()), dialog);
    allowed->setObjectName("allowedNetworks");
    allowed->setPlaceholderText(tr("every host"));
    auto* bind = new QLineEdit(Text(access.bindAddress), dialog);
    bind->setObjectName("bindAddress");
    bind->setPlaceholderText(tr("every interface"));
    form->addRow(tr("Hosts that may drive this recorder:"), allowed);
    form->addRow(tr("Listen on the address:"), bind);
    auto* problem = new QLabel(dialog);
    problem->setObjectName("networkProblem");
    form->addRow(problem);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, dialog);
    form->addRow(buttons);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    connect(buttons, &QDialogButtonBox::accepted, dialog, [this, dialog, allowed, bind, problem] {
        NetworkAccess chosen;
        std::vector<std::string> networks;
        for (const QString& entry : allowed->text().split(',', Qt::SkipEmptyParts)) {
            const std::string network = entry.trimmed().toStdString();
            if (!chosen.allowed.add(network)) {
                problem->setText(
                    tr("“%1” is not an address or a network (address/prefix)").arg(entry.trimmed()));
                return;
            }
            networks.push_back(network);
        }
        chosen.bindAddress = bind->text().trimmed().toStdString();
        if (!chosen.bindAddress.empty() && !IsAddressOfThisMachine(chosen.bindAddress)) {
            problem->setText(tr("“%1” is not an address of this machine").arg(bind->text().trimmed()));
            return;
        }
        // A write that fails is logged by the store, which keeps the values for its next write.
        (void)_defaults->setStringArray(networks, AllowedNetworksKey);
        (void)_defaults->setString(chosen.bindAddress, BindAddressKey);
        _network->setAccess(std::move(chosen));
        StartNetwork({_defaults, _controller, _network}, "QuorvaRecorder: ");
        dialog->accept();
    });
    dialog->show();
}

void MainWindow::chooseLanguage(const QString& code) {
    Language::choose(code, *_defaults);
}

void MainWindow::showHelp() {
    auto* dialog = new QDialog(this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(tr("QuorvaRecorder Help"));
    auto* layout = new QVBoxLayout(dialog);
    auto* text = new QTextBrowser(dialog);
    QString html =
        tr("<h2>QuorvaRecorder</h2><p>QuorvaRecorder records up to eight live sources on one clock: "
           "pictures that other programs publish through PipeWire, NDI sources on the network and "
           "its own test patterns. Add sources to the places, choose the settings and press Record "
           "(or Space). A take writes one movie per source, one movie of all of them assembled, or "
           "both; nothing is ever overwritten.</p><p>Everything can be driven remotely: OSC messages "
           "over UDP on port %1, and OSCQuery over HTTP on port %2, with these addresses:</p>")
            .arg(_network->oscPort())
            .arg(_network->oscQueryPort());
    html += "<table cellspacing='0' cellpadding='3'>";
    for (const RecorderParameter& parameter : _network->parameters())
        html += QString("<tr><td><code>%1</code></td><td><code>%2</code></td><td>%3</td></tr>")
                    .arg(Text(parameter.address).toHtmlEscaped(), Text(parameter.typeSpec),
                         Text(parameter.summary).toHtmlEscaped());
    html += "</table>";
    text->setHtml(html);
    layout->addWidget(text);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, dialog);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::close);
    layout->addWidget(buttons);
    dialog->resize(760, 640);
    dialog->show();
}

void MainWindow::closeEvent(QCloseEvent* event) {
    if (_controller->state() == RecorderState::Idle) {
        event->accept();
        return;
    }
    event->ignore();
    QPointer<MainWindow> window = this;
    QuitAfterTheTake(*_controller, [window] {
        if (window)
            window->close();
    });
}

} // namespace quorva
