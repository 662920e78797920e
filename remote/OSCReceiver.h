#pragma once

#include "remote/OSCMessage.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

namespace quorva {

class ReadSource;
class SerialQueue;

// Listens for OSC datagrams on one UDP port of every IPv4 interface and hands each message to a handler
// on the main thread, so that whoever acts on them (the parameter table) needs no lock. Sockets are read
// and datagrams parsed on the receiver's own serial queue ("<application identifier>.osc-receiver").
// A datagram's messages, bundles flattened, reach the handler in order within one main-thread task;
// malformed datagrams are dropped without a word.
class OSCReceiver {
public:
    using Handler = std::function<void(const OSCMessage&)>;

    OSCReceiver();
    ~OSCReceiver(); // stops
    OSCReceiver(const OSCReceiver&) = delete;
    OSCReceiver& operator=(const OSCReceiver&) = delete;

    // Stops, then binds the first free port of `port` and the 15 that follow it (never past 65535) and
    // answers whether it listens. Port 0 lets the system choose. Failures are logged; the caller words
    // its own error for the user.
    bool startOnPort(int64_t port, Handler handler);

    // Stops listening; does nothing when not listening. Waits at most a second for the socket to be
    // closed on the receiver's queue (later than that, it is closed when the queue gets to it).
    void stop();

    // The UDP port bound, 0 while stopped.
    int64_t port() const { return _port.load(); }

private:
    std::shared_ptr<SerialQueue> _queue;
    std::unique_ptr<ReadSource> _source;
    int _fd = -1; // the socket that _source watches, closed by its cancellation
    std::atomic<int64_t> _port{0};
};

} // namespace quorva
