#pragma once

#include "platform/EventLoop.h"
#include "remote/AllowedNetworks.h"
#include "remote/OSCMessage.h"
#include "remote/RecorderParameter.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace quorva {

class OSCQueryServer;
class OSCReceiver;
class RecorderController;

// The controller's remote side: its parameter table, the OSC messages applied through it, and the
// network that serves it (the OSC receiver and the shared OSCQuery server with its announcement). It
// lives beside the controller rather than inside it so that recording control never depends on the
// network code; it holds the controller weakly and talks to it only through its public operations.
//
// Main thread only, like the controller.
class RecorderNetwork : public std::enable_shared_from_this<RecorderNetwork> {
    struct Private {};

public:
    // `version` is what "/status/version" reads.
    static std::shared_ptr<RecorderNetwork> make(const std::shared_ptr<RecorderController>& controller,
                                                 std::string version);
    RecorderNetwork(Private, const std::shared_ptr<RecorderController>& controller, std::string version);
    ~RecorderNetwork(); // stops the network
    RecorderNetwork(const RecorderNetwork&) = delete;
    RecorderNetwork& operator=(const RecorderNetwork&) = delete;

    const std::vector<RecorderParameter>& parameters() const { return _parameters; }
    const RecorderParameter* parameterForAddress(const std::string& address) const;

    // Applies one message. Every failure ends in the controller's error text, never in a reply: the
    // sender reads it back at "/status/error".
    void handleMessage(const OSCMessage& message);
    // Keeps "/folder" from the network within `root` (an absolute path without links), so that no host
    // may point the recorder at a folder outside it; empty: anywhere the recorder may write.
    void setFolderRoot(std::filesystem::path root) { _folderRoot = std::move(root); }
    // Publishes one parameter to the OSCQuery server, its range as it is now.
    void registerParameter(const RecorderParameter& parameter);

    // Where the network listens and whom it serves, from the next start: every host on every interface
    // unless told otherwise.
    void setAccess(NetworkAccess access) { _access = std::move(access); }
    const NetworkAccess& access() const { return _access; }

    // Listens for OSC on `oscPort` or one of the 15 after it, then serves OSCQuery on `queryPort` or one
    // of the 15 after it, announced as `name`. Answers true when both listen; a failure becomes the
    // controller's error, and the OSC receiver stays up when only OSCQuery failed.
    bool startNetworkWithOSCPort(int64_t oscPort, int64_t queryPort, const std::string& name);
    void stopNetwork();

    // The ports bound, 0 when not listening.
    int64_t oscPort() const { return _oscPort; }
    int64_t oscQueryPort() const { return _oscQueryPort; }

private:
    // Follows the controller: when its places or the sources offered change, the lists that some
    // ranges give are published again.
    void controllerChanged();
    // Sends the values that changed since last read to the WebSocket clients that listen to them: all
    // of them, or only those that do not move with every picture.
    void pushChangedValues(bool withEveryPicture);
    void startedListening(const std::string& address);

    std::weak_ptr<RecorderController> _controller;
    std::vector<RecorderParameter> _parameters;
    std::map<std::string, size_t> _parametersByAddress;
    std::unique_ptr<OSCReceiver> _receiver;
    std::shared_ptr<OSCQueryServer> _server; // set while this network runs the shared server
    int64_t _oscPort = 0;
    int64_t _oscQueryPort = 0;
    uint64_t _observer = 0;
    std::filesystem::path _folderRoot;
    NetworkAccess _access;
    std::map<std::string, nlohmann::json> _listenedValues; // as last pushed, or read when listening began
    TimerId _pushTimer = 0;
    std::vector<std::string> _placeTitles;
    std::vector<std::string> _sourceTitles;
};

} // namespace quorva
