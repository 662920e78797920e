// How responsive the window stays while a take of two test patterns (1080p60 and 720p30, each in its own
// movie and assembled) starts, records for five seconds and finishes: the longest stall of its event loop
// in each phase, measured by a timer that asks to run every millisecond. Needs a display
// (`./quorva bench` runs it under Xvfb).
#include "App/MainWindow.h"
#include "App/QtEventLoop.h"
#include "App/Startup.h"
#include "App/Updates.h"
#include "updater/QuorvaUpdater.h"

#include "core/control/RecorderController.h"
#include "platform/MediaClock.h"
#include "remote/RecorderNetwork.h"

#include <QApplication>
#include <QPushButton>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

using namespace quorva;

namespace {

// The longest time between two ticks of a 1 ms timer, less the millisecond asked for.
struct StallMeter {
    double last = MediaClock::now();
    double longest = 0;
    int ticks = 0;
    void tick() {
        const double now = MediaClock::now();
        longest = std::max(longest, now - last - 0.001);
        last = now;
        ++ticks;
    }
    void restart() {
        last = MediaClock::now();
        longest = 0;
        ticks = 0;
    }
};

void RunFor(
    double seconds, const std::function<bool()>& done = [] { return false; }) {
    const double end = MediaClock::now() + seconds;
    while (MediaClock::now() < end && !done())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

} // namespace

int main(int argc, char** argv) {
    const auto home = std::filesystem::temp_directory_path() / ("window-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(home / "config");
    std::filesystem::create_directories(home / "movies");
    setenv("XDG_CONFIG_HOME", (home / "config").c_str(), 1);
    setenv("HOME", home.c_str(), 1);
    QApplication application(argc, argv);
    auto loop = std::make_shared<QtEventLoop>();
    EventLoop::setMainLoop(loop);
    auto started = StartRecorder("WindowBench: ");
    if (!started) {
        std::fprintf(stderr, "window_bench: %s\n", started.error().message().c_str());
        return 1;
    }
    RunningRecorder recorder = std::move(started.value());
    auto& controller = *recorder.controller;
    controller.addSourceMatching("Test Pattern 1080p60");
    controller.addSourceMatching("Test Pattern 720p30");
    controller.setOutput("both");
    controller.setFolder((home / "movies").string());
    {
        auto updater =
            std::make_shared<QuorvaUpdater>(ThisProgramsUpdates(), *recorder.defaults, *loop, [] {});
        MainWindow window(recorder.controller, recorder.network, recorder.defaults, updater);
        window.show();
        auto* record = window.findChild<QPushButton*>("record");
        StallMeter meter;
        QTimer timer;
        timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&timer, &QTimer::timeout, [&] { meter.tick(); });
        timer.start(1);
        RunFor(3); // the sources connect and the monitor starts

        std::printf("%-34s %18s %8s\n", "phase", "longest stall (ms)", "ticks");
        auto report = [&](const char* phase) {
            std::printf("%-34s %18.1f %8d\n", phase, meter.longest * 1000, meter.ticks);
            meter.restart();
        };
        RunFor(2);
        report("idle, monitor running");
        // The first take on a new machine also measures how fast it encodes, once; the second is every
        // later one.
        for (const char* take : {"first take", "second take"}) {
            std::printf("%s\n", take);
            record->click();
            RunFor(1);
            report("  start and the first second");
            RunFor(5);
            report("  recording, 5 s");
            record->click();
            RunFor(120, [&] { return controller.state() == RecorderState::Idle; });
            report("  stop until the movies are finished");
            std::printf("  %llu frames, %llu dropped, %s\n", (unsigned long long)controller.frames(),
                        (unsigned long long)controller.dropped(),
                        controller.recordingError().empty() ? "no error"
                                                            : controller.recordingError().c_str());
            // What each movie of the take holds against what it was due: the window must take nothing
            // from the take.
            for (const auto& movie : controller.moviesOfTheTake())
                std::printf("    %-28s %5llu written of %5llu due, %4llu held, %4llu dropped\n",
                            movie->sourceTitle().empty() ? "assembled" : movie->sourceTitle().c_str(),
                            (unsigned long long)movie->framesWritten(),
                            (unsigned long long)controller.framesDue(*movie),
                            (unsigned long long)movie->framesHeld(),
                            (unsigned long long)movie->framesDropped());
            RunFor(1);
            meter.restart();
        }
    }
    recorder.network.reset();
    recorder.controller.reset();
    EventLoop::setMainLoop(nullptr);
    std::filesystem::remove_all(home);
    return 0;
}
