#include "remote/OSCQueryServer.h"

#include "platform/EventLoop.h"
#include "platform/Log.h"
#include "platform/SerialQueue.h"
#include "remote/DNSSDService.h"
#include "remote/NetworkPorts.h"
#include "remote/OSCQueryListener.h"
#include "remote/OSCReceiver.h"
#include "remote/RemoteContext.h"

#include <algorithm>
#include <array>
#include <exception>

namespace quorva {
namespace {

constexpr double ValueTimeout = 1.0;

constexpr const char* ServiceType = "_oscjson._tcp";
constexpr const char* DefaultHostName = "Torvane";
constexpr const char* DefaultServiceName = "Torvane OSCQuery";

constexpr std::array<std::string_view, 14> AttributeNames = {
    "FULL_PATH", "CONTENTS", "TYPE",     "ACCESS",        "DESCRIPTION", "VALUE",     "RANGE",
    "TAGS",      "UNIT",     "CRITICAL", "EXTENDED_TYPE", "CLIPMODE",    "OVERLOADS", "HTML"};

std::string Quoted(const std::string& name) {
    return "\"" + name + "\"";
}

} // namespace

std::shared_ptr<OSCQueryServer> OSCQueryServer::make() {
    return std::shared_ptr<OSCQueryServer>(new OSCQueryServer());
}

std::shared_ptr<OSCQueryServer> OSCQueryServer::sharedServer() {
    // Never destroyed: connections and the main thread may still reach it while the process exits.
    static auto* server = new std::shared_ptr<OSCQueryServer>(make());
    return *server;
}

OSCQueryServer::OSCQueryServer()
    : _root(OSCQueryNode::makeRoot()), _stateQueue(std::make_shared<SerialQueue>("oscquery.state")) {}

OSCQueryServer::~OSCQueryServer() {
    stop();
}

// --- Listening ----------------------------------------------------------------------------------------

bool OSCQueryServer::startOnPort(int64_t port, const NetworkAccess& access) {
    stop();
    // Weakly held: the server owns the listener, whose requests may be answered after the server is gone.
    std::weak_ptr<OSCQueryServer> weak = weak_from_this();
    OSCQueryListener::Callbacks callbacks;
    callbacks.request = [weak](const std::string& path, const std::string& query,
                               OSCQueryListener::Respond respond) {
        if (auto self = weak.lock())
            self->respondToPath(path, query, std::move(respond));
        else
            respond(503, ""); // the server is going away
    };
    callbacks.listened = [weak](const std::string& address) {
        auto self = weak.lock();
        if (!self)
            return;
        std::function<void(const std::string&)> handler;
        {
            std::lock_guard guard(self->_lock);
            handler = self->_listenHandler;
        }
        if (handler)
            EventLoop::postToMain([handler, address] { handler(address); });
    };
    callbacks.packet = [weak](const uint8_t* bytes, size_t length) {
        auto self = weak.lock();
        if (!self)
            return;
        std::function<void(const OSCMessage&)> handler;
        {
            std::lock_guard guard(self->_lock);
            handler = self->_messageHandler;
        }
        if (handler)
            OSCReceiver::deliverPacket(bytes, length, handler);
    };
    std::shared_ptr<OSCQueryListener> listener;
    if (port > 0) // as the header says, the search ends at 0
        listener = OSCQueryListener::make(port, PortsSearched, access, OSCQueryListener::Limits{},
                                          std::move(callbacks));
    if (!listener) {
        Log("OSCQuery: ", "could not bind a TCP port starting at " + std::to_string(port) +
                              (access.bindAddress.empty() ? "" : " on " + access.bindAddress));
        return false;
    }
    {
        std::lock_guard guard(_lock);
        _listener = listener;
        _httpPort = listener->port();
    }
    Log("OSCQuery ", "server started on TCP port " + std::to_string(httpPort()) + " (namespace of OSC port " +
                         std::to_string(oscPort()) + ")");
    publishBonjour();
    return true;
}

void OSCQueryServer::stop() {
    std::shared_ptr<OSCQueryListener> listener;
    std::unique_ptr<DNSSDService> service;
    {
        std::lock_guard guard(_lock);
        listener = std::move(_listener);
        _httpPort = 0;
        service = std::move(_netService);
        ++_publication; // outcomes still on their way to the main thread are about a withdrawn service
    }
    // Closed outside the lock: the remote thread, which the listener waits for, takes it to answer.
    listener.reset();
    // Withdrawn here rather than on the main thread: Avahi does not mind which thread, and a stop that
    // returns with the service still announced would only surprise.
    service.reset();
}

int64_t OSCQueryServer::httpPort() const {
    std::lock_guard guard(_lock);
    return _httpPort;
}

bool OSCQueryServer::isRunning() const {
    std::lock_guard guard(_lock);
    return _listener != nullptr;
}

void OSCQueryServer::setMessageHandler(std::function<void(const OSCMessage&)> handler) {
    std::lock_guard guard(_lock);
    _messageHandler = std::move(handler);
}

void OSCQueryServer::setListenHandler(std::function<void(const std::string&)> handler) {
    std::lock_guard guard(_lock);
    _listenHandler = std::move(handler);
}

std::vector<std::string> OSCQueryServer::listenedAddresses() const {
    std::shared_ptr<OSCQueryListener> listener;
    {
        std::lock_guard guard(_lock);
        listener = _listener;
    }
    return listener ? listener->listenedAddresses() : std::vector<std::string>();
}

void OSCQueryServer::pushMessage(const OSCMessage& message) {
    std::shared_ptr<OSCQueryListener> listener;
    {
        std::lock_guard guard(_lock);
        listener = _listener;
    }
    if (listener)
        listener->push(message.address(), message.packet());
}

std::string OSCQueryServer::serverName() const {
    std::lock_guard guard(_lock);
    return _serverName;
}

void OSCQueryServer::setServerName(std::string name) {
    std::lock_guard guard(_lock);
    _serverName = std::move(name);
}

int64_t OSCQueryServer::oscPort() const {
    std::lock_guard guard(_lock);
    return _oscPort;
}

void OSCQueryServer::setOscPort(int64_t port) {
    std::lock_guard guard(_lock);
    _oscPort = port;
}

// --- Requests -----------------------------------------------------------------------------------------

namespace {

// The answer to a request once its tree has its values: the whole object, or one attribute of it.
std::pair<int64_t, nlohmann::json> Attribute(nlohmann::json json, const std::string& query) {
    if (query.empty())
        return {200, std::move(json)};
    if (std::find(AttributeNames.begin(), AttributeNames.end(), query) == AttributeNames.end())
        return {400, nullptr};
    if (!json.contains(query))
        return {204, nullptr};
    nlohmann::json attribute = nlohmann::json::object();
    attribute[query] = std::move(json[query]);
    return {200, std::move(attribute)};
}

} // namespace

void OSCQueryServer::respondToPath(const std::string& path, const std::string& query,
                                   std::function<void(int64_t status, std::string body)> respond) {
    if (query == "HOST_INFO")
        return respond(200, jsonDataForObject(hostInfoDictionary()));
    if (!query.empty() &&
        std::find(AttributeNames.begin(), AttributeNames.end(), query) == AttributeNames.end())
        return respond(400, "");

    nlohmann::json json;
    std::vector<OSCQueryValueJob> jobs;
    bool found = false;
    _stateQueue->sync([&] {
        if (const OSCQueryNode* node = _root->nodeForPath(path)) {
            json = node->jsonRepresentation(&jobs);
            found = true;
        }
    });
    if (!found)
        return respond(404, "");
    auto finish = [query, respond](nlohmann::json json) {
        auto [status, object] = Attribute(std::move(json), query);
        respond(status, object.is_null() ? "" : jsonDataForObject(object));
    };
    if (jobs.empty())
        return finish(std::move(json));

    // Shared by the main thread's reading and the time-out, both of which end on the remote thread;
    // whichever comes first answers. The main thread reads the providers through a copy of its own.
    using Jobs = std::shared_ptr<const std::vector<OSCQueryValueJob>>;
    struct Reading {
        nlohmann::json json;
        Jobs jobs;
        std::function<void(nlohmann::json)> finish;
        bool answered = false; // on the remote thread

        // Lets go of the tree, the providers and the connection at once: the time-out keeps the
        // reading for a second after most answers.
        void answer() {
            auto respond = std::move(finish);
            finish = nullptr;
            jobs.reset();
            respond(std::move(json));
        }
    };
    auto shared = std::make_shared<const std::vector<OSCQueryValueJob>>(std::move(jobs));
    auto reading = std::make_shared<Reading>(Reading{std::move(json), shared, std::move(finish)});
    bool posted = EventLoop::postToMain([reading, jobs = shared] {
        std::vector<nlohmann::json> values;
        for (const OSCQueryValueJob& job : *jobs) {
            nlohmann::json value;
            try {
                value = job.provider();
            } catch (const std::exception& exception) {
                Log("OSCQuery: ", std::string("value provider raised: ") + exception.what());
                value = nullptr;
            } catch (...) {
                Log("OSCQuery: ", "value provider raised: an exception of unknown type");
                value = nullptr;
            }
            values.push_back(value.is_discarded() ? nlohmann::json() : std::move(value));
        }
        PostToRemote([reading, values = std::move(values)] {
            if (std::exchange(reading->answered, true))
                return;
            for (size_t i = 0; i < values.size(); ++i) {
                if (!values[i].is_null())
                    reading->json[(*reading->jobs)[i].where]["VALUE"] = values[i];
            }
            reading->answer();
        });
    });
    if (!posted) {
        reading->answered = true;
        return reading->answer();
    }
    PostToRemoteAfter(ValueTimeout, [reading] {
        if (std::exchange(reading->answered, true))
            return;
        Log("OSCQuery: ", "timed out reading values (main thread busy)");
        reading->answer();
    });
}

nlohmann::json OSCQueryServer::hostInfoDictionary() const {
    std::string name = serverName();
    return {
        {"NAME", name.empty() ? DefaultHostName : name},
        {"OSC_PORT", oscPort()},
        {"OSC_TRANSPORT", "UDP"},
        // The WebSocket of LISTEN and IGNORE is served on the HTTP port, at the root.
        {"WS_PORT", httpPort()},
        {"EXTENSIONS",
         {{"ACCESS", true},
          {"CLIPMODE", false},
          {"CRITICAL", false},
          {"DESCRIPTION", true},
          {"LISTEN", true},
          {"PATH_CHANGED", false},
          {"RANGE", true},
          {"TAGS", false},
          {"UNIT", false},
          {"VALUE", true}}},
    };
}

std::string OSCQueryServer::jsonDataForObject(const nlohmann::json& object) {
    try {
        return object.dump();
    } catch (const std::exception& exception) {
        // Text that is not UTF-8 (a value provider's, say) cannot be written as JSON.
        Log("OSCQuery: ", std::string("JSON serialization failed: ") + exception.what());
        return "";
    }
}

// --- The namespace ------------------------------------------------------------------------------------

void OSCQueryServer::registerOSCAddress(const std::string& address, const std::string& typeSpec,
                                        const std::string& description, int64_t access, nlohmann::json range,
                                        OSCQueryValueProvider provider) {
    if (!OSCQueryNode::IsRegistrableAddress(address))
        return;
    // Weakly held: should the last owner let go on the state queue itself, the queue outlives the server.
    _stateQueue->post([weak = weak_from_this(), address, typeSpec, description, access,
                       range = std::move(range), provider = std::move(provider)] {
        if (auto self = weak.lock())
            self->_root->registerAddress(address, typeSpec, description, access, range, provider);
    });
}

void OSCQueryServer::clearRegisteredAddresses() {
    _stateQueue->post([weak = weak_from_this()] {
        if (auto self = weak.lock())
            self->_root = OSCQueryNode::makeRoot();
    });
}

// --- DNS-SD -------------------------------------------------------------------------------------------

void OSCQueryServer::publishBonjour() {
    _bonjourRenameAttempts = 0;
    std::string name = serverName();
    if (name.empty())
        name = DefaultServiceName;
    int64_t port = httpPort();
    EventLoop::postToMain([weak = weak_from_this(), name, port] {
        if (auto self = weak.lock())
            self->publishBonjourWithName(name, port);
    });
}

void OSCQueryServer::publishBonjourWithName(const std::string& name, int64_t port) {
    if (!isRunning() || httpPort() != port)
        return;
    uint64_t publication;
    {
        std::lock_guard guard(_lock);
        publication = ++_publication;
    }
    // Avahi answers on its own thread; the answers are handled on the main thread, and only while they
    // are about the announcement still wanted.
    std::weak_ptr<OSCQueryServer> weak = weak_from_this();
    DNSSDService::Callbacks callbacks;
    callbacks.didPublish = [weak, publication, port](const std::string& granted) {
        EventLoop::postToMain([weak, publication, port, granted] {
            if (auto self = weak.lock())
                self->netServiceDidPublish(publication, granted, port);
        });
    };
    callbacks.didNotPublish = [weak, publication, name, port](const DNSSDService::Failure& failure) {
        EventLoop::postToMain([weak, publication, name, port, failure] {
            if (auto self = weak.lock())
                self->netServiceDidNotPublish(publication, name, port, failure.isCollision, failure.message);
        });
    };
    auto service = std::make_unique<DNSSDService>(name, ServiceType, uint16_t(port), std::move(callbacks));
    {
        std::lock_guard guard(_lock);
        if (_publication == publication)
            std::swap(_netService, service);
    }
    service.reset(); // the one it replaced, or this one if a stop came in between
}

void OSCQueryServer::netServiceDidPublish(uint64_t publication, const std::string& name, int64_t port) {
    {
        std::lock_guard guard(_lock);
        if (publication != _publication)
            return;
    }
    // Said only now, not when asked for: until Avahi has established the service nobody can find it.
    const std::string announced = Quoted(name) + " (" + ServiceType + ". port " + std::to_string(port) + ")";
    Log("OSCQuery ", "service published for Bonjour as " + announced);
    Log("OSCQuery: ", "Bonjour publication confirmed as " + announced);
}

void OSCQueryServer::netServiceDidNotPublish(uint64_t publication, const std::string& name, int64_t port,
                                             bool isCollision, const std::string& message) {
    {
        std::lock_guard guard(_lock);
        if (publication != _publication)
            return;
    }
    if (isCollision && _bonjourRenameAttempts == 0) {
        _bonjourRenameAttempts = 1;
        std::string renamed = name + " " + std::to_string(port);
        Log("OSCQuery: ", "nom Bonjour « " + name +
                              " » déjà pris sur cette machine — nouvelle tentative sous « " + renamed + " »");
        publishBonjourWithName(renamed, port);
        return;
    }
    Log("OSCQuery: ", "Bonjour publication failed: " + message);
}

} // namespace quorva
