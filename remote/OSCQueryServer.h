#pragma once

#include "remote/AllowedNetworks.h"
#include "remote/OSCMessage.h"
#include "remote/OSCQueryNode.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace quorva {

class DNSSDService;
class OSCQueryListener;
class SerialQueue;

// A small HTTP/1.1 server that answers OSCQuery requests: the JSON tree of the OSC address space with
// its current values, single attributes of a node, and the host information that tells a client where
// to send OSC. It announces itself with DNS-SD as "_oscjson._tcp.".
//
// WebSocket clients that upgrade at the root may LISTEN to addresses: whoever knows when values change
// pushes them (pushMessage), and the server sends them on to the clients that listen. OSC packets that
// such clients send are applied as if they came over UDP.
//
// Threads: the tree belongs to a serial state queue ("<application identifier>.oscquery.state");
// connections are served on the remote thread (see OSCQueryListener), so a slow client delays nobody
// else; values are read on the main thread, while the request waits without a thread, at most a
// second; the DNS-SD outcome is handled on the main thread too. Registration is asynchronous: a request
// sees a new address once its registration has run on the state queue.
//
// Whoever fills the tree (the parameter table) needs only the registration calls and a value provider
// for each readable address.
class OSCQueryServer : public std::enable_shared_from_this<OSCQueryServer> {
public:
    static std::shared_ptr<OSCQueryServer> make();
    // The one server of the program, made on first use and kept until the process ends.
    static std::shared_ptr<OSCQueryServer> sharedServer();
    ~OSCQueryServer();
    OSCQueryServer(const OSCQueryServer&) = delete;
    OSCQueryServer& operator=(const OSCQueryServer&) = delete;

    // Stops, then listens on the first free TCP port of `port` and the 15 that follow (the search ends
    // at 0 or past 65535), logs the start and asks for the DNS-SD announcement. Answers whether it
    // listens; failures are logged, and the caller words its own error for the user. Serves only the
    // hosts that `access` allows, on its address.
    bool startOnPort(int64_t port, const NetworkAccess& access = {});
    // Stops listening and withdraws the announcement. Requests already being served are finished.
    void stop();

    int64_t httpPort() const; // 0 when stopped
    bool isRunning() const;

    // The name in the host information and the announcement; the OSC port given in the host information.
    std::string serverName() const;
    void setServerName(std::string name);
    int64_t oscPort() const;
    void setOscPort(int64_t port);

    // Adds or refreshes an address in the tree (see OSCQueryNode::registerAddress); an address that is not
    // registrable is ignored without a word. `range` is a list with one object per argument, each with
    // "MIN"/"MAX" or "VALS"; `provider` reads the value on the main thread.
    void registerOSCAddress(const std::string& address, const std::string& typeSpec,
                            const std::string& description, int64_t access = 0,
                            nlohmann::json range = nlohmann::json::array(),
                            OSCQueryValueProvider provider = {});
    // Replaces the tree by an empty root.
    void clearRegisteredAddresses();

    // Where the OSC packets that WebSocket clients send go, as the OSC receiver's are handled: on the
    // main thread. Set before starting.
    void setMessageHandler(std::function<void(const OSCMessage&)> handler);
    // Told on the main thread that a WebSocket client has begun to listen to an address, before any
    // packet that the client sent after its LISTEN is handled: the moment from which changes count.
    void setListenHandler(std::function<void(const std::string& address)> handler);
    // The addresses that WebSocket clients listen to now. Any thread.
    std::vector<std::string> listenedAddresses() const;
    // Sends a value's message to the WebSocket clients that listen to its address. Any thread.
    void pushMessage(const OSCMessage& message);

    // Announces the server under its name ("Torvane OSCQuery" without one), from the main thread. After
    // a collision the name is tried once more with the HTTP port added. The log says "published" once
    // Avahi has established the service, or why it is not announced.
    void publishBonjour();
    // On the main thread: announces `name` if the server still listens on `port`.
    void publishBonjourWithName(const std::string& name, int64_t port);

    // Answers a GET of `path` with the query item `query` ("" for none) through `respond`, once, from
    // the remote thread: at once, or after the main thread has read the values (the tree without them
    // after a second).
    void respondToPath(const std::string& path, const std::string& query,
                       std::function<void(int64_t status, std::string body)> respond);
    nlohmann::json hostInfoDictionary() const;

private:
    OSCQueryServer();

    void netServiceDidPublish(uint64_t publication, const std::string& name, int64_t port);
    void netServiceDidNotPublish(uint64_t publication, const std::string& name, int64_t port,
                                 bool isCollision, const std::string& message);
    static std::string jsonDataForObject(const nlohmann::json& object);

    // Owned by the state queue.
    std::unique_ptr<OSCQueryNode> _root;
    std::shared_ptr<SerialQueue> _stateQueue;

    // Read from connections and the main thread alike.
    mutable std::mutex _lock;
    std::shared_ptr<OSCQueryListener> _listener;
    int64_t _httpPort = 0;
    std::function<void(const OSCMessage&)> _messageHandler;
    std::function<void(const std::string&)> _listenHandler;
    std::string _serverName;
    int64_t _oscPort = 0;
    std::unique_ptr<DNSSDService> _netService;
    uint64_t _publication = 0; // which announcement the DNS-SD outcomes posted to the main thread are about

    std::atomic<int64_t> _bonjourRenameAttempts{0};
};

} // namespace quorva
