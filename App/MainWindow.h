#pragma once

#include <QMainWindow>
#include <QTimer>

#include <memory>
#include <vector>

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QMenu;
class QPushButton;
class QSpinBox;
class QStackedWidget;

namespace quorva {

class PlaceTiles;
class PreviewView;
class QuorvaUpdater;
class SourcesList;
class TakePanel;
class RecorderController;
class UpdateDialog;
class RecorderNetwork;
class SettingsStore;

// The window: the sources that can be recorded, the take at a glance with the record button, the
// monitor, the places as live tiles, an inspector of every setting, the status bar and the menus. It
// follows the controller's change notifications and changes the controller only through its setters,
// so that the window, OSC and the command line always agree; the sound meters and the running time are
// polled on a timer of their own. Main thread only.
class MainWindow final : public QMainWindow {
    Q_OBJECT

public:
    // `defaults` keeps the language chosen here; `updater` answers "Check for Updates…".
    MainWindow(std::shared_ptr<RecorderController> controller, std::shared_ptr<RecorderNetwork> network,
               std::shared_ptr<SettingsStore> defaults, std::shared_ptr<QuorvaUpdater> updater);
    ~MainWindow() override;

    // Shows the recorder's help: what it does and every OSC address with its description.
    void showHelp();

protected:
    // Closing never cuts a take short: the movies are finished first, then the window closes.
    void closeEvent(QCloseEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void buildMenus();
    QWidget* buildSidebar();
    QWidget* buildInspector();
    QWidget* buildCentre();
    void buildStatusBar();
    // Every text the user reads, again when the language changes.
    void retranslate();
    // Shows what the controller holds now.
    void controllerChanged();
    void showPlaces();
    void showSettings();
    void showStatus();
    void chooseFolder();
    // Whom the network serves: the hosts that may drive the recorder and the address it listens on,
    // saved and applied at once.
    void showNetworkAccess();
    void chooseLanguage(const QString& code);
    // Shows the updater's state: its menu items, and the update sheet while it is presented.
    void updaterChanged();

    const std::shared_ptr<RecorderController> _controller;
    const std::shared_ptr<RecorderNetwork> _network;
    const std::shared_ptr<SettingsStore> _defaults;
    const std::shared_ptr<QuorvaUpdater> _updater;
    UpdateDialog* _updateSheet = nullptr;
    uint64_t _observer = 0;
    uint64_t _errorsSeen = 0;
    QTimer _errorTimer;
    // The meters and the running time and timecode, twenty times a second.
    QTimer _meterTimer;

    QMenu *_fileMenu = nullptr, *_recordingMenu = nullptr, *_languageMenu = nullptr, *_helpMenu = nullptr;
    QAction *_chooseFolderAction = nullptr, *_networkAction = nullptr, *_quitAction = nullptr,
            *_recordAction = nullptr, *_performanceAction = nullptr, *_helpAction = nullptr,
            *_aboutAction = nullptr, *_checkUpdatesAction = nullptr, *_autoCheckAction = nullptr,
            *_reportAction = nullptr;
    std::vector<QAction*> _languageActions;

    QGroupBox *_sourcesBox = nullptr, *_placesBox = nullptr, *_inspectorBox = nullptr;
    SourcesList* _available = nullptr;
    QPushButton* _addButton = nullptr;
    PlaceTiles* _places = nullptr;

    std::vector<QLabel*> _inspectorLabels;
    QComboBox *_codec = nullptr, *_output = nullptr, *_layout = nullptr, *_sound = nullptr;
    QSpinBox *_width = nullptr, *_height = nullptr, *_gap = nullptr;
    QDoubleSpinBox *_fps = nullptr, *_bitrate = nullptr;
    QCheckBox* _performance = nullptr;
    QLineEdit *_name = nullptr, *_folder = nullptr;
    QPushButton* _folderButton = nullptr;

    TakePanel* _takePanel = nullptr;
    // The monitor, or while there is no place, what to do to fill it.
    QStackedWidget* _monitorStack = nullptr;
    QLabel* _monitorHint = nullptr;
    PreviewView* _monitor = nullptr;
    QLabel* _take = nullptr;
    QButtonGroup* _layoutPicker = nullptr;

    QLabel *_file = nullptr, *_error = nullptr, *_ndi = nullptr, *_ports = nullptr;
};

} // namespace quorva
