#include "remote/OSCQueryListener.h"

#include "platform/Log.h"
#include "platform/Semaphore.h"
#include "remote/AsioAddress.h"
#include "remote/HTTPRequest.h"
#include "remote/NetworkPorts.h"
#include "remote/RemoteContext.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>

namespace quorva {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr size_t LargestHead = 16384;
// Larger than any OSC message the recorder takes, small enough that a client cannot make it hold much.
constexpr size_t LargestFrame = 65536;

std::chrono::steady_clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

// Opens, binds and listens as OpenOnAddress says; the port it got, or 0.
int64_t Listen(tcp::acceptor& acceptor, const std::string& bindAddress, uint16_t port) {
    const bool opened = OpenOnAddress<tcp>(bindAddress, port, [&](tcp::endpoint endpoint, bool dualStack) {
        error_code error;
        if (acceptor.open(endpoint.protocol(), error))
            return error;
        if (dualStack)
            acceptor.set_option(asio::ip::v6_only(false), error);
        acceptor.set_option(asio::socket_base::reuse_address(true), error);
        if (!acceptor.bind(endpoint, error) &&
            !acceptor.listen(asio::socket_base::max_listen_connections, error))
            return error_code();
        error_code ignored;
        acceptor.close(ignored);
        return error;
    });
    error_code error;
    return opened ? acceptor.local_endpoint(error).port() : 0;
}

std::string_view ViewOf(beast::string_view text) {
    return {text.data(), text.size()};
}

class WebSocketSession;

} // namespace

struct OSCQueryListener::State : std::enable_shared_from_this<State> {
    tcp::acceptor acceptor{RemoteContext()};
    asio::steady_timer acceptAgain{RemoteContext()};
    Limits limits;
    Callbacks callbacks;
    AllowedNetworks allowed;

    // The remote thread's own.
    bool stopped = false;
    size_t inService = 0;
    uint64_t lastSession = 0;
    std::map<uint64_t, std::weak_ptr<WebSocketSession>> sessions;

    // The addresses listened to, with how many clients listen to each: read from other threads.
    mutable std::mutex lock;
    std::map<std::string, size_t> listened;

    void accept();
    void stop();
    void listen(const std::string& address) {
        {
            std::lock_guard guard(lock);
            ++listened[address];
        }
        if (callbacks.listened)
            callbacks.listened(address);
    }
    void ignore(const std::string& address) {
        std::lock_guard guard(lock);
        auto found = listened.find(address);
        if (found != listened.end() && --found->second == 0)
            listened.erase(found);
    }
};

namespace {

using State = OSCQueryListener::State;
using Packet = std::shared_ptr<const std::vector<uint8_t>>;

// One WebSocket client, from its upgrade to its end. Reads commands (text) and OSC packets (binary) one
// at a time, and writes the pushes it listens to one at a time from a queue of bounded size.
class WebSocketSession : public std::enable_shared_from_this<WebSocketSession> {
public:
    WebSocketSession(beast::tcp_stream stream, std::shared_ptr<State> state)
        : _socket(std::move(stream)), _state(std::move(state)) {}

    void accept(http::request<http::string_body> request) {
        _request = std::move(request);
        beast::tcp_stream& stream = beast::get_lowest_layer(_socket);
        stream.expires_never(); // the WebSocket's own time-outs take over
        // What waits for a client in the system's buffer is bounded as what waits in the queue is.
        error_code ignored;
        stream.socket().set_option(asio::socket_base::send_buffer_size(int(_state->limits.backlog)), ignored);
        _socket.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        _socket.read_message_max(LargestFrame);
        _socket.binary(true);
        _socket.async_accept(_request, [self = shared_from_this()](error_code error) {
            if (error || self->_state->stopped)
                return self->close();
            self->_id = ++self->_state->lastSession;
            self->_state->sessions[self->_id] = self;
            self->read();
        });
    }

    void send(const std::string& address, const Packet& packet) {
        if (_finished || !_listening.contains(address))
            return;
        if (_queuedBytes + packet->size() > _state->limits.backlog) {
            Log("OSCQuery: ", "a WebSocket client that does not read what it listens to was let go");
            return close();
        }
        _queue.push_back(packet);
        _queuedBytes += packet->size();
        if (_queue.size() == 1)
            write();
    }

    // Ends the session: by the client's doing, a failure, a full queue or the listener's stop.
    void close() {
        if (std::exchange(_finished, true))
            return;
        for (const std::string& address : _listening)
            _state->ignore(address);
        _listening.clear();
        if (_id != 0)
            _state->sessions.erase(_id);
        // Ends the operations still under way, whose handlers hold the session, and with it the queue
        // that a write may still be reading, until they have run.
        error_code ignored;
        beast::get_lowest_layer(_socket).socket().close(ignored);
    }

private:
    void read() {
        _socket.async_read(_buffer, [self = shared_from_this()](error_code error, size_t) {
            if (error)
                return self->close();
            std::string bytes = beast::buffers_to_string(self->_buffer.data());
            self->_buffer.consume(self->_buffer.size());
            if (self->_socket.got_text())
                self->command(bytes);
            else if (self->_state->callbacks.packet)
                self->_state->callbacks.packet(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            self->read();
        });
    }

    // {"COMMAND": "LISTEN" or "IGNORE", "DATA": "<address>"}; anything else is ignored, as the proposal
    // leaves room for commands that this server does not know.
    void command(const std::string& text) {
        nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
        if (!json.is_object() || !json["COMMAND"].is_string() || !json["DATA"].is_string())
            return;
        std::string name = json["COMMAND"], address = json["DATA"];
        if (name == "LISTEN" && _listening.insert(address).second)
            _state->listen(address);
        else if (name == "IGNORE" && _listening.erase(address) > 0)
            _state->ignore(address);
    }

    void write() {
        _socket.async_write(asio::buffer(*_queue.front()),
                            [self = shared_from_this()](error_code error, size_t) {
                                if (error)
                                    return self->close();
                                self->_queuedBytes -= self->_queue.front()->size();
                                self->_queue.pop_front();
                                if (!self->_queue.empty() && !self->_finished)
                                    self->write();
                            });
    }

    websocket::stream<beast::tcp_stream> _socket;
    std::shared_ptr<State> _state;
    http::request<http::string_body> _request; // the upgrade, until it is answered
    beast::flat_buffer _buffer;
    std::set<std::string> _listening;
    std::deque<Packet> _queue;
    size_t _queuedBytes = 0;
    uint64_t _id = 0;
    bool _finished = false;
};

// One HTTP request: its head read within the deadline, its answer written within another, then closed;
// or, for an upgrade at the root, handed to a WebSocket session.
class HTTPSession : public std::enable_shared_from_this<HTTPSession> {
public:
    HTTPSession(tcp::socket socket, std::shared_ptr<State> state, bool allowed)
        : _stream(std::move(socket)), _state(std::move(state)), _allowed(allowed) {}

    void start() {
        _parser.header_limit(LargestHead);
        _parser.body_limit(LargestHead);
        _stream.expires_after(Seconds(_state->limits.deadline));
        http::async_read(_stream, _buffer, _parser,
                         [self = shared_from_this()](error_code error, size_t) { self->read(error); });
    }

private:
    void read(error_code error) {
        if (error) {
            // Closed, cut short or too slow before a whole request: nothing to answer. Anything else is
            // a request that is not HTTP, or too large to be read.
            if (error == http::error::end_of_stream || error == http::error::partial_message ||
                error == beast::error::timeout || error.category() == asio::error::get_system_category())
                return;
            return answer(400, "");
        }
        if (!_allowed)
            return answer(403, "");
        http::request<http::string_body>& request = _parser.get();
        HTTPRequest parsed = HTTPRequest::Parse(ViewOf(request.method_string()), ViewOf(request.target()));
        if (parsed.status != 0)
            return answer(parsed.status, "");
        _isHead = parsed.isHead;
        if (websocket::is_upgrade(request)) {
            if (parsed.path != "/")
                return answer(404, "");
            if (_state->stopped)
                return answer(503, "");
            auto session = std::make_shared<WebSocketSession>(std::move(_stream), _state);
            session->accept(_parser.release());
            return;
        }
        if (_state->inService >= _state->limits.inService)
            return answer(503, "");
        ++_state->inService;
        _state->callbacks.request(parsed.path, parsed.query,
                                  [self = shared_from_this()](int64_t status, std::string body) {
                                      auto finish = [self, status, body = std::move(body)]() mutable {
                                          --self->_state->inService;
                                          self->answer(status, std::move(body));
                                      };
                                      // Most answers come from the remote thread itself: no need to
                                      // queue them behind everything else.
                                      if (IsRemoteThread())
                                          finish();
                                      else
                                          PostToRemote(std::move(finish));
                                  });
    }

    void answer(int64_t status, std::string body) {
        _response.version(11);
        _response.result(unsigned(status));
        // Browsers' OSCQuery clients run from other origins; the tree is public on the local network anyway.
        _response.set(http::field::content_type, "application/json; charset=utf-8");
        _response.set(http::field::access_control_allow_origin, "*");
        _response.keep_alive(false);
        _response.body() = _isHead ? std::string() : std::move(body);
        _response.prepare_payload();
        _stream.expires_after(Seconds(_state->limits.deadline));
        http::async_write(_stream, _response, [self = shared_from_this()](error_code, size_t) {
            error_code ignored;
            self->_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
            self->_stream.close();
        });
    }

    beast::tcp_stream _stream;
    std::shared_ptr<State> _state;
    bool _allowed;
    bool _isHead = false;
    beast::flat_buffer _buffer;
    http::request_parser<http::string_body> _parser;
    http::response<http::string_body> _response;
};

} // namespace

void OSCQueryListener::State::accept() {
    acceptor.async_accept([self = shared_from_this()](error_code error, tcp::socket socket) {
        if (self->stopped || error == asio::error::operation_aborted)
            return;
        if (error) {
            // Out of descriptors, most likely: waiting a moment lets connections end, where accepting
            // again at once would spin.
            self->acceptAgain.expires_after(std::chrono::milliseconds(100));
            self->acceptAgain.async_wait([self](error_code waited) {
                if (!waited && !self->stopped)
                    self->accept();
            });
            return;
        }
        error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        tcp::endpoint peer = socket.remote_endpoint(ignored);
        bool allowed = !ignored && Allows(self->allowed, Unmapped(peer.address()));
        std::make_shared<HTTPSession>(std::move(socket), self, allowed)->start();
        self->accept();
    });
}

void OSCQueryListener::State::stop() {
    stopped = true;
    error_code ignored;
    acceptor.close(ignored);
    acceptAgain.cancel();
    for (auto& [id, weak] : std::map(sessions)) {
        if (auto session = weak.lock())
            session->close();
    }
    sessions.clear();
}

std::unique_ptr<OSCQueryListener> OSCQueryListener::make(int64_t port, int64_t portsTried,
                                                         const NetworkAccess& access, Limits limits,
                                                         Callbacks callbacks) {
    auto state = std::make_shared<State>();
    state->limits = limits;
    state->callbacks = std::move(callbacks);
    state->allowed = access.allowed;
    const int64_t bound = SearchPorts(port, portsTried, [&](uint16_t candidate) {
        return Listen(state->acceptor, access.bindAddress, candidate);
    });
    if (bound == 0)
        return nullptr;
    std::unique_ptr<OSCQueryListener> listener(new OSCQueryListener());
    listener->_state = state;
    listener->_port = bound;
    PostToRemote([state] { state->accept(); });
    return listener;
}

OSCQueryListener::~OSCQueryListener() {
    if (IsRemoteThread()) {
        _state->stop();
        return;
    }
    auto stopped = std::make_shared<Semaphore>();
    PostToRemote([state = _state, stopped] {
        state->stop();
        stopped->signal();
    });
    stopped->wait(1.0);
}

void OSCQueryListener::push(const std::string& address, std::vector<uint8_t> packet) {
    PostToRemote(
        [state = _state, address, packet = std::make_shared<const std::vector<uint8_t>>(std::move(packet))] {
            for (auto& [id, weak] : std::map(state->sessions)) {
                if (auto session = weak.lock())
                    session->send(address, packet);
            }
        });
}

std::vector<std::string> OSCQueryListener::listenedAddresses() const {
    std::lock_guard guard(_state->lock);
    std::vector<std::string> addresses;
    for (const auto& [address, count] : _state->listened)
        addresses.push_back(address);
    return addresses;
}

} // namespace quorva
