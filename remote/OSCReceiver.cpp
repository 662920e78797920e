#include "remote/OSCReceiver.h"

#include "platform/EventLoop.h"
#include "platform/Log.h"
#include "platform/Semaphore.h"
#include "remote/AsioAddress.h"
#include "remote/NetworkPorts.h"
#include "remote/RemoteContext.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/ip/v6_only.hpp>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace quorva {

namespace asio = boost::asio;
using asio::ip::udp;

namespace {

constexpr size_t LargestDatagram = 65535;
constexpr auto RefusalLogInterval = std::chrono::minutes(1);

// Opens and binds `socket` as OpenOnAddress says; the port it got, or 0.
int64_t Bind(udp::socket& socket, const std::string& bindAddress, uint16_t port) {
    const bool opened = OpenOnAddress<udp>(bindAddress, port, [&](udp::endpoint endpoint, bool dualStack) {
        boost::system::error_code error;
        if (socket.open(endpoint.protocol(), error))
            return error;
        if (dualStack)
            socket.set_option(asio::ip::v6_only(false), error);
        if (!socket.bind(endpoint, error))
            return boost::system::error_code();
        boost::system::error_code ignored;
        socket.close(ignored);
        return error;
    });
    boost::system::error_code error;
    return opened ? socket.local_endpoint(error).port() : 0;
}

} // namespace

struct OSCReceiver::State : std::enable_shared_from_this<State> {
    udp::socket socket{RemoteContext()};
    udp::endpoint from;
    std::vector<uint8_t> buffer = std::vector<uint8_t>(LargestDatagram);
    Handler handler;
    AllowedNetworks allowed;
    std::map<asio::ip::address, std::chrono::steady_clock::time_point> refusalsLogged;

    // On the remote thread: one datagram at a time, each handled before the next is asked for.
    void receive() {
        socket.async_receive_from(asio::buffer(buffer), from,
                                  [self = shared_from_this()](boost::system::error_code error, size_t n) {
                                      if (error == asio::error::operation_aborted || !self->socket.is_open())
                                          return;
                                      if (!error)
                                          self->received(n);
                                      self->receive();
                                  });
    }

    void received(size_t length) {
        asio::ip::address peer = Unmapped(from.address());
        if (Allows(allowed, peer)) {
            deliverPacket(buffer.data(), length, handler);
            return;
        }
        auto now = std::chrono::steady_clock::now();
        auto logged = refusalsLogged.find(peer);
        if (logged != refusalsLogged.end() && now - logged->second < RefusalLogInterval)
            return;
        // Emptied rather than grown without end: a host then logs once more.
        if (refusalsLogged.size() >= 1024)
            refusalsLogged.clear();
        refusalsLogged[peer] = now;
        Log("OSC: ", "ignoring messages from " + peer.to_string() + ", which is not an allowed host");
    }
};

OSCReceiver::OSCReceiver() = default;

OSCReceiver::~OSCReceiver() {
    stop();
}

void OSCReceiver::deliverPacket(const uint8_t* bytes, size_t length, const Handler& handler) {
    std::vector<OSCMessage> messages = OSCMessage::messagesFromPacket(bytes, length);
    if (messages.empty())
        return;
    EventLoop::postToMain([handler, messages = std::move(messages)] {
        for (const OSCMessage& message : messages)
            handler(message);
    });
}

bool OSCReceiver::startOnPort(int64_t port, Handler handler, const NetworkAccess& access) {
    stop();
    auto state = std::make_shared<State>();
    state->handler = std::move(handler);
    state->allowed = access.allowed;
    const int64_t bound = SearchPorts(port, PortsSearched, [&](uint16_t candidate) {
        return Bind(state->socket, access.bindAddress, candidate);
    });
    if (bound == 0) {
        Log("OSC: ", "no free UDP port from " + std::to_string(port) + " to " +
                         std::to_string(port + PortsSearched - 1) +
                         (access.bindAddress.empty() ? "" : " on " + access.bindAddress));
        return false;
    }
    PostToRemote([state] { state->receive(); });
    _state = std::move(state);
    _port = bound;
    return true;
}

void OSCReceiver::stop() {
    if (!_state)
        return;
    std::shared_ptr<State> state = std::move(_state);
    _port = 0;
    auto close = [state] {
        boost::system::error_code error;
        state->socket.close(error);
    };
    if (IsRemoteThread()) {
        close();
        return;
    }
    // Closed on the remote thread, after any datagram being handled; the semaphore outlives a late close.
    auto closed = std::make_shared<Semaphore>();
    PostToRemote([close, closed] {
        close();
        closed->signal();
    });
    closed->wait(1.0);
}

} // namespace quorva
