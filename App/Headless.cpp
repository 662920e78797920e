#include "App/Headless.h"
#include "App/CommandLine.h"
#include "App/Version.h"

#include "core/RecorderController.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/Log.h"
#include "platform/SettingsStore.h"
#include "remote/NetworkPorts.h"
#include "remote/RecorderNetwork.h"
#include "sources/ComputerSound.h"

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <thread>

namespace quorva {

namespace {

// Waits for the termination signals on a thread of its own and turns each into a task on the main
// loop: nothing of the recorder may run inside a signal handler. The signals must be blocked in every
// thread, so before any other thread exists.
void WatchTerminationSignals(sigset_t signals, std::weak_ptr<RecorderController> weak) {
    std::thread([signals, weak] {
        for (;;) {
            int signal = 0;
            if (::sigwait(&signals, &signal) != 0)
                return;
            EventLoop::postToMain([weak] {
                auto loop = EventLoop::mainLoop();
                auto controller = weak.lock();
                if (!loop || !controller)
                    return;
                // Quitting never cuts a take short: the movies are finished first. A take that is
                // already finishing is waited for the same way.
                if (controller->state() == RecorderState::Idle) {
                    loop->stop();
                    return;
                }
                Log("Headless: ", "finishing the recording before quitting");
                controller->stopWithCompletionHandler([loop] { loop->stop(); });
            });
        }
    }).detach();
}

} // namespace

int RunHeadless(const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        std::fprintf(stderr, "quorvarecorder: --headless takes no arguments, not '%s'\n",
                     arguments[0].c_str());
        return ExitUsage;
    }
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    auto engine = MakePictureEngine();
    if (!engine) {
        std::fprintf(stderr, "%s\n", engine.error().message().c_str());
        EventLoop::setMainLoop(nullptr);
        return ExitFailure;
    }
    auto controller =
        RecorderController::make(engine.value(), MakeSourceDirectory(), std::make_shared<ComputerSound>(),
                                 std::make_shared<SettingsStore>());
    TellNdiAvailability(*controller);
    auto network = RecorderNetwork::make(controller, QUORVA_VERSION);
    // A network that cannot start leaves a recorder that nobody can reach; say why, and go on as the
    // window would, since the ports may be retried.
    if (!network->startNetworkWithOSCPort(PortFromEnvironment(OSCPortVariable, DefaultOSCPort),
                                          PortFromEnvironment(OSCQueryPortVariable, DefaultOSCQueryPort),
                                          "QuorvaRecorder"))
        Log("Headless: ", controller->error());
    WatchTerminationSignals(signals, controller);

    loop->run();

    network.reset();
    controller.reset();
    EventLoop::setMainLoop(nullptr);
    return ExitSuccess;
}

} // namespace quorva
