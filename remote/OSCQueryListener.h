#pragma once

#include "remote/AllowedNetworks.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quorva {

// The OSCQuery server's connections, on the remote thread (see RemoteContext): HTTP/1.1 requests, one
// per connection, and WebSocket clients that upgrade at the root to LISTEN to addresses and to send OSC
// packets as binary frames (the bi-directional extension of the OSCQuery proposal). Boost.Beast reads
// and writes them; what the requests mean stays the server's.
//
// No client, nor many of them, keeps others waiting:
// - a connection has `deadline` seconds from its acceptance to send its whole head (16 KiB at most),
//   else it is closed without an answer, and as long again to take the answer;
// - at most `inService` requests wait for their answers at once; a well-formed request beyond that is
//   answered 503 at once;
// - a WebSocket client that reads slower than its pushes come has at most `backlog` bytes waiting for
//   it, and is let go when one more push would exceed them.
// Hosts that the access does not allow are answered 403, their WebSocket upgrades included.
class OSCQueryListener {
public:
    struct Limits {
        double deadline = 5;
        size_t inService = 32;
        size_t backlog = 256 * 1024;
    };
    // Called once, from any thread, with the status and the body of a GET (for HEAD the body is dropped).
    using Respond = std::function<void(int64_t status, std::string body)>;
    struct Callbacks {
        // A GET or HEAD of `path` with the query item `query` (see HTTPRequest), on the remote thread.
        std::function<void(const std::string& path, const std::string& query, Respond respond)> request;
        // A WebSocket client has begun to listen to `address`, on the remote thread.
        std::function<void(const std::string& address)> listened;
        // A WebSocket client sent an OSC packet (a binary frame), on the remote thread.
        std::function<void(const uint8_t* bytes, size_t length)> packet;
    };

    // Listens on the first free TCP port of the `portsTried` from `port` (see SearchPorts), on the
    // access's address or, when it names none, on every interface (dual-stack where the
    // machine has IPv6). Nothing when no port could be had.
    static std::unique_ptr<OSCQueryListener>
    make(int64_t port, int64_t portsTried, const NetworkAccess& access, Limits limits, Callbacks callbacks);
    // Stops accepting and closes the WebSocket connections; requests in service are still answered.
    // Waits at most a second for the remote thread, and not at all on it.
    ~OSCQueryListener();
    OSCQueryListener(const OSCQueryListener&) = delete;
    OSCQueryListener& operator=(const OSCQueryListener&) = delete;

    int64_t port() const { return _port; }

    // Sends `packet` (an OSC message from `address`) to every WebSocket client that listens to the
    // address. Any thread.
    void push(const std::string& address, std::vector<uint8_t> packet);
    // The addresses that at least one WebSocket client listens to. Any thread.
    std::vector<std::string> listenedAddresses() const;

    struct State;

private:
    OSCQueryListener() = default;
    std::shared_ptr<State> _state;
    int64_t _port = 0;
};

} // namespace quorva
