// The window as a user drives it, under an X server of its own (with_xvfb.sh): the real start-up, the
// real controller and encoders, clicks on its widgets and screenshots of the screen.
#include "App/Language.h"
#include "App/MainWindow.h"
#include "App/Preview.h"
#include "App/QtEventLoop.h"
#include "App/SettingsMigration.h"
#include "App/Startup.h"
#include "App/Updates.h"

#include "core/control/RecorderController.h"
#include "platform/SettingsStore.h"
#include "remote/RecorderNetwork.h"
#include "tests/app/QtTesting.h"
#include "tests/core/MovieReading.h"
#include "tests/updater/ReleaseTesting.h"
#include "updater/QuorvaUpdater.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenuBar>
#include <QPushButton>
#include <QScreen>
#include <QTest>
#include <QToolButton>

#include <gtest/gtest.h>

#include <cstdio>
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

    void TearDown() override {
        _window.reset();
        _updater.reset();
        _recorder.network.reset();
        _recorder.controller.reset();
        Language::use("en");
        fs::remove_all(_home);
    }

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

    const fs::path _home = fs::path(::testing::TempDir()) / ("window-" + std::to_string(::getpid()));
    testing::ReleaseServer _releases;
    RunningRecorder _recorder;
    std::shared_ptr<QuorvaUpdater> _updater;
    std::unique_ptr<MainWindow> _window;
};

// The screenshot's pixel in the monitor at a point of the assembled picture, as the monitor fits it.
QColor MonitorPixel(const QImage& shot, const QWidget& monitor, const QWidget& window, Size picture, double x,
                    double y) {
    const PreviewExtent extent =
        FittedExtent(picture.width, picture.height, monitor.width(), monitor.height());
    const double shownWidth = extent.x * monitor.width(), shownHeight = extent.y * monitor.height();
    const QPoint corner = monitor.mapTo(&window, QPoint(0, 0));
    const double left = corner.x() + (monitor.width() - shownWidth) / 2;
    const double top = corner.y() + (monitor.height() - shownHeight) / 2;
    return shot.pixelColor(int(left + x / picture.width * shownWidth),
                           int(top + y / picture.height * shownHeight));
}

bool Near(const QColor& colour, int red, int green, int blue) {
    return std::abs(colour.red() - red) <= 16 && std::abs(colour.green() - green) <= 16 &&
           std::abs(colour.blue() - blue) <= 16;
}

TEST_F(WindowTest, RecordsTwoTestPatternsWithTheRecordButtonAndShowsThemSideBySide) {
    auto* available = find<QListWidget>("availableSources");
    for (const char* title : {"Test Pattern 720p30", "Test Pattern Alpha 1080p30"}) {
        const auto items = available->findItems(title, Qt::MatchStartsWith);
        ASSERT_EQ(items.size(), 1) << title;
        available->setCurrentItem(items.front());
        QTest::mouseClick(find<QPushButton>("addSource"), Qt::LeftButton);
    }
    EXPECT_EQ(find<QListWidget>("places")->count(), 2);
    auto* folder = find<QLineEdit>("folder");
    folder->setFocus();
    folder->selectAll();
    QTest::keyClicks(folder, QString::fromStdString((_home / "movies").string()));
    QTest::keyClick(folder, Qt::Key_Return);
    EXPECT_EQ(_recorder.controller->folder(), (_home / "movies").string());
    QTest::mouseClick(find<QToolButton>("layout-row"), Qt::LeftButton);
    EXPECT_EQ(_recorder.controller->layout(), "row");

    // No take has a report yet; the status bar gives the disk's room as the settings would fill it.
    auto* report = find<QAction>("openReport");
    EXPECT_FALSE(report->isEnabled());
    EXPECT_TRUE(find<QLabel>("disk")->text().endsWith(" min of disk"))
        << find<QLabel>("disk")->text().toStdString();

    auto* record = find<QPushButton>("record");
    QTest::mouseClick(record, Qt::LeftButton);
    ASSERT_EQ(_recorder.controller->state(), RecorderState::Recording) << _recorder.controller->error();
    // Both patterns in the monitor where the row puts them: grey at the left of each top row of bars,
    // blue at its right.
    const Layout layout = _recorder.controller->assembledLayout();
    ASSERT_EQ(layout.frames().size(), 2u);
    auto* monitor = find<QWidget>("monitor");
    auto bothShown = [&] {
        const QImage shot = _window->screen()->grabWindow(_window->winId()).toImage();
        for (const Rect& frame : layout.frames()) {
            const double y = frame.y + frame.height / 10;
            if (!Near(MonitorPixel(shot, *monitor, *_window, layout.size(), frame.x + frame.width / 14, y),
                      191, 191, 191) ||
                !Near(
                    MonitorPixel(shot, *monitor, *_window, layout.size(), frame.x + frame.width * 13 / 14, y),
                    0, 0, 191))
                return false;
        }
        return true;
    };
    EXPECT_TRUE(waitFor(bothShown, 10));

    ASSERT_TRUE(waitFor([&] { return _recorder.controller->elapsed() >= 3; }, 30));
    QTest::mouseClick(record, Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return _recorder.controller->state() == RecorderState::Idle; }, 60));
    EXPECT_EQ(_recorder.controller->recordingError(), "");
    EXPECT_TRUE(report->isEnabled()) << "the take's report can be opened";
    EXPECT_TRUE(fs::exists(_recorder.controller->lastReport()));
    const auto movies = _recorder.controller->moviesOfTheTake();
    EXPECT_FALSE(movies.empty());
    for (const auto& movie : movies) {
        const testing::Movie read = testing::ReadMovie(movie->url());
        EXPECT_FALSE(read.times.empty()) << movie->url();
        EXPECT_NEAR(read.videoDuration, 3, 0.6) << movie->url();
    }
}

TEST_F(WindowTest, SpeaksFrenchWhenChosenAndRemembersIt) {
    auto* record = find<QPushButton>("record");
    EXPECT_EQ(record->text(), "Record");
    Language::choose("fr", *_recorder.defaults);
    QCoreApplication::processEvents();
    EXPECT_EQ(record->text(), "Enregistrer");
    EXPECT_EQ(_window->menuBar()->actions().front()->text(), "&Fichier");
    ASSERT_TRUE(_recorder.defaults->flush());
    EXPECT_EQ(Language::chosen(SettingsStore(ApplicationIdentifier, _home / "config")), "fr");
    Language::choose("en", *_recorder.defaults);
    QCoreApplication::processEvents();
    EXPECT_EQ(record->text(), "Record");
}

TEST_F(WindowTest, ChecksForUpdatesFromItsMenu) {
    _releases.answer("/manifest.json", 200,
                     R"({"version": "9.0", "notes_en": "Faster.", "notes_fr": "Plus rapide.",
                         "download_url": "https://example.invalid/q.zip"})");
    QAction* check = nullptr;
    QAction* automatic = nullptr;
    for (QAction* action : _window->menuBar()->actions().back()->menu()->actions()) {
        if (action->text() == "Check for Updates…")
            check = action;
        if (action->text() == "Auto-check updates")
            automatic = action;
    }
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

    Language::choose("fr", *_recorder.defaults);
    QCoreApplication::processEvents();
    EXPECT_EQ(sheet->findChild<QLabel*>("updateHeadline")->text(), "Nouvelle version disponible : v9.0");
    EXPECT_TRUE(sheet->findChild<QLabel*>("updateDetail")->text().startsWith("Plus rapide."));
    Language::choose("en", *_recorder.defaults);

    sheet->close();
    QCoreApplication::processEvents();
    EXPECT_FALSE(_updater->isUpdateSheetPresented());
}

// The HTTP status that the recorder's OSCQuery server gives curl, sent from `from`.
std::string StatusFrom(const char* from, int64_t port) {
    const std::string command = std::string("curl -s -o /dev/null -w '%{http_code}' --interface ") + from +
                                " http://127.0.0.1:" + std::to_string(port) + "/";
    std::string status;
    if (FILE* curl = ::popen(command.c_str(), "r")) {
        char buffer[16] = {};
        status = std::fgets(buffer, sizeof buffer, curl) ? buffer : "";
        ::pclose(curl);
    }
    return status;
}

TEST_F(WindowTest, NetworkAccessIsCheckedSavedAndServedAtOnce) {
    ASSERT_EQ(StatusFrom("127.0.0.1", _recorder.network->oscQueryPort()), "200");
    QAction* access = nullptr;
    for (QAction* action : _window->menuBar()->actions().front()->menu()->actions())
        access = action->text() == "&Network Access…" ? action : access;
    ASSERT_TRUE(access);
    const auto open = [&] {
        access->trigger();
        auto* dialog = find<QDialog>("networkAccess");
        EXPECT_TRUE(dialog && QTest::qWaitForWindowExposed(dialog));
        return dialog;
    };

    QDialog* dialog = open();
    ASSERT_TRUE(dialog);
    dialog->findChild<QLineEdit*>("allowedNetworks")->setText("127.0.0.2, 10.0.0.0/33");
    dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    EXPECT_EQ(dialog->findChild<QLabel*>("networkProblem")->text(),
              "“10.0.0.0/33” is not an address or a network (address/prefix)");
    dialog->findChild<QLineEdit*>("allowedNetworks")->setText("127.0.0.2");
    dialog->findChild<QLineEdit*>("bindAddress")->setText("192.0.2.1");
    dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    EXPECT_EQ(dialog->findChild<QLabel*>("networkProblem")->text(),
              "“192.0.2.1” is not an address of this machine");
    EXPECT_TRUE(_recorder.network->access().allowed.allowsEveryone()) << "nothing applied while refused";

    dialog->findChild<QLineEdit*>("bindAddress")->setText("127.0.0.1");
    dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    QCoreApplication::processEvents();
    const int64_t port = _recorder.network->oscQueryPort();
    ASSERT_GT(port, 0) << "the network restarted";
    EXPECT_EQ(StatusFrom("127.0.0.1", port), "403");
    EXPECT_EQ(StatusFrom("127.0.0.2", port), "200");

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
    const fs::path folder = fs::path(::testing::TempDir()) / ("migration-" + std::to_string(::getpid()));
    fs::remove_all(folder);
    {
        SettingsStore earlier(SettingsMigration::EarlierIdentifier, folder);
        ASSERT_TRUE(earlier.setString("prores422", "RecorderCodec"));
        ASSERT_TRUE(earlier.setInteger(1280, "RecorderWidth"));
        ASSERT_TRUE(earlier.setString("/shows", "RecorderFolder"));
        ASSERT_TRUE(earlier.setString("assembled", "RecorderOutput"));
        ASSERT_TRUE(earlier.flush());
    }
    {
        SettingsStore store(ApplicationIdentifier, folder);
        ASSERT_TRUE(store.setString("hevc", "RecorderCodec"));
        SettingsMigration::migrate(SettingsMigration::EarlierIdentifier, ApplicationIdentifier, store);
        EXPECT_EQ(store.stringForKey("RecorderCodec"), "hevc"); // its own value stays
        EXPECT_EQ(store.integerForKey("RecorderWidth"), 1280);
        EXPECT_EQ(store.stringForKey("RecorderFolder"), "/shows");
        EXPECT_EQ(store.objectForKey("RecorderOutput"), std::nullopt); // never brought over
        EXPECT_TRUE(store.boolForKey(SettingsMigration::MarkerKey));

        // Once marked, nothing more comes over, even what is missing.
        ASSERT_TRUE(store.removeObjectForKey("RecorderWidth"));
        SettingsMigration::migrate(SettingsMigration::EarlierIdentifier, ApplicationIdentifier, store);
        EXPECT_EQ(store.objectForKey("RecorderWidth"), std::nullopt);
    }
    fs::remove_all(folder);
}

} // namespace
} // namespace quorva
