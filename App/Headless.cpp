#include "App/Headless.h"
#include "App/CommandLine.h"
#include "App/Startup.h"

#include "core/control/RecorderController.h"
#include "platform/HeadlessEventLoop.h"
#include "remote/RecorderNetwork.h"

#include "platform/Log.h"
#include "platform/UserFolders.h"

#include <cstdio>
#include <filesystem>

namespace quorva {

int RunHeadless(const std::vector<std::string>& arguments) {
    std::filesystem::path folderRoot;
    // Given on the command line, --allow and --bind replace what the window saved.
    std::optional<NetworkAccess> access;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& option = arguments[i];
        const bool hasValue = i + 1 < arguments.size();
        const std::string value = hasValue ? arguments[i + 1] : "";
        const std::string given = hasValue ? ", not '" + value + "'" : "";
        if (option == "--allow") {
            if (!access)
                access.emplace();
            if (!hasValue || !access->allowed.add(value)) {
                std::fprintf(
                    stderr,
                    "quorvarecorder: --allow needs an address or a network (address/prefix), IPv4 or "
                    "IPv6%s\n",
                    given.c_str());
                return ExitUsage;
            }
        } else if (option == "--bind") {
            if (!hasValue || !IsAddressOfThisMachine(value)) {
                std::fprintf(stderr, "quorvarecorder: --bind needs an address of this machine%s\n",
                             given.c_str());
                return ExitUsage;
            }
            if (!access)
                access.emplace();
            access->bindAddress = value;
        } else if (option == "--folder-root") {
            std::error_code error;
            if (!hasValue || !std::filesystem::is_directory(ExpandTilde(value), error)) {
                std::fprintf(stderr, "quorvarecorder: --folder-root needs a folder that exists%s\n",
                             given.c_str());
                return ExitUsage;
            }
            folderRoot = std::filesystem::canonical(ExpandTilde(value), error);
        } else {
            std::fprintf(
                stderr,
                "quorvarecorder: --headless takes only --folder-root DIR, --allow NETWORK and --bind "
                "ADDRESS, not '%s'\n",
                option.c_str());
            return ExitUsage;
        }
        ++i;
    }
    const sigset_t terminationSignals = BlockTerminationSignals();
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    auto recorder = StartRecorder("Headless: ", access);
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
