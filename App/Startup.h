#pragma once

#include "platform/Error.h"
#include "remote/AllowedNetworks.h"

#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorva {

class RecorderController;
class RecorderNetwork;
class SettingsStore;

// The recorder as the window and the headless mode run it, made once at start-up.
struct RunningRecorder {
    std::shared_ptr<SettingsStore> defaults;
    std::shared_ptr<RecorderController> controller;
    std::shared_ptr<RecorderNetwork> network;
};

// Whom the network serves, as the window saves it: the networks that may drive the recorder (none: every
// host) and the address it listens on (empty: every interface).
inline constexpr const char* AllowedNetworksKey = "RemoteAllowedNetworks";
inline constexpr const char* BindAddressKey = "RemoteBindAddress";
// The saved access; an entry that is no longer an address or a network, or an address that is no longer
// this machine's, is logged with `logPrefix` and left out.
NetworkAccess SavedNetworkAccess(const SettingsStore& settings, const char* logPrefix);

// Makes the recorder in this order: the picture engine ("QuorvaRecorder needs Vulkan: …" without a
// device), the earlier companion application's settings brought over once, the NDI runtime and its log
// line, the directory of sources, the controller with the computer's sound, and the network (see
// StartNetwork), serving `access`, else the saved access. The main loop must be set.
Result<RunningRecorder> StartRecorder(const char* logPrefix, std::optional<NetworkAccess> access = {});

// (Re)starts the recorder's network on the ports that QUORVA_OSC_PORT and QUORVA_OSCQUERY_PORT name,
// with the access it was given. A network that cannot start is logged with `logPrefix` and left to the
// controller's error: the recorder still records.
void StartNetwork(const RunningRecorder& recorder, const char* logPrefix);

// SIGTERM and SIGINT, blocked in the calling thread and so in every thread made after it: call this
// before any other thread exists.
sigset_t BlockTerminationSignals();
// Waits for `terminationSignals` on a thread of its own and runs `handler` on the main loop for each: nothing
// of the recorder may run inside a signal handler.
void WatchTerminationSignals(sigset_t terminationSignals, std::function<void()> handler);

// Quitting never cuts a take short: `quit` runs at once when the recorder is idle, else once every
// movie is finished (a take that is already finishing is waited for the same way). On the main thread.
void QuitAfterTheTake(RecorderController& controller, std::function<void()> quit);

} // namespace quorva
