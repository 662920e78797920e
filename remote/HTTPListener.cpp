#include "remote/HTTPListener.h"

#include "platform/Log.h"
#include "remote/HTTPRequest.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace quorva {

using Clock = std::chrono::steady_clock;

struct HTTPListener::State {
    int listenFD = -1;
    Limits limits;
    Handler handler;
    std::atomic<bool> stopping{false};
    std::atomic<size_t> inService{0};
};

namespace {

// A connection whose request head is still arriving.
struct Waiting {
    int fd = -1;
    in_addr_t address = 0;
    Clock::time_point deadline;
    std::string head;
};

Clock::time_point After(double seconds) {
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Sends all of `bytes` unless the socket fails or `deadline` passes first; with a deadline already past
// it sends what the socket takes at once.
void Send(int fd, std::string_view bytes, Clock::time_point deadline) {
    while (!bytes.empty()) {
        ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n > 0) {
            bytes.remove_prefix(size_t(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
            return;
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd writable{fd, POLLOUT, 0};
        if (left <= 0 || (::poll(&writable, 1, int(left)) < 0 && errno != EINTR))
            return;
    }
}

// Answers a complete head and closes its connection, on a request thread when the handler is needed.
void Answer(const std::shared_ptr<HTTPListener::State>& state, int fd, std::string_view head) {
    HTTPRequest request = HTTPRequest::Parse(head);
    int64_t status = request.status;
    if (status == 0 && state->inService < state->limits.inService) {
        ++state->inService; // only this thread adds, so the bound holds
        try {
            std::thread([state, fd, request] {
                pthread_setname_np(pthread_self(), "http.request");
                auto [code, body] = state->handler(request.path, request.query);
                if (request.isHead)
                    body.clear();
                Send(fd, HTTPResponse(code, body), After(state->limits.deadline));
                ::close(fd);
                --state->inService;
            }).detach();
            return;
        } catch (const std::system_error&) {
            --state->inService; // no thread to be had: as full as can be
        }
    }
    // Answered from here without waiting: a short answer fits in a new connection's send buffer.
    Send(fd, HTTPResponse(status == 0 ? 503 : status, ""), Clock::now());
    ::close(fd);
}

// Reads what has arrived of `connection`'s head; answers false once the connection is answered or
// closed, true while its head is still to come.
bool Read(const std::shared_ptr<HTTPListener::State>& state, Waiting& connection) {
    char chunk[4096];
    while (!HTTPRequest::IsComplete(connection.head)) {
        size_t wanted = std::min(sizeof chunk, HTTPRequest::LargestHead - connection.head.size());
        ssize_t n = ::recv(connection.fd, chunk, wanted, 0);
        if (n > 0) {
            connection.head.append(chunk, size_t(n));
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        } else if (n == 0 || errno != EINTR) {
            ::close(connection.fd); // closed or failed before a whole request: nothing to answer
            return false;
        }
    }
    Answer(state, connection.fd, connection.head);
    return false;
}

// Accepts pending connections, closing the oldest waiting ones that a newcomer is one too many for.
// Answers true when connections are pending that no descriptor is left for: listening then pauses, or
// poll() would report them again at once and the thread would spin.
//
// A turn takes at most an eighth of the waiting room: a flood of connections would otherwise push out,
// within one turn, a client accepted early in it whose whole head had arrived but was not read yet. The
// rest are accepted on the next turns, after the heads that came in are read.
bool Accept(const HTTPListener::State& state, std::vector<Waiting>& waiting) {
    for (size_t accepted = 0; accepted < std::max<size_t>(1, state.limits.waiting / 8); ++accepted) {
        sockaddr_in from{};
        socklen_t length = sizeof from;
        int fd = ::accept4(state.listenFD, reinterpret_cast<sockaddr*>(&from), &length,
                           SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if ((errno == EMFILE || errno == ENFILE) && !waiting.empty()) {
                ::close(waiting.front().fd); // the slowest waiting client gives way to the newcomer
                waiting.erase(waiting.begin());
                continue;
            }
            return errno != EAGAIN && errno != EWOULDBLOCK;
        }
        int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        auto sameAddress = [&](const Waiting& c) { return c.address == from.sin_addr.s_addr; };
        auto oldest = waiting.end();
        if (size_t(std::count_if(waiting.begin(), waiting.end(), sameAddress)) >=
            state.limits.waitingPerAddress)
            oldest = std::find_if(waiting.begin(), waiting.end(), sameAddress);
        else if (waiting.size() >= state.limits.waiting)
            oldest = waiting.begin();
        if (oldest != waiting.end()) {
            ::close(oldest->fd);
            waiting.erase(oldest);
        }
        waiting.push_back({fd, from.sin_addr.s_addr, After(state.limits.deadline), {}});
    }
    return false;
}

void Listen(const std::shared_ptr<HTTPListener::State>& state) {
    pthread_setname_np(pthread_self(), "http.listener");
    std::vector<Waiting> waiting; // in order of arrival, and so of deadline
    std::vector<pollfd> fds;
    Clock::time_point acceptAgain; // while later than now, listening pauses
    for (;;) {
        bool accepting = Clock::now() >= acceptAgain;
        fds.assign(1, {state->listenFD, short(accepting ? POLLIN : 0), 0});
        for (const Waiting& connection : waiting)
            fds.push_back({connection.fd, POLLIN, 0});
        std::optional<Clock::time_point> wake;
        if (!waiting.empty())
            wake = waiting.front().deadline;
        if (!accepting)
            wake = std::min(wake.value_or(acceptAgain), acceptAgain);
        int timeout = -1;
        if (wake)
            timeout = int(std::max<int64_t>(
                0, std::chrono::ceil<std::chrono::milliseconds>(*wake - Clock::now()).count()));
        if (::poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) {
            Log("HTTPListener: ", std::string("poll() failed: ") + std::strerror(errno));
            break;
        }
        if (state->stopping)
            break;
        Clock::time_point now = Clock::now();
        size_t kept = 0;
        for (size_t i = 0; i < waiting.size(); ++i) {
            Waiting& connection = waiting[i];
            if (fds[i + 1].revents != 0 && !Read(state, connection))
                continue;
            if (connection.deadline <= now) {
                ::close(connection.fd); // too slow: no answer
                continue;
            }
            if (kept != i)
                waiting[kept] = std::move(connection);
            ++kept;
        }
        waiting.erase(waiting.begin() + ptrdiff_t(kept), waiting.end());
        if (accepting && Accept(*state, waiting))
            acceptAgain = After(0.1);
    }
    for (const Waiting& connection : waiting)
        ::close(connection.fd);
}

} // namespace

HTTPListener::HTTPListener(int listenFD, Limits limits, Handler handler) : _state(std::make_shared<State>()) {
    _state->listenFD = listenFD;
    _state->limits = limits;
    _state->handler = std::move(handler);
    ::fcntl(listenFD, F_SETFL, ::fcntl(listenFD, F_GETFL) | O_NONBLOCK);
    _thread = std::thread([state = _state] { Listen(state); });
}

HTTPListener::~HTTPListener() {
    _state->stopping = true;
    // Shutting down a listening socket ends its listening and wakes poll() on it.
    ::shutdown(_state->listenFD, SHUT_RD);
    _thread.join();
    ::close(_state->listenFD);
}

} // namespace quorva
