#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace quorva {

// Serves HTTP requests that arrive on a listening TCP socket, one request per connection: reads each
// request head, answers it and closes the connection.
//
// No client, nor many of them, can keep others out by sending slowly:
// - a connection has `deadline` seconds from its acceptance to send its whole head, else it is closed
//   without an answer, and as long again to take the answer, else the rest of it is dropped;
// - one client address has at most `waitingPerAddress` connections waiting for their heads, and all
//   clients together at most `waiting`: a connection beyond either bound closes the oldest that waits
//   (of that address, or of all), since a real client's head comes at once and the oldest is the one
//   least likely to finish;
// - at most `inService` requests are answered at once; a well-formed request beyond that is answered
//   503 at once rather than refused.
//
// Threads: one thread of the listener's own accepts the connections and reads every head with poll(),
// so a slow client costs a socket and a buffer, never a thread; it answers by itself what needs no
// handler (400, 405, 503). Each other request is answered on a thread of its own, which calls the
// handler; the handler may thus run on several threads at once. Construction and destruction may happen
// on any thread, a request thread included.
class HTTPListener {
public:
    struct Limits {
        double deadline = 5;
        size_t waiting = 128;
        size_t waitingPerAddress = 8;
        size_t inService = 32;
    };
    // The status and body answered to a GET or HEAD of `path` with the query item `query` (see
    // HTTPRequest); for HEAD the body is dropped.
    using Handler =
        std::function<std::pair<int64_t, std::string>(const std::string& path, const std::string& query)>;

    // Takes `listenFD`, a bound IPv4 socket that listens, and closes it when destroyed.
    HTTPListener(int listenFD, Limits limits, Handler handler);
    // Stops accepting and closes the connections still waiting for their heads. Requests in service
    // are finished on their threads.
    ~HTTPListener();
    HTTPListener(const HTTPListener&) = delete;
    HTTPListener& operator=(const HTTPListener&) = delete;

    struct State;

private:
    std::shared_ptr<State> _state; // shared with the request threads, which may outlive the listener
    std::thread _thread;
};

} // namespace quorva
