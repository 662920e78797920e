#include "remote/OSCQueryListener.h"

#include "platform/Log.h"
#include "platform/Semaphore.h"
#include "remote/HTTPRequest.h"
#include "remote/RemoteContext.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <chrono>

namespace quorva {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr size_t LargestHead = 16384;

std::chrono::steady_clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

// Opens, binds and listens on every interface: IPv6's "::" taking IPv4 too where the machine has IPv6,
// else IPv4's.
bool Listen(tcp::acceptor& acceptor, uint16_t port) {
    auto on = [&](tcp::endpoint endpoint, bool dualStack) {
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
    };
    error_code error = on(tcp::endpoint(tcp::v6(), port), true);
    if (!error)
        return true;
    // Taken on IPv6 is taken: falling back to IPv4 would listen beside another program.
    if (error != asio::error::address_family_not_supported &&
        error != boost::system::errc::address_not_available)
        return false;
    return !on(tcp::endpoint(tcp::v4(), port), false);
}

std::string_view ViewOf(beast::string_view text) {
    return {text.data(), text.size()};
}

} // namespace

struct OSCQueryListener::State : std::enable_shared_from_this<State> {
    tcp::acceptor acceptor{RemoteContext()};
    asio::steady_timer acceptAgain{RemoteContext()};
    Limits limits;
    Callbacks callbacks;

    // The remote thread's own.
    bool stopped = false;
    size_t inService = 0;

    void accept();
    void stop();
};

namespace {

using State = OSCQueryListener::State;

// One HTTP request: its head read within the deadline, its answer written within another, then closed.
class HTTPSession : public std::enable_shared_from_this<HTTPSession> {
public:
    HTTPSession(tcp::socket socket, std::shared_ptr<State> state)
        : _stream(std::move(socket)), _state(std::move(state)) {}

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
        http::request<http::string_body>& request = _parser.get();
        HTTPRequest parsed = HTTPRequest::Parse(ViewOf(request.method_string()), ViewOf(request.target()));
        if (parsed.status != 0)
            return answer(parsed.status, "");
        _isHead = parsed.isHead;
        if (_state->inService >= _state->limits.inService)
            return answer(503, "");
        ++_state->inService;
        _state->callbacks.request(parsed.path, parsed.query,
                                  [self = shared_from_this()](int64_t status, std::string body) {
                                      PostToRemote([self, status, body = std::move(body)]() mutable {
                                          --self->_state->inService;
                                          self->answer(status, std::move(body));
                                      });
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
        std::make_shared<HTTPSession>(std::move(socket), self)->start();
        self->accept();
    });
}

void OSCQueryListener::State::stop() {
    stopped = true;
    error_code ignored;
    acceptor.close(ignored);
    acceptAgain.cancel();
}

std::unique_ptr<OSCQueryListener> OSCQueryListener::make(int64_t port, int64_t portsTried, Limits limits,
                                                         Callbacks callbacks) {
    auto state = std::make_shared<State>();
    state->limits = limits;
    state->callbacks = std::move(callbacks);
    int64_t bound = 0;
    for (int64_t candidate = port; candidate < port + portsTried; ++candidate) {
        if (candidate < 0 || candidate > 65535)
            break;
        if (Listen(state->acceptor, uint16_t(candidate))) {
            error_code error;
            bound = state->acceptor.local_endpoint(error).port();
            break;
        }
        if (candidate == 0)
            break;
    }
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

} // namespace quorva
