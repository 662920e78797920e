#include "remote/RecorderNetwork.h"

#include "core/RecorderController.h"
#include "platform/UserFolders.h"
#include "remote/OSCQueryServer.h"
#include "remote/OSCReceiver.h"

namespace quorva {

namespace {

// Whether `folder`, with its links and ".." resolved as far as it exists, lies in `root` or is `root`.
bool IsWithin(const std::string& folder, const std::filesystem::path& root) {
    std::error_code error;
    const std::filesystem::path resolved = std::filesystem::weakly_canonical(folder, error);
    if (error || !resolved.is_absolute())
        return false;
    const std::filesystem::path relative = resolved.lexically_relative(root);
    return !relative.empty() && *relative.begin() != "..";
}

} // namespace

std::shared_ptr<RecorderNetwork> RecorderNetwork::make(const std::shared_ptr<RecorderController>& controller,
                                                       std::string version) {
    auto network = std::make_shared<RecorderNetwork>(Private{}, controller, std::move(version));
    std::weak_ptr<RecorderNetwork> weak = network;
    network->_observer = controller->addObserver([weak] {
        if (auto network = weak.lock())
            network->controllerChanged();
    });
    return network;
}

RecorderNetwork::RecorderNetwork(Private, const std::shared_ptr<RecorderController>& controller,
                                 std::string version)
    : _controller(controller), _parameters(MakeRecorderParameters(controller, version)) {
    for (size_t i = 0; i < _parameters.size(); ++i)
        _parametersByAddress.emplace(_parameters[i].address, i);
}

RecorderNetwork::~RecorderNetwork() {
    stopNetwork();
    if (auto controller = _controller.lock())
        controller->removeObserver(_observer);
}

const RecorderParameter* RecorderNetwork::parameterForAddress(const std::string& address) const {
    auto found = _parametersByAddress.find(address);
    return found == _parametersByAddress.end() ? nullptr : &_parameters[found->second];
}

void RecorderNetwork::handleMessage(const OSCMessage& message) {
    auto controller = _controller.lock();
    if (!controller)
        return;
    // Exactly as sent: no pattern matching, no trailing slash forgiven, case counts.
    const RecorderParameter* parameter = parameterForAddress(message.address());
    if (!parameter) {
        controller->setError("There is no OSC address “" + message.address() + "”");
        return;
    }
    if (!parameter->set) {
        controller->setError(message.address() + " can only be read");
        return;
    }
    if (message.address() == "/folder" && !_folderRoot.empty() && !message.arguments().empty()) {
        const auto* folder = std::get_if<std::string>(&message.arguments().front());
        if (folder && !IsWithin(ExpandTilde(*folder), _folderRoot)) {
            controller->setError("/folder “" + *folder + "” is outside “" + _folderRoot.string() +
                                 "”, the only folder that this recorder may be pointed at from the network");
            return;
        }
    }
    if (auto refusal = parameter->set(message.arguments()))
        controller->setError(message.address() + " " + *refusal);
}

void RecorderNetwork::registerParameter(const RecorderParameter& parameter) {
    if (!_server)
        return;
    _server->registerOSCAddress(parameter.address, parameter.typeSpec, parameter.summary, parameter.access(),
                                parameter.range ? parameter.range() : nlohmann::json::array(), parameter.get);
}

bool RecorderNetwork::startNetworkWithOSCPort(int64_t oscPort, int64_t queryPort, const std::string& name) {
    stopNetwork();
    auto controller = _controller.lock();
    if (!controller)
        return false;
    _receiver = std::make_unique<OSCReceiver>();
    std::weak_ptr<RecorderNetwork> weak = weak_from_this();
    if (!_receiver->startOnPort(oscPort, [weak](const OSCMessage& message) {
            if (auto network = weak.lock())
                network->handleMessage(message);
        })) {
        _receiver.reset();
        return controller->failWithError("OSC could not listen on UDP port " + std::to_string(oscPort) +
                                         " or those which follow");
    }
    _oscPort = _receiver->port();

    _server = OSCQueryServer::sharedServer();
    _server->setServerName(name);
    _server->setOscPort(_oscPort);
    _server->clearRegisteredAddresses();
    for (const RecorderParameter& parameter : _parameters)
        registerParameter(parameter);
    // Remember what the ranges were built from, so that only real changes publish them again.
    _placeTitles.clear();
    for (const auto& place : controller->places())
        _placeTitles.push_back(place->title());
    _sourceTitles.clear();
    for (const SourceDescription& source : controller->availableSources())
        _sourceTitles.push_back(source.title());

    if (!_server->startOnPort(queryPort)) {
        _server->clearRegisteredAddresses();
        _server.reset();
        return controller->failWithError("OSCQuery could not listen on TCP port " +
                                         std::to_string(queryPort) + " or those which follow");
    }
    _oscQueryPort = _server->httpPort();
    controller->changed();
    return true;
}

void RecorderNetwork::stopNetwork() {
    if (_receiver) {
        _receiver->stop();
        _receiver.reset();
    }
    if (_server) {
        _server->stop();
        _server->clearRegisteredAddresses();
        _server.reset();
    }
    _oscPort = 0;
    _oscQueryPort = 0;
}

void RecorderNetwork::controllerChanged() {
    auto controller = _controller.lock();
    if (!controller || !_server)
        return;
    std::vector<std::string> placeTitles;
    for (const auto& place : controller->places())
        placeTitles.push_back(place->title());
    if (placeTitles != _placeTitles) {
        _placeTitles = std::move(placeTitles);
        if (const RecorderParameter* sound = parameterForAddress("/sound"))
            registerParameter(*sound);
    }
    std::vector<std::string> sourceTitles;
    for (const SourceDescription& source : controller->availableSources())
        sourceTitles.push_back(source.title());
    if (sourceTitles != _sourceTitles) {
        _sourceTitles = std::move(sourceTitles);
        for (const RecorderParameter& parameter : _parameters) {
            if (parameter.address.starts_with("/source"))
                registerParameter(parameter);
        }
    }
}

} // namespace quorva
