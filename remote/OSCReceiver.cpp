#include "remote/OSCReceiver.h"

#include "platform/EventLoop.h"
#include "platform/Log.h"
#include "platform/Semaphore.h"
#include "platform/SerialQueue.h"
#include "remote/ReadSource.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace quorva {
namespace {

constexpr int64_t PortsTried = 16;
constexpr size_t LargestDatagram = 65535;

// Reads every datagram waiting on the socket and posts the messages of each to the main thread.
void ReceiveDatagrams(int fd, const OSCReceiver::Handler& handler) {
    std::vector<uint8_t> buffer(LargestDatagram);
    for (;;) {
        ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
        if (n <= 0)
            break; // EAGAIN: nothing more is waiting
        std::vector<OSCMessage> messages = OSCMessage::messagesFromPacket(buffer.data(), size_t(n));
        if (messages.empty())
            continue;
        EventLoop::postToMain([handler, messages = std::move(messages)] {
            for (const OSCMessage& message : messages)
                handler(message);
        });
    }
}

} // namespace

OSCReceiver::OSCReceiver() : _queue(std::make_shared<SerialQueue>("osc-receiver")) {}

OSCReceiver::~OSCReceiver() {
    stop();
}

bool OSCReceiver::startOnPort(int64_t port, Handler handler) {
    stop();
    int fd = -1;
    int64_t bound = 0;
    int64_t last = std::min<int64_t>(port, 65520) + PortsTried - 1;
    for (int64_t candidate = port; candidate <= last && candidate <= 65535; ++candidate) {
        if (candidate < 0)
            continue;
        int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (s < 0) {
            Log("OSC: ", std::string("socket() failed: ") + std::strerror(errno));
            return false;
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        address.sin_port = htons(uint16_t(candidate));
        if (::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            socklen_t length = sizeof address;
            ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
            fd = s;
            bound = ntohs(address.sin_port);
            break;
        }
        ::close(s);
    }
    if (fd < 0) {
        Log("OSC: ", "no free UDP port from " + std::to_string(port) + " to " + std::to_string(port + 15));
        return false;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    _source = std::make_unique<ReadSource>(
        fd, _queue, [fd, handler = std::move(handler)] { ReceiveDatagrams(fd, handler); });
    _fd = fd;
    _port = bound;
    return true;
}

void OSCReceiver::stop() {
    if (!_source)
        return;
    std::unique_ptr<ReadSource> source = std::move(_source);
    _port = 0;
    // The socket is closed on the queue, after any read under way; the semaphore outlives a late close.
    auto closed = std::make_shared<Semaphore>();
    source->cancel([fd = std::exchange(_fd, -1), closed] {
        ::close(fd);
        closed->signal();
    });
    closed->wait(1.0);
}

} // namespace quorva
