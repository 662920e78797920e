#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace quorva {

// One service announced with DNS-SD on the local network through the Avahi daemon (over the system
// D-Bus). The outcome comes through the callbacks, on Avahi's own thread: published under the name
// granted, or failed (a name already taken, no daemon, anything else) with a sentence saying why.
// Nothing is renamed here: what to do after a collision is the owner's choice.
class DNSSDService {
public:
    struct Failure {
        bool isCollision; // the name is taken by another service of this type
        std::string message;
    };
    struct Callbacks {
        std::function<void(const std::string& name)> didPublish;
        std::function<void(const Failure& failure)> didNotPublish;
    };

    // Starts the publication of `name` of `type` ("_oscjson._tcp") on `port` in the default domain.
    // A daemon that cannot be reached, or an Avahi thread that cannot start, is reported through
    // didNotPublish before this returns.
    DNSSDService(std::string name, std::string type, uint16_t port, Callbacks callbacks);
    ~DNSSDService(); // withdraws the service; no callback comes after it
    DNSSDService(const DNSSDService&) = delete;
    DNSSDService& operator=(const DNSSDService&) = delete;

    const std::string& name() const;

    struct State;

private:
    std::unique_ptr<State> _state;
};

} // namespace quorva
