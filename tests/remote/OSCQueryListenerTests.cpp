#include "remote/OSCQueryListener.h"

#include "NetworkTesting.h"
#include "platform/Semaphore.h"
#include "remote/OSCMessage.h"

#include <atomic>
#include <poll.h>

namespace quorva {
namespace {

using namespace quorva::testing;
using namespace std::chrono_literals;

const std::string Request = "GET / HTTP/1.1\r\n\r\n";
const std::string OK = "HTTP/1.1 200 OK", Full = "HTTP/1.1 503 Service Unavailable";

// Seventy clients that send their request head one byte every 200 ms and never end it; one that the server
// closes connects again. They share an address (127.0.0.2) or each has one of its own.
struct SlowClients {
    int port;
    bool oneAddress;
    std::vector<int> fds = std::vector<int>(70);
    std::atomic<int> closed{0}, answered{0}; // by the server, over all connections
    std::atomic<bool> stopping{false};
    std::thread thread;

    SlowClients(int serverPort, bool sameAddress) : port(serverPort), oneAddress(sameAddress) {
        for (size_t i = 0; i < fds.size(); ++i)
            fds[i] = connect(i);
        // Until each one has reached the server (or been turned away), so that what follows meets them all.
        for (int fd : fds) {
            pollfd reached{fd, POLLOUT, 0};
            ::poll(&reached, 1, 10000);
        }
        thread = std::thread([this] {
            while (!stopping) {
                std::this_thread::sleep_for(200ms);
                for (size_t i = 0; i < fds.size(); ++i)
                    if (!dribble(fds[i])) {
                        ++closed;
                        ::close(fds[i]);
                        fds[i] = connect(i);
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
    int connect(size_t client) const {
        return Connected(BoundSocket(SOCK_STREAM | SOCK_NONBLOCK, 0, oneAddress ? 2 : 2 + int(client)), port);
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

// A WebSocket client that upgrades, listens to `address` and then never reads, with as small a receive
// buffer as the system gives: what is pushed to it piles up at the server at once.
int StuckListener(int port, const std::string& address) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int smallest = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest);
    Connected(fd, port);
    std::string upgrade = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                          "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    ::send(fd, upgrade.data(), upgrade.size(), MSG_NOSIGNAL);
    // The answer to the upgrade, and only it, is read: a client sends its frames once upgraded.
    std::string answer;
    char byte;
    while (answer.find("\r\n\r\n") == std::string::npos && ::recv(fd, &byte, 1, 0) == 1)
        answer += byte;
    // A client's frames are masked; a mask of zeros leaves the text as it is.
    std::string text = R"({"COMMAND":"LISTEN","DATA":")" + address + R"("})";
    const std::string frame = std::string{char(0x81), char(0x80 | text.size()), 0, 0, 0, 0} + text;
    ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
    return fd;
}

struct OSCQueryListenerTest : ::testing::Test {
    std::unique_ptr<OSCQueryListener> listener;
    int port = 0;
    std::atomic<int> listening{0};

    void start(
        OSCQueryListener::Limits limits,
        std::function<void(const std::string&, const std::string&, OSCQueryListener::Respond)> request =
            [](auto&, auto&, OSCQueryListener::Respond respond) { respond(200, "{}"); }) {
        OSCQueryListener::Callbacks callbacks;
        callbacks.request = std::move(request);
        callbacks.listened = [this](const std::string&) { ++listening; };
        listener = OSCQueryListener::make(0, 1, {}, limits, std::move(callbacks));
        ASSERT_TRUE(listener);
        port = int(listener->port());
    }
};

// Seventy slow clients, from one address and then from seventy, never keep a well-formed request from
// another address from its answer.
TEST_F(OSCQueryListenerTest, SlowClientsNeverLockOutAWellFormedRequest) {
    start({.deadline = 1, .inService = 4});
    for (bool oneAddress : {true, false}) {
        SlowClients slow(port, oneAddress);
        for (int i = 0; i < 10; ++i, std::this_thread::sleep_for(150ms))
            EXPECT_EQ(StatusLine(port, Request), OK) << (oneAddress ? "one address" : "many");
        EXPECT_GT(slow.closed, 0);
        EXPECT_EQ(slow.answered, 0);
    }
}

TEST_F(OSCQueryListenerTest, AWellFormedRequestBeyondThoseInServiceIsAnswered503) {
    Semaphore entered;
    OSCQueryListener::Respond held;
    start({.inService = 1}, [&](auto&, auto&, OSCQueryListener::Respond respond) {
        held = std::move(respond); // answered later, from this test's thread
        entered.signal();
    });
    std::thread first([&] { EXPECT_EQ(StatusLine(port, Request), OK); });
    bool inService = entered.wait(30);
    EXPECT_TRUE(inService);
    if (inService) {
        EXPECT_EQ(StatusLine(port, Request), Full);
        held(200, "{}");
    }
    first.join();
}

// Forty python3-websockets clients listen while a forty-first never reads: it is let go once what waits
// for it is full, the others get every push, and HTTP requests are answered meanwhile.
TEST_F(OSCQueryListenerTest, AListenerThatNeverReadsIsLetGoWithoutDelayingTheOthers) {
    LogLines log;
    start({.backlog = 16384});
    int stuck = StuckListener(port, "/x");
    std::string received; // how many of the forty heard the last push
    std::jthread clients([&] {
        received = Shell("/usr/bin/python3 " QUORVA_TEST_SOURCE_DIR "/websocket_client.py listeners " +
                         std::to_string(port) + " 40 /x");
    });
    ASSERT_TRUE(WaitFor([&] { return listening == 41; }, 30, 0.01)) << listening;

    const std::string letGo = "OSCQuery: a WebSocket client that does not read what it listens to was let go";
    const std::vector<uint8_t> packet = OSCMessage("/x", {std::string(8000, 'x')}).packet();
    for (int i = 0; i < 1000 && !log.has(letGo); ++i) {
        listener->push("/x", packet);
        auto asked = std::chrono::steady_clock::now();
        EXPECT_EQ(StatusLine(port, Request), OK);
        // Far more than an answer takes even on a busy machine, far less than a stuck write would hold it.
        EXPECT_LT(std::chrono::steady_clock::now() - asked, 1s);
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_TRUE(log.has(letGo));
    listener->push("/x", OSCMessage("/x", {std::string("done")}).packet());
    clients.join();
    EXPECT_EQ(received, "40\n");
    std::string all = log.all();
    EXPECT_EQ(all.find(letGo), all.rfind(letGo)) << all; // only the one that never read
    ::close(stuck);
}

} // namespace
} // namespace quorva
