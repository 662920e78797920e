#include "App/Headless.h"
#include "App/CommandLine.h"
#include "App/Startup.h"

#include "core/RecorderController.h"
#include "platform/HeadlessEventLoop.h"
#include "remote/RecorderNetwork.h"

#include <cstdio>

namespace quorva {

int RunHeadless(const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        std::fprintf(stderr, "quorvarecorder: --headless takes no arguments, not '%s'\n",
                     arguments[0].c_str());
        return ExitUsage;
    }
    const sigset_t terminationSignals = BlockTerminationSignals();
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    auto recorder = StartRecorder("Headless: ");
    if (!recorder) {
        std::fprintf(stderr, "%s\n", recorder.error().message().c_str());
        EventLoop::setMainLoop(nullptr);
        return ExitFailure;
    }
    std::weak_ptr<RecorderController> weak = recorder.value().controller;
    WatchTerminationSignals(terminationSignals, [weak] {
        auto controller = weak.lock();
        if (auto loop = EventLoop::mainLoop(); controller && loop)
            QuitAfterTheTake(*controller, [loop] { loop->stop(); });
    });

    loop->run();

    recorder.value().network.reset();
    recorder.value().controller.reset();
    EventLoop::setMainLoop(nullptr);
    return ExitSuccess;
}

} // namespace quorva
