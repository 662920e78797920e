#include "remote/OSCQueryServer.h"

#include "platform/EventLoop.h"
#include "platform/Log.h"
#include "platform/Semaphore.h"
#include "platform/SerialQueue.h"
#include "remote/DNSSDService.h"
#include "remote/HTTPListener.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace quorva {
namespace {

constexpr int64_t PortsTried = 16;
constexpr int Backlog = 16;
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

bool OSCQueryServer::startOnPort(int64_t port) {
    stop();
    bool listening = false;
    _stateQueue->sync([&] {
        int fd = -1;
        int64_t bound = 0;
        for (int64_t candidate = port; candidate < port + PortsTried; ++candidate) {
            if (candidate <= 0 || candidate > 65535)
                break;
            int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (s < 0) {
                Log("OSCQuery: ", std::string("socket() failed: ") + std::strerror(errno));
                return;
            }
            int on = 1;
            ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_ANY);
            address.sin_port = htons(uint16_t(candidate));
            if (::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                ::listen(s, Backlog) == 0) {
                fd = s;
                bound = candidate;
                break;
            }
            ::close(s);
        }
        if (fd < 0) {
            Log("OSCQuery: ", "could not bind a TCP port starting at " + std::to_string(port));
            return;
        }
        _httpPort = bound;
        // Weakly held: the server owns the listener, whose request threads may finish after the server.
        _listener = std::make_unique<HTTPListener>(
            fd, HTTPListener::Limits{},
            [weak = weak_from_this()](const std::string& path, const std::string& query) {
                if (auto self = weak.lock())
                    return self->responseForPath(path, query);
                return std::pair<int64_t, std::string>{503, ""}; // the server is going away
            });
        _running = true;
        listening = true;
    });
    if (!listening)
        return false;
    Log("OSCQuery ", "server started on TCP port " + std::to_string(httpPort()) + " (namespace of OSC port " +
                         std::to_string(oscPort()) + ")");
    publishBonjour();
    return true;
}

void OSCQueryServer::stop() {
    _stateQueue->sync([&] {
        _listener.reset();
        _httpPort = 0;
        _running = false;
    });
    std::unique_ptr<DNSSDService> service;
    {
        std::lock_guard guard(_lock);
        service = std::move(_netService);
        ++_publication; // outcomes still on their way to the main thread are about a withdrawn service
    }
    // Withdrawn here rather than on the main thread: Avahi does not mind which thread, and a stop that
    // returns with the service still announced would only surprise.
    service.reset();
}

int64_t OSCQueryServer::httpPort() const {
    int64_t port = 0;
    _stateQueue->sync([&] { port = _httpPort; });
    return port;
}

bool OSCQueryServer::isRunning() const {
    bool running = false;
    _stateQueue->sync([&] { running = _running; });
    return running;
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

std::pair<int64_t, std::string> OSCQueryServer::responseForPath(const std::string& path,
                                                                const std::string& query) {
    if (query == "HOST_INFO")
        return {200, jsonDataForObject(hostInfoDictionary())};

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
        return {404, ""};
    fillValuesForJobs(json, jobs);

    if (query.empty())
        return {200, jsonDataForObject(json)};
    if (std::find(AttributeNames.begin(), AttributeNames.end(), query) == AttributeNames.end())
        return {400, ""};
    if (!json.contains(query))
        return {204, ""};
    nlohmann::json attribute = nlohmann::json::object();
    attribute[query] = std::move(json[query]);
    return {200, jsonDataForObject(attribute)};
}

void OSCQueryServer::fillValuesForJobs(nlohmann::json& json, const std::vector<OSCQueryValueJob>& jobs) {
    if (jobs.empty())
        return;
    // Shared with the main thread's task, which may finish after this request has given up on it.
    struct Reading {
        std::vector<OSCQueryValueJob> jobs;
        std::vector<nlohmann::json> values;
        Semaphore done;
    };
    auto reading = std::make_shared<Reading>();
    reading->jobs = jobs;
    bool posted = EventLoop::postToMain([reading] {
        for (const OSCQueryValueJob& job : reading->jobs) {
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
            reading->values.push_back(value.is_discarded() ? nlohmann::json() : std::move(value));
        }
        reading->done.signal();
    });
    if (!posted)
        return;
    if (!reading->done.wait(ValueTimeout)) {
        Log("OSCQuery: ", "timed out reading values (main thread busy)");
        return;
    }
    for (size_t i = 0; i < jobs.size(); ++i) {
        if (!reading->values[i].is_null())
            json[jobs[i].where]["VALUE"] = reading->values[i];
    }
}

nlohmann::json OSCQueryServer::hostInfoDictionary() const {
    std::string name = serverName();
    return {
        {"NAME", name.empty() ? DefaultHostName : name},
        {"OSC_PORT", oscPort()},
        {"OSC_TRANSPORT", "UDP"},
        {"EXTENSIONS",
         {{"ACCESS", true},
          {"CLIPMODE", false},
          {"CRITICAL", false},
          {"DESCRIPTION", true},
          {"LISTEN", false},
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
