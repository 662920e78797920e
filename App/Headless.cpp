#include "App/Headless.h"
#include "App/CommandLine.h"
#include "App/Startup.h"

#include "core/RecorderController.h"
#include "platform/HeadlessEventLoop.h"
#include "remote/RecorderNetwork.h"

#include "platform/Log.h"
#include "platform/UserFolders.h"

#include <cstdio>
#include <filesystem>

namespace quorva {

int RunHeadless(const std::vector<std::string>& arguments) {
    std::filesystem::path folderRoot;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] != "--folder-root") {
            std::fprintf(stderr, "quorvarecorder: --headless takes only --folder-root DIR, not '%s'\n",
                         arguments[i].c_str());
            return ExitUsage;
        }
        std::error_code error;
        if (i + 1 == arguments.size() ||
            !std::filesystem::is_directory(ExpandTilde(arguments[i + 1]), error)) {
            std::fprintf(stderr, "quorvarecorder: --folder-root needs a folder that exists%s\n",
                         i + 1 == arguments.size() ? "" : (", not '" + arguments[i + 1] + "'").c_str());
            return ExitUsage;
        }
        folderRoot = std::filesystem::canonical(ExpandTilde(arguments[++i]), error);
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
    if (!folderRoot.empty()) {
        recorder.value().network->setFolderRoot(folderRoot);
        Log("Headless: ", "\"/folder\" from the network is kept within " + folderRoot.string());
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
