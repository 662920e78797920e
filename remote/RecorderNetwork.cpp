#include "remote/RecorderNetwork.h"

#include "core/control/RecorderController.h"
#include "platform/Log.h"
#include "platform/UserFolders.h"
#include "remote/OSCQueryServer.h"
#include "remote/OSCReceiver.h"

#include <algorithm>

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

// How often the values that move with every picture are pushed, at most.
constexpr double PushInterval = 0.25;

// A value as the message that sets it: each argument of the parameter's own OSC type, as a sender of
// that address would send it over UDP.
OSCMessage MessageFor(const RecorderParameter& parameter, const nlohmann::json& value) {
    std::vector<OSCArgument> arguments;
    for (size_t i = 0; value.is_array() && i < value.size(); ++i) {
        const nlohmann::json& item = value[i];
        char type = i < parameter.typeSpec.size() ? parameter.typeSpec[i] : '\0';
        if (item.is_string())
            arguments.emplace_back(item.get<std::string>());
        else if (item.is_boolean())
            arguments.emplace_back(int32_t(item.get<bool>()));
        else if (item.is_number() && type == 'f')
            arguments.emplace_back(item.get<float>());
        else if (item.is_number_integer() || (item.is_number() && type == 'i'))
            arguments.emplace_back(int32_t(item.get<int64_t>()));
        else if (item.is_number())
            arguments.emplace_back(item.get<float>());
    }
    return OSCMessage(parameter.address, std::move(arguments));
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
    auto handler = [weak](const OSCMessage& message) {
        if (auto network = weak.lock())
            network->handleMessage(message);
    };
    if (_access.allowed.allowsEveryone())
        Log("OSC: ", "every host may drive this recorder" + std::string(_access.bindAddress.empty()
                                                                            ? ", on every interface"
                                                                            : ", on " + _access.bindAddress));
    else
        Log("OSC: ", "only " + _access.allowed.description() + " may drive this recorder" +
                         (_access.bindAddress.empty() ? "" : ", on " + _access.bindAddress));
    if (!_receiver->startOnPort(oscPort, handler, _access)) {
        _receiver.reset();
        return controller->failWithError("OSC could not listen on UDP port " + std::to_string(oscPort) +
                                         " or those which follow");
    }
    _oscPort = _receiver->port();

    _server = OSCQueryServer::sharedServer();
    _server->setServerName(name);
    _server->setOscPort(_oscPort);
    _server->setMessageHandler(handler);
    _server->setListenHandler([weak](const std::string& address) {
        if (auto network = weak.lock())
            network->startedListening(address);
    });
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

    if (!_server->startOnPort(queryPort, _access)) {
        _server->clearRegisteredAddresses();
        _server.reset();
        return controller->failWithError("OSCQuery could not listen on TCP port " +
                                         std::to_string(queryPort) + " or those which follow");
    }
    _oscQueryPort = _server->httpPort();
    if (auto loop = EventLoop::mainLoop())
        _pushTimer = loop->scheduleTimer(PushInterval, [weak] {
            if (auto network = weak.lock())
                network->pushChangedValues(true);
        });
    controller->changed();
    return true;
}

void RecorderNetwork::stopNetwork() {
    if (_pushTimer != 0) {
        if (auto loop = EventLoop::mainLoop())
            loop->cancelTimer(_pushTimer);
        _pushTimer = 0;
    }
    _listenedValues.clear();
    if (_receiver) {
        _receiver->stop();
        _receiver.reset();
    }
    if (_server) {
        _server->stop();
        _server->setMessageHandler({});
        _server->setListenHandler({});
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
    pushChangedValues(false);
}

void RecorderNetwork::startedListening(const std::string& address) {
    const RecorderParameter* parameter = parameterForAddress(address);
    if (parameter && parameter->get && !_listenedValues.contains(address))
        _listenedValues[address] = parameter->get();
}

void RecorderNetwork::pushChangedValues(bool withEveryPicture) {
    if (!_server)
        return;
    std::vector<std::string> listened = _server->listenedAddresses();
    // Values nobody listens to any more are forgotten, so that listening again starts afresh.
    std::erase_if(_listenedValues, [&](const auto& entry) {
        return !std::binary_search(listened.begin(), listened.end(), entry.first);
    });
    for (const std::string& address : listened) {
        const RecorderParameter* parameter = parameterForAddress(address);
        if (!parameter || !parameter->get || (parameter->movesWithEveryPicture && !withEveryPicture))
            continue;
        nlohmann::json value = parameter->get();
        auto [last, isNew] = _listenedValues.try_emplace(address, value);
        // An address first seen here began to be listened to just now: its value is where changes start.
        if (isNew || last->second == value)
            continue;
        last->second = value;
        _server->pushMessage(MessageFor(*parameter, value));
    }
}

} // namespace quorva
