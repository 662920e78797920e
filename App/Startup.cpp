#include "App/Startup.h"
#include "App/CommandLine.h"
#include "App/ReleaseIdentity.h"
#include "App/SettingsMigration.h"

#include "core/control/RecorderController.h"
#include "platform/EventLoop.h"
#include "platform/Log.h"
#include "platform/SettingsStore.h"
#include "remote/NetworkPorts.h"
#include "remote/RecorderNetwork.h"
#include "sources/ComputerSound.h"
#include "sources/NDILibrary.h"

#include <pthread.h>
#include <thread>

namespace quorva {

Result<RunningRecorder> StartRecorder(const char* logPrefix, std::optional<NetworkAccess> access) {
    auto engine = MakePictureEngine();
    if (!engine)
        return engine.error();
    RunningRecorder recorder;
    recorder.defaults = std::make_shared<SettingsStore>();
    SettingsMigration::migrate(SettingsMigration::EarlierIdentifier, ApplicationIdentifier,
                               *recorder.defaults);
    // The runtime is looked for here, before the directory and the controller that use it.
    NDILibrary::sharedLibrary();
    // How fast this machine encodes is measured once, beside the start-up rather than in a take's.
    auto encoderSpeed = EncoderSpeed::make(recorder.defaults);
    encoderSpeed->measureInBackground({Codec::H264, Codec::HEVC});
    recorder.controller =
        RecorderController::make(engine.value(), MakeSourceDirectory(), std::make_shared<ComputerSound>(),
                                 recorder.defaults, std::move(encoderSpeed));
    TellNdiAvailability(*recorder.controller);
    recorder.network = RecorderNetwork::make(recorder.controller, std::string(ThisRelease().version));
    recorder.network->setAccess(access ? std::move(*access)
                                       : SavedNetworkAccess(*recorder.defaults, logPrefix));
    StartNetwork(recorder, logPrefix);
    return recorder;
}

void StartNetwork(const RunningRecorder& recorder, const char* logPrefix) {
    if (!recorder.network->startNetworkWithOSCPort(
            PortFromEnvironment(OSCPortVariable, DefaultOSCPort),
            PortFromEnvironment(OSCQueryPortVariable, DefaultOSCQueryPort), "QuorvaRecorder"))
        Log(logPrefix, recorder.controller->error());
}

NetworkAccess SavedNetworkAccess(const SettingsStore& settings, const char* logPrefix) {
    NetworkAccess access;
    for (const std::string& network :
         settings.stringArrayForKey(AllowedNetworksKey).value_or(std::vector<std::string>{})) {
        if (!access.allowed.add(network))
            Log(logPrefix, "the saved network “" + network + "” is not an address or a network: left out");
    }
    const std::string bind = settings.stringForKey(BindAddressKey).value_or("");
    if (!bind.empty() && !IsAddressOfThisMachine(bind))
        Log(logPrefix,
            "the saved address “" + bind + "” is not this machine's: listening on every interface");
    else
        access.bindAddress = bind;
    return access;
}

sigset_t BlockTerminationSignals() {
    sigset_t terminationSignals;
    sigemptyset(&terminationSignals);
    sigaddset(&terminationSignals, SIGTERM);
    sigaddset(&terminationSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &terminationSignals, nullptr);
    return terminationSignals;
}

void WatchTerminationSignals(sigset_t terminationSignals, std::function<void()> handler) {
    std::thread([terminationSignals, handler = std::move(handler)] {
        for (;;) {
            int signal = 0;
            if (::sigwait(&terminationSignals, &signal) != 0)
                return;
            EventLoop::postToMain(handler);
        }
    }).detach();
}

void QuitAfterTheTake(RecorderController& controller, std::function<void()> quit) {
    if (controller.state() == RecorderState::Idle) {
        quit();
        return;
    }
    Log("QuorvaRecorder: ", "finishing the recording before quitting");
    controller.stopWithCompletionHandler(std::move(quit));
}

} // namespace quorva
