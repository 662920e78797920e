// The window as a user drives it, under an X server of its own (with_xvfb.sh): the real start-up, the
// real controller and encoders, clicks on its widgets and screenshots of the screen.
#include "App/Language.h"
#include "App/MainWindow.h"
#include "App/PlaceTile.h"
#include "App/PlaceTiles.h"
#include "App/Preview.h"
#include "App/QtEventLoop.h"
#include "App/SettingsMigration.h"
#include "App/SoundMeterWidget.h"
#include "App/SourcesList.h"
#include "App/Startup.h"
#include "App/Updates.h"

#include "core/control/RecorderController.h"
#include "platform/SettingsStore.h"
#include "remote/RecorderNetwork.h"
#include "sources/ToneGenerator.h"
#include "tests/app/QtTesting.h"
#include "tests/core/MovieReading.h"
#include "tests/sources/SourceTesting.h"
#include "tests/updater/ReleaseTesting.h"
#include "updater/QuorvaUpdater.h"

#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenuBar>
#include <QMimeData>
#include <QPushButton>
#include <QRegularExpression>
#include <QScreen>
#include <QScrollBar>
#include <QTest>
#include <QTextBrowser>
#include <QToolButton>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>

namespace quorva {
namespace {

namespace fs = std::filesystem;

// Each test starts as a new user would: no settings, its own folders.
class WindowTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        testing::Application();
        static auto loop = std::make_shared<QtEventLoop>();
        EventLoop::setMainLoop(loop);
    }

    void SetUp() override {
        fs::create_directories(_home / "config");
        fs::create_directories(_home / "movies");
        setenv("XDG_CONFIG_HOME", (_home / "config").c_str(), 1);
        setenv("HOME", _home.c_str(), 1);
        auto started = StartRecorder("WindowTest: ");
        ASSERT_TRUE(started) << started.error().message();
        _recorder = std::move(started.value());
        UpdaterConfiguration updates = ThisProgramsUpdates();
        updates.environment["QUORVA_UPDATE_URL"] = _releases.url("/manifest.json");
        _updater =
            std::make_shared<QuorvaUpdater>(updates, *_recorder.defaults, *EventLoop::mainLoop(), [] {});
        _window = std::make_unique<MainWindow>(_recorder.controller, _recorder.network, _recorder.defaults,
                                               _updater);
        _window->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(_window.get()));
    }

    // (The members go in the reverse of their order: the window first, the folders last.)
    void TearDown() override { Language::use("en"); }

    template <class Widget>
    Widget* find(const char* name) {
        auto* widget = _window->findChild<Widget*>(name);
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }

    bool waitFor(const std::function<bool()>& condition, int seconds) {
        for (int waited = 0; waited < seconds * 1000 && !condition(); waited += 20)
            QTest::qWait(20);
        return condition();
    }

    // The window at the size a crew's screen gives it, drawn, and active, as the keyboard needs it.
    void showLarge() {
        _window->resize(1600, 1000);
        QApplication::setActiveWindow(_window.get());
        QTest::qWait(300);
    }

    // The screen as the user sees it, saved as build/screenshots/NAME.png for people to look at.
    void screenshot(const char* name) {
        QTest::qWait(200); // drawn on the screen
        fs::create_directories(QUORVA_SCREENSHOTS);
        EXPECT_TRUE(
            grab().save(QString::fromStdString((fs::path(QUORVA_SCREENSHOTS) / name).string() + ".png")));
    }

    QImage grab() { return _window->screen()->grabWindow(_window->winId()).toImage(); }

    // Whether the screen shows about this colour in the monitor at a point of the assembled picture, as the
    // monitor fits it.
    bool monitorShows(const QImage& shot, Size picture, double x, double y, int red, int green, int blue) {
        const QWidget& monitor = *find<QWidget>("monitor");
        const PreviewExtent extent =
            FittedExtent(picture.width, picture.height, monitor.width(), monitor.height());
        const double shownWidth = extent.x * monitor.width(), shownHeight = extent.y * monitor.height();
        const QPoint corner = monitor.mapTo(_window.get(), QPoint(0, 0));
        const double left = corner.x() + (monitor.width() - shownWidth) / 2;
        const double top = corner.y() + (monitor.height() - shownHeight) / 2;
        const QColor colour = shot.pixelColor(int(left + x / picture.width * shownWidth),
                                              int(top + y / picture.height * shownHeight));
        return std::abs(colour.red() - red) <= 16 && std::abs(colour.green() - green) <= 16 &&
               std::abs(colour.blue() - blue) <= 16;
    }

    // The entry that reads `text` in a menu of the menu bar (the first or the last), or nothing.
    QAction* menuEntry(bool last, const QString& text) {
        const QList<QAction*> menus = _window->menuBar()->actions();
        for (QAction* action : (last ? menus.back() : menus.front())->menu()->actions())
            if (action->text() == text)
                return action;
        return nullptr;
    }

    PlaceTiles* tiles() { return find<PlaceTiles>("places"); }

    std::vector<std::string> tileTitles() {
        std::vector<std::string> titles;
        for (const PlaceTile* tile : tiles()->tiles())
            titles.push_back(tile->place()->title());
        return titles;
    }

    // Drops `data` of the MIME type `type` onto the first tile's corner, as a drag from the window would.
    void dropOnFirstTile(const char* type, const QByteArray& data) {
        QMimeData dragged;
        dragged.setData(type, data);
        PlaceTiles* row = tiles();
        const QPoint at =
            row->widget()->mapTo(row->viewport(), row->tiles().front()->geometry().topLeft() + QPoint(4, 4));
        QDragEnterEvent enter(at, Qt::CopyAction | Qt::MoveAction, &dragged, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(row->viewport(), &enter);
        ASSERT_TRUE(enter.isAccepted());
        QDropEvent drop(at, Qt::CopyAction | Qt::MoveAction, &dragged, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(row->viewport(), &drop);
        QCoreApplication::processEvents();
    }

    std::vector<std::string> placeTitles() {
        std::vector<std::string> titles;
        for (const auto& place : _recorder.controller->places())
            titles.push_back(place->title());
        return titles;
    }

    const testing::TemporaryFolder _home;
    testing::ReleaseServer _releases;
    RunningRecorder _recorder;
    std::shared_ptr<QuorvaUpdater> _updater;
    std::unique_ptr<MainWindow> _window;
};

// The value that `fraction` of `values` are below.
double Quantile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[size_t(fraction * double(values.size() - 1))];
}

TEST_F(WindowTest, AnEmptyWindowSaysWhatToDoAndShowsEachSourceWhole) {
    showLarge();
    auto* hint = find<QLabel>("monitorHint");
    EXPECT_TRUE(hint->isVisible());
    EXPECT_TRUE(hint->text().contains("double-click it in the list of sources"))
        << hint->text().toStdString();
    EXPECT_TRUE(tiles()->tiles().empty());
    EXPECT_TRUE(find<QLabel>("addPlaceHere")->isVisible());
    EXPECT_EQ(find<QLabel>("timecode")->text(), "--:--:--:--");
    EXPECT_TRUE(find<QLabel>("takeSummary")->text().contains("press Record"));

    // Every source whole, its kind and detail under its title, wrapped rather than cut or scrolled.
    auto* sources = find<SourcesList>("availableSources");
    ASSERT_GE(sources->count(), 3);
    EXPECT_FALSE(sources->horizontalScrollBar()->isVisible());
    QFont bold = sources->font();
    bold.setBold(true);
    for (int i = 0; i < sources->count(); ++i) {
        const QListWidgetItem& item = *sources->item(i);
        const QRect shown = sources->visualItemRect(&item);
        EXPECT_LE(shown.right(), sources->viewport()->width()) << item.text().toStdString();
        const QString detail = sources->kindAndDetail(item);
        if (item.text().startsWith("Test Pattern")) {
            EXPECT_TRUE(detail.startsWith("Test pattern · ") && detail.contains(" × "))
                << detail.toStdString();
        }
        const QRect wrap(0, 0, shown.width() - 10, 10000);
        const int needed =
            QFontMetrics(bold).boundingRect(wrap, Qt::TextWordWrap, item.text()).height() +
            QFontMetrics(sources->font()).boundingRect(wrap, Qt::TextWordWrap, detail).height();
        EXPECT_GE(shown.height(), needed) << item.text().toStdString();
    }
    screenshot("window-idle");
}

TEST_F(WindowTest, ATakeOfThreePatternsShowsLiveTilesTheirSoundAndTheTakeThenTheTilesReorder) {
    showLarge();
    auto* folder = find<QLineEdit>("folder");
    folder->setFocus();
    folder->selectAll();
    QTest::keyClicks(folder, QString::fromStdString((_home / "movies").string()));
    QTest::keyClick(folder, Qt::Key_Return);
    EXPECT_EQ(_recorder.controller->folder(), (_home / "movies").string());
    QTest::mouseClick(find<QToolButton>("layout-row"), Qt::LeftButton);
    EXPECT_EQ(_recorder.controller->layout(), "row");
    // No take has a report yet; the status bar gives the disk's room as the settings would fill it.
    QAction* reportAction = find<QAction>("openReport");
    EXPECT_FALSE(reportAction->isEnabled());
    EXPECT_TRUE(find<QLabel>("disk")->text().endsWith(" min of disk"))
        << find<QLabel>("disk")->text().toStdString();
    auto* sources = find<SourcesList>("availableSources");
    auto item = [&](const char* title) {
        const auto items = sources->findItems(title, Qt::MatchExactly);
        EXPECT_EQ(items.size(), 1) << title;
        return items.value(0);
    };
    // A double-click adds a source; one dragged onto the tiles goes where it is dropped; the button adds
    // the selected one.
    QListWidgetItem* first = item("Test Pattern 720p30");
    ASSERT_TRUE(first);
    // (A double-click comes after the press of its first click.)
    QTest::mouseClick(sources->viewport(), Qt::LeftButton, {}, sources->visualItemRect(first).center());
    QTest::mouseDClick(sources->viewport(), Qt::LeftButton, {}, sources->visualItemRect(first).center());
    ASSERT_EQ(placeTitles(), std::vector<std::string>{"Test Pattern 720p30"});
    dropOnFirstTile(PlaceTiles::SourceMimeType, "Test Pattern 1080p60");
    sources->setCurrentItem(item("Test Pattern Alpha 1080p30"));
    QTest::mouseClick(find<QPushButton>("addSource"), Qt::LeftButton);
    const std::vector<std::string> three = {"Test Pattern 1080p60", "Test Pattern 720p30",
                                            "Test Pattern Alpha 1080p30"};
    ASSERT_EQ(placeTitles(), three);
    EXPECT_EQ(tileTitles(), three);
    // Each tile live, with its sound, before anything records.
    ASSERT_TRUE(waitFor(
        [&] {
            return std::all_of(tiles()->tiles().begin(), tiles()->tiles().end(), [](const PlaceTile* tile) {
                return tile->state() == PlaceTile::State::Live && tile->hasMeter();
            });
        },
        20));

    // Space records.
    tiles()->setFocus();
    QTest::keyClick(tiles(), Qt::Key_Space);
    ASSERT_EQ(_recorder.controller->state(), RecorderState::Recording) << _recorder.controller->error();
    QCoreApplication::processEvents();
    auto* record = find<QPushButton>("record");
    EXPECT_EQ(record->text(), "Stop");
    const QColor button = record->grab().toImage().pixelColor(10, record->height() / 2);
    EXPECT_TRUE(button.red() > 160 && button.green() < 90 && button.blue() < 90)
        << "the record button is red while recording, not " << button.name().toStdString();
    auto* timecode = find<QLabel>("timecode");
    const QRegularExpression timecodes("^\\d\\d:\\d\\d:\\d\\d[:;]\\d\\d$");
    ASSERT_TRUE(waitFor([&] { return timecodes.match(timecode->text()).hasMatch(); }, 5))
        << timecode->text().toStdString();
    const QString began = timecode->text();
    // The three patterns in the monitor where the row puts them: grey at the left of each top row of bars,
    // blue at its right.
    const Layout layout = _recorder.controller->assembledLayout();
    ASSERT_EQ(layout.frames().size(), 3u);
    auto allShown = [&] {
        const QImage shot = grab();
        return std::all_of(layout.frames().begin(), layout.frames().end(), [&](const Rect& frame) {
            const double y = frame.y + frame.height / 10;
            return monitorShows(shot, layout.size(), frame.x + frame.width / 14, y, 191, 191, 191) &&
                   monitorShows(shot, layout.size(), frame.x + frame.width * 13 / 14, y, 0, 0, 191);
        });
    };
    EXPECT_TRUE(waitFor(allShown, 10));

    // Every meter reads the patterns' tone at the level it plays, peak and RMS alike, and moves with its
    // click once a second. (The peak is read between clicks: on a busy machine the patterns' blocks of
    // sound grow, and more of the readings hold a click.)
    const double tone = 20 * std::log10(double(ToneGenerator::Amplitude));
    std::vector<std::vector<double>> peaks(3), levels(3);
    for (int tick = 0; tick < 60; ++tick) {
        QTest::qWait(50);
        for (size_t i = 0; i < 3; ++i) {
            const SoundMeterWidget& meter = tiles()->tiles()[i]->meter();
            for (size_t channel = 0; channel < 2; ++channel) {
                peaks[i].push_back(meter.peak(channel));
                levels[i].push_back(meter.rms(channel));
            }
        }
    }
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(three[i]);
        EXPECT_NEAR(Quantile(peaks[i], 0.1), tone, 1);
        EXPECT_NEAR(Quantile(levels[i], 0.5), tone, 1);
        EXPECT_GT(*std::max_element(peaks[i].begin(), peaks[i].end()), tone + 6) << "the click";
        const PlaceTile& tile = *tiles()->tiles()[i];
        EXPECT_TRUE(tile.meter().isVisible());
        EXPECT_NE(tile.state(), PlaceTile::State::NoSignal);
        EXPECT_TRUE(tile.findChild<QLabel*>("tileDropped")->text().endsWith(" dropped"));
    }
    EXPECT_NE(timecode->text(), began) << "the timecode runs";
    EXPECT_TRUE(QRegularExpression("^0:00:\\d\\d$").match(find<QLabel>("elapsed")->text()).hasMatch())
        << find<QLabel>("elapsed")->text().toStdString();
    screenshot("window-take");

    QTest::mouseClick(record, Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return _recorder.controller->state() == RecorderState::Idle; }, 120));
    EXPECT_EQ(_recorder.controller->recordingError(), "");
    EXPECT_TRUE(reportAction->isEnabled()) << "the take's report can be opened";
    EXPECT_TRUE(find<QLabel>("takeSummary")->text().startsWith("Last take “"))
        << find<QLabel>("takeSummary")->text().toStdString();
    EXPECT_TRUE(timecodes.match(timecode->text()).hasMatch()) << "where the take's timecode began";
    auto* report = find<QPushButton>("openReportButton");
    ASSERT_TRUE(report->isVisible());
    screenshot("window-after-take");
    QTextBrowser opened;
    QDesktopServices::setUrlHandler("file", &opened, "setSource");
    QTest::mouseClick(report, Qt::LeftButton);
    QDesktopServices::unsetUrlHandler("file");
    EXPECT_EQ(opened.source().toLocalFile().toStdString(), _recorder.controller->lastReport());

    // Once idle, the tiles are reordered by dragging: the third tile dragged before the first.
    dropOnFirstTile(PlaceTile::MimeType, "2");
    const std::vector<std::string> moved = {"Test Pattern Alpha 1080p30", "Test Pattern 1080p60",
                                            "Test Pattern 720p30"};
    EXPECT_EQ(placeTitles(), moved);
    EXPECT_EQ(tileTitles(), moved);

    // Delete in a field edits the field; on the tiles it removes the selected place.
    auto* name = find<QLineEdit>("name");
    name->setFocus();
    QTest::keyClick(name, Qt::Key_Delete);
    EXPECT_EQ(placeTitles().size(), 3u);
    PlaceTile* middle = tiles()->tiles()[1];
    QTest::mouseClick(middle, Qt::LeftButton, {}, QPoint(middle->width() / 2, 8));
    EXPECT_TRUE(middle->isSelected());
    QTest::keyClick(middle, Qt::Key_Delete);
    QCoreApplication::processEvents();
    EXPECT_EQ(placeTitles(), (std::vector<std::string>{"Test Pattern Alpha 1080p30", "Test Pattern 720p30"}));
    EXPECT_EQ(tileTitles(), placeTitles());
}

// Run inside a PipeWire session of its own (with_pipewire.sh, as CTest runs it).
TEST_F(WindowTest, APublisherThatStopsMidTakeTurnsItsTileToNoSignalAndBack) {
    if (!std::getenv("PIPEWIRE_RUNTIME_DIR"))
        GTEST_SKIP() << "no PipeWire session: run it through tests/sources/with_pipewire.sh";
    showLarge();
    _recorder.controller->setFolder((_home / "movies").string());
    const std::string title = "StageCam - Mixer";
    auto offered = [&] {
        return std::ranges::any_of(_recorder.controller->availableSources(),
                                   [&](const SourceDescription& source) { return source.title() == title; });
    };
    auto camera = std::make_unique<testing::Publisher>("StageCam", "BGRx");
    ASSERT_TRUE(waitFor([&] { return offered() && camera->waiting(); }, 20));
    ASSERT_TRUE(_recorder.controller->addSourceMatching(title));
    QCoreApplication::processEvents();
    ASSERT_EQ(tiles()->tiles().size(), 1u);
    const PlaceTile& tile = *tiles()->tiles().front();
    ASSERT_TRUE(waitFor([&] { return tile.state() == PlaceTile::State::Live; }, 20));
    EXPECT_EQ(tile.findChild<QLabel*>("tileState")->text(), "● Live");
    EXPECT_EQ(tile.findChild<QLabel*>("tileFormat")->text().left(7), "96 × 64");

    QTest::mouseClick(find<QPushButton>("record"), Qt::LeftButton);
    ASSERT_EQ(_recorder.controller->state(), RecorderState::Recording) << _recorder.controller->error();
    ASSERT_TRUE(waitFor([&] { return _recorder.controller->elapsed() >= 1; }, 10));
    camera.reset();
    ASSERT_TRUE(waitFor([&] { return tile.state() == PlaceTile::State::NoSignal; }, 10));
    EXPECT_EQ(tile.findChild<QLabel*>("tileState")->text(), "● No signal");
    screenshot("window-no-signal");

    // A fresh publisher of the same name: GStreamer's pipewiresink sends nothing to a stream linked
    // again to one that left.
    camera = std::make_unique<testing::Publisher>("StageCam", "BGRx");
    ASSERT_TRUE(waitFor([&] { return tile.state() == PlaceTile::State::Live; }, 30));
    EXPECT_EQ(_recorder.controller->state(), RecorderState::Recording) << "the take went on";
    QTest::mouseClick(find<QPushButton>("record"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return _recorder.controller->state() == RecorderState::Idle; }, 60));
    EXPECT_GT(_recorder.controller->moviesOfTheTake().front()->framesWritten(), 0u);
}

// The clip light stays lit for two seconds after the sound clipped; without sound the meter empties.
TEST(SoundMeter, AClipStaysLitTwoSecondsAndSilenceEmptiesTheMeter) {
    testing::Application();
    SoundMeterWidget meter;
    SoundLevels::Reading clipped;
    clipped.frames = {480, 480};
    clipped.peak = {1, 0.5f};
    clipped.meanSquare = {0.5, 0.125};
    clipped.lastClip = clipped.lastSound = 10;
    meter.showReading(clipped, 10);
    EXPECT_TRUE(meter.clipLit());
    EXPECT_NEAR(meter.peak(0), 0, 0.01);
    EXPECT_NEAR(meter.rms(1), 20 * std::log10(0.5), 0.01);
    SoundLevels::Reading nothing;
    nothing.lastClip = nothing.lastSound = 10;
    for (double now : {10.5, 11.0, 11.5, 11.9})
        meter.showReading(nothing, now);
    EXPECT_TRUE(meter.clipLit());
    meter.showReading(nothing, 12.1);
    EXPECT_FALSE(meter.clipLit());
    EXPECT_LT(meter.peak(0), SoundMeterWidget::Bottom) << "the peak is gone two seconds after the sound";
    EXPECT_LT(meter.rms(0), -24) << "the RMS level falls as its average over 300 ms does";
}

TEST_F(WindowTest, ChecksForUpdatesFromItsMenuAndSpeaksFrenchWhenChosen) {
    _releases.answer("/manifest.json", 200,
                     R"({"version": "9.0", "notes_en": "Faster.", "notes_fr": "Plus rapide.",
                         "download_url": "https://example.invalid/q.zip"})");
    QAction* check = menuEntry(true, "Check for Updates…");
    QAction* automatic = menuEntry(true, "Auto-check updates");
    ASSERT_TRUE(check && automatic);
    EXPECT_TRUE(automatic->isChecked()) << "on for a new user";
    automatic->trigger();
    EXPECT_FALSE(_updater->autoCheckOnLaunch());

    check->trigger();
    QWidget* sheet = nullptr;
    ASSERT_TRUE(waitFor(
        [&] {
            sheet = _window->findChild<QWidget*>("updateSheet");
            return sheet && sheet->isVisible() &&
                   sheet->findChild<QLabel*>("updateHeadline")->text() == "New version available: v9.0";
        },
        20));
    // The tests' program runs from its build folder, which it must never replace.
    EXPECT_TRUE(sheet->findChild<QLabel*>("updateDetail")
                    ->text()
                    .startsWith("Faster.\n\nThis copy of QuorvaRecorder"));
    auto* install = sheet->findChild<QPushButton*>("installUpdate");
    EXPECT_TRUE(install->isVisible());
    EXPECT_FALSE(install->isEnabled());

    // French, chosen while the sheet is open: the sheet and the window follow, and the choice is kept.
    auto* record = find<QPushButton>("record");
    EXPECT_EQ(record->text(), "Record");
    Language::choose("fr", *_recorder.defaults);
    QCoreApplication::processEvents();
    EXPECT_EQ(sheet->findChild<QLabel*>("updateHeadline")->text(), "Nouvelle version disponible : v9.0");
    EXPECT_TRUE(sheet->findChild<QLabel*>("updateDetail")->text().startsWith("Plus rapide."));
    sheet->close();
    QCoreApplication::processEvents();
    EXPECT_FALSE(_updater->isUpdateSheetPresented());
    EXPECT_EQ(record->text(), "Enregistrer");
    EXPECT_EQ(_window->menuBar()->actions().front()->text(), "&Fichier");
    EXPECT_TRUE(find<QLabel>("addPlaceHere")->text().startsWith("Ajoutez une source"));
    screenshot("window-idle-fr");
    auto* sources = find<SourcesList>("availableSources");
    EXPECT_TRUE(sources->kindAndDetail(*sources->findItems("Test Pattern 720p30", Qt::MatchExactly).value(0))
                    .startsWith("Mire · "));
    ASSERT_TRUE(_recorder.defaults->flush());
    EXPECT_EQ(Language::chosen(SettingsStore(ApplicationIdentifier, _home / "config")), "fr");
    Language::choose("en", *_recorder.defaults);
    QCoreApplication::processEvents();
    EXPECT_EQ(record->text(), "Record");
}

// The HTTP status that the recorder's OSCQuery server gives curl, sent from `from`.
std::string StatusFrom(const char* from, int64_t port) {
    return testing::Shell(std::string("curl -s -o /dev/null -w '%{http_code}' --interface ") + from +
                          " http://127.0.0.1:" + std::to_string(port) + "/");
}

TEST_F(WindowTest, NetworkAccessIsCheckedSavedAndServedAtOnce) {
    ASSERT_EQ(StatusFrom("127.0.0.1", _recorder.network->oscQueryPort()), "200");
    QAction* access = menuEntry(false, "&Network Access…");
    ASSERT_TRUE(access);
    const auto open = [&] {
        access->trigger();
        auto* dialog = find<QDialog>("networkAccess");
        EXPECT_TRUE(dialog && QTest::qWaitForWindowExposed(dialog));
        return dialog;
    };

    QDialog* dialog = open();
    ASSERT_TRUE(dialog);
    // The problem the dialog shows once OK is pressed with these hosts and this address.
    const auto submit = [&](const char* allowed, const char* bind) {
        dialog->findChild<QLineEdit*>("allowedNetworks")->setText(allowed);
        dialog->findChild<QLineEdit*>("bindAddress")->setText(bind);
        dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
        return dialog->findChild<QLabel*>("networkProblem")->text();
    };
    EXPECT_EQ(submit("127.0.0.2, 10.0.0.0/33", ""),
              "“10.0.0.0/33” is not an address or a network (address/prefix)");
    EXPECT_EQ(submit("127.0.0.2", "192.0.2.1"), "“192.0.2.1” is not an address of this machine");
    EXPECT_TRUE(_recorder.network->access().allowed.allowsEveryone()) << "nothing applied while refused";
    submit("127.0.0.2", "127.0.0.1");
    QCoreApplication::processEvents();
    const int64_t port = _recorder.network->oscQueryPort();
    ASSERT_GT(port, 0) << "the network restarted";
    EXPECT_EQ(StatusFrom("127.0.0.1", port), "403");

    // The next start serves the same hosts, and the dialog shows them.
    ASSERT_TRUE(_recorder.defaults->flush());
    const NetworkAccess saved =
        SavedNetworkAccess(SettingsStore(ApplicationIdentifier, _home / "config"), "");
    EXPECT_EQ(saved.allowed.description(), "127.0.0.2");
    EXPECT_EQ(saved.bindAddress, "127.0.0.1");
    dialog = open();
    ASSERT_TRUE(dialog);
    EXPECT_EQ(dialog->findChild<QLineEdit*>("allowedNetworks")->text(), "127.0.0.2");
    dialog->reject();
}

// A user of the earlier companion application finds the settings they chose there, once.
TEST(SettingsMigration, CopiesTheSharedSettingsThatAreMissingOnce) {
    const testing::TemporaryFolder folder;
    // What the earlier application saved.
    SettingsStore earlier(SettingsMigration::EarlierIdentifier, folder);
    ASSERT_TRUE(earlier.setString("prores422", "RecorderCodec"));
    ASSERT_TRUE(earlier.setInteger(1280, "RecorderWidth"));
    ASSERT_TRUE(earlier.setString("/shows", "RecorderFolder"));
    ASSERT_TRUE(earlier.setString("assembled", "RecorderOutput"));
    ASSERT_TRUE(earlier.flush());
    SettingsStore store(ApplicationIdentifier, folder);
    ASSERT_TRUE(store.setString("hevc", "RecorderCodec"));
    SettingsMigration::migrate(SettingsMigration::EarlierIdentifier, ApplicationIdentifier, store);
    EXPECT_EQ(store.stringForKey("RecorderCodec"), "hevc"); // its own value stays
    EXPECT_EQ(store.integerForKey("RecorderWidth"), 1280);
    EXPECT_EQ(store.stringForKey("RecorderFolder"), "/shows");
    EXPECT_EQ(store.objectForKey("RecorderOutput"), std::nullopt); // never brought over

    // Once marked, nothing more comes over, even what is missing.
    ASSERT_TRUE(store.removeObjectForKey("RecorderWidth"));
    SettingsMigration::migrate(SettingsMigration::EarlierIdentifier, ApplicationIdentifier, store);
    EXPECT_EQ(store.objectForKey("RecorderWidth"), std::nullopt);
}

} // namespace
} // namespace quorva
