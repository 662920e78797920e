#include "remote/HTTPListener.h"

#include "NetworkTesting.h"
#include "platform/Semaphore.h"

#include <atomic>
#include <gtest/gtest.h>
#include <poll.h>

namespace quorva {
namespace {

using namespace quorva::testing;
using namespace std::chrono_literals;

const std::string Request = "GET / HTTP/1.1\r\n\r\n";
const std::string OK = "HTTP/1.1 200 OK", Full = "HTTP/1.1 503 Service Unavailable";

// Clients that send their request head one byte every `interval` and never end it; one that the server
// closes connects again. Each client has an address of its own (127.0.0.`host`) or shares it.
struct SlowClients {
    int port;
    std::vector<int> hosts, fds;
    std::atomic<int> closed{0}, answered{0}; // by the server, over all connections
    std::atomic<bool> stopping{false};
    std::thread thread;

    SlowClients(int serverPort, std::vector<int> hostsOfClients, std::chrono::milliseconds interval)
        : port(serverPort), hosts(std::move(hostsOfClients)), fds(hosts.size()) {
        for (size_t i = 0; i < hosts.size(); ++i)
            fds[i] = connect(hosts[i]);
        // Until each one has reached the server (or been turned away), so that what follows meets them all.
        for (int fd : fds) {
            pollfd reached{fd, POLLOUT, 0};
            ::poll(&reached, 1, 10000);
        }
        thread = std::thread([this, interval] {
            while (!stopping) {
                std::this_thread::sleep_for(interval);
                for (size_t i = 0; i < fds.size(); ++i)
                    if (!dribble(fds[i])) {
                        ++closed;
                        ::close(fds[i]);
                        fds[i] = connect(hosts[i]);
                    }
            }
        });
    }
    ~SlowClients() {
        stopping = true;
        thread.join();
        for (int fd : fds)
            ::close(fd);
    }
    // Without waiting: a full accept queue must not hold up the other clients.
    int connect(int host) const {
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        sockaddr_in from = Loopback(0), to = Loopback(port);
        from.sin_addr.s_addr = htonl(0x7f000000u | uint32_t(host));
        ::bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from);
        ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to);
        return fd;
    }
    // One more byte; false once the server has closed the connection.
    bool dribble(int fd) {
        char buffer[256];
        ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
        if (got > 0)
            ++answered;
        if (got >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
            return false;
        return ::send(fd, "x", 1, MSG_NOSIGNAL) == 1 || errno == EAGAIN || errno == EWOULDBLOCK;
    }
};

struct HTTPListenerTest : ::testing::Test {
    int port = 0;
    std::unique_ptr<HTTPListener> listener;

    void start(
        HTTPListener::Limits limits, HTTPListener::Handler handler = [](auto&, auto&) {
            return std::pair<int64_t, std::string>{200, "{}"};
        }) {
        int fd = BoundSocket(SOCK_STREAM);
        ::listen(fd, 128); // room for every slow client at once: none waits for its connection to be retried
        port = PortOf(fd);
        listener = std::make_unique<HTTPListener>(fd, limits, std::move(handler));
    }
};

TEST_F(HTTPListenerTest, AHeadStillComingAtItsDeadlineIsClosedUnanswered) {
    start({.deadline = 0.3});
    SlowClients slow(port, {1}, 50ms);
    for (int i = 0; i < 400 && slow.closed == 0; ++i)
        std::this_thread::sleep_for(50ms);
    EXPECT_GE(slow.closed, 1);
    EXPECT_EQ(slow.answered, 0);
}

// Seventy slow clients, from one address and then from seventy, take more room than the server has; a
// well-formed request from another address is still answered, at the latest when its client tries again.
TEST_F(HTTPListenerTest, SlowClientsNeverLockOutAWellFormedRequest) {
    start({.deadline = 1, .waiting = 32, .waitingPerAddress = 4, .inService = 4});
    for (bool oneAddress : {true, false}) {
        std::vector<int> hosts(70);
        for (size_t i = 0; i < hosts.size(); ++i)
            hosts[i] = oneAddress ? 2 : 2 + int(i);
        SlowClients slow(port, hosts, 200ms);
        for (int i = 0; i < 10; ++i, std::this_thread::sleep_for(150ms)) {
            // A request whose head is late (this thread descheduled on a busy machine) is as old as
            // any slow client's and may give way once, as a real client's retry then gets through.
            std::string answer = StatusLine(port, Request);
            if (answer.empty())
                answer = StatusLine(port, Request);
            EXPECT_TRUE(answer == OK || answer == Full)
                << (oneAddress ? "one address: " : "many: ") << answer;
        }
        EXPECT_GT(slow.closed, 0);
        EXPECT_EQ(slow.answered, 0);
    }
}

TEST_F(HTTPListenerTest, AWellFormedRequestBeyondThoseInServiceIsAnswered503) {
    Semaphore entered, release;
    start({.inService = 1}, [&](auto&, auto&) {
        entered.signal();
        release.wait();
        return std::pair<int64_t, std::string>{200, "{}"};
    });
    std::thread first([&] { EXPECT_EQ(StatusLine(port, Request), OK); });
    bool inService = entered.wait(30);
    EXPECT_TRUE(inService);
    if (inService) {
        EXPECT_EQ(StatusLine(port, Request), Full);
    }
    release.signal();
    first.join();
}

} // namespace
} // namespace quorva
