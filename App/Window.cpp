#include "App/Window.h"
#include "App/CommandLine.h"
#include "App/Language.h"
#include "App/MainWindow.h"
#include "App/QtEventLoop.h"
#include "App/Startup.h"
#include "App/Updates.h"
#include "updater/QuorvaUpdater.h"

#include "core/control/RecorderController.h"
#include "remote/RecorderNetwork.h"

#include <QApplication>
#include <QMessageBox>
#include <QPointer>

#include <xcb/xcb.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>

namespace quorva {

namespace {

// Whether Qt will find somewhere to show the window: a Wayland compositor's socket, an X server that
// answers, or a platform chosen by hand that needs neither. Qt itself would abort without one.
bool HasDisplay() {
    const std::string_view platform = std::getenv("QT_QPA_PLATFORM") ? std::getenv("QT_QPA_PLATFORM") : "";
    if (!platform.empty() && !platform.starts_with("xcb") && !platform.starts_with("wayland"))
        return true;
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (wayland && *wayland && !platform.starts_with("xcb")) {
        std::error_code error;
        if (std::filesystem::exists(std::filesystem::path(runtime ? runtime : "") / wayland, error) ||
            std::filesystem::exists(wayland, error))
            return true;
    }
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display)
        return false;
    xcb_connection_t* connection = xcb_connect(display, nullptr);
    const bool answered = xcb_connection_has_error(connection) == 0;
    xcb_disconnect(connection);
    return answered;
}

} // namespace

int RunWindow(int argc, char** argv) {
    if (!HasDisplay()) {
        std::fputs("quorvarecorder: there is no display to open the window on; record without one with "
                   "'quorvarecorder --headless' or the commands of 'quorvarecorder --help'\n",
                   stderr);
        return ExitUsage;
    }
    const sigset_t terminationSignals = BlockTerminationSignals();
    QApplication application(argc, argv);
    QApplication::setApplicationName("QuorvaRecorder");
    QApplication::setDesktopFileName("org.quorva.QuorvaRecorder");
    auto loop = std::make_shared<QtEventLoop>();
    EventLoop::setMainLoop(loop);
    auto recorder = StartRecorder("QuorvaRecorder: ");
    if (!recorder) {
        std::fprintf(stderr, "%s\n", recorder.error().message().c_str());
        QMessageBox::critical(nullptr, "QuorvaRecorder", QString::fromStdString(recorder.error().message()));
        EventLoop::setMainLoop(nullptr);
        return ExitFailure;
    }
    RunningRecorder running = std::move(recorder.value());
    Language::use(Language::chosen(*running.defaults));
    {
        QPointer<MainWindow> shown;
        // An install quits the program as the user would, finishing a take first, so that the
        // replacement can begin.
        auto updater =
            std::make_shared<QuorvaUpdater>(ThisProgramsUpdates(), *running.defaults, *loop, [&shown] {
                if (shown)
                    shown->close();
            });
        MainWindow window(running.controller, running.network, running.defaults, updater);
        shown = &window;
        window.show();
        if (const double now = SecondsSince1970();
            updater->service().shouldAutoCheck(now, updater->service().isRunningTestsOrHeadless()))
            updater->checkForUpdates(true, now);
        WatchTerminationSignals(terminationSignals, [shown] {
            if (shown)
                shown->close();
        });
        loop->run();
    }
    running.network.reset();
    running.controller.reset();
    EventLoop::setMainLoop(nullptr);
    return ExitSuccess;
}

} // namespace quorva
