#pragma once

#include "remote/AllowedNetworks.h"
#include "remote/OSCMessage.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace quorva {

// Listens for OSC datagrams on one UDP port and hands each message to a handler on the main thread, so
// that whoever acts on them (the parameter table) needs no lock. The socket is read and datagrams parsed
// on the remote thread (see RemoteContext). A datagram's messages, bundles flattened, reach the handler
// in order within one main-thread task; malformed datagrams are dropped without a word, and datagrams
// from hosts that the access does not allow are dropped with a log line per host at most once a minute.
class OSCReceiver {
public:
    using Handler = std::function<void(const OSCMessage&)>;

    OSCReceiver();
    ~OSCReceiver(); // stops
    OSCReceiver(const OSCReceiver&) = delete;
    OSCReceiver& operator=(const OSCReceiver&) = delete;

    // Stops, then binds the first free port of `port` and the 15 that follow it (see SearchPorts) on
    // the access's address (every interface, dual-stack where IPv6 is available, when it names none),
    // and answers whether it listens. Port 0 lets the system choose. Failures are logged; the caller
    // words its own error for the user.
    bool startOnPort(int64_t port, Handler handler, const NetworkAccess& access = {});

    // Stops listening; does nothing when not listening. Waits at most a second for the socket to be
    // closed on the remote thread (later than that, it is closed when that thread gets to it).
    void stop();

    // The UDP port bound, 0 while stopped.
    int64_t port() const { return _port.load(); }

    // Parses one packet and posts its messages to `handler` on the main thread: what a datagram gets,
    // and an OSC packet that arrives another way (a WebSocket's binary frame).
    static void deliverPacket(const uint8_t* bytes, size_t length, const Handler& handler);

    struct State;

private:
    std::shared_ptr<State> _state;
    std::atomic<int64_t> _port{0};
};

} // namespace quorva
