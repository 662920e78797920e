#pragma once

#include "platform/HeadlessEventLoop.h"
#include "platform/Log.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace quorva::testing {

// A main loop on a thread of its own, so that the test's thread can play the client meanwhile.
struct MainThread {
    std::shared_ptr<HeadlessEventLoop> loop = std::make_shared<HeadlessEventLoop>();
    std::thread thread;
    MainThread() {
        EventLoop::setMainLoop(loop);
        thread = std::thread([this] { loop->run(); });
    }
    ~MainThread() {
        loop->stop();
        thread.join();
        EventLoop::setMainLoop(nullptr);
    }
};

// Every line logged while it lives.
struct LogLines {
    std::mutex lock;
    std::vector<std::string> lines;
    LogLines() {
        SetLogSink([this](const std::string& line) {
            std::lock_guard guard(lock);
            lines.push_back(line);
        });
    }
    ~LogLines() { SetLogSink({}); }
    bool has(const std::string& line) {
        std::lock_guard guard(lock);
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    // Waits up to ten seconds for a line.
    bool waitFor(const std::string& line) {
        for (int i = 0; i < 1000 && !has(line); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return has(line);
    }
};

// Standard output of a shell command.
inline std::string Shell(const std::string& command) {
    std::string out;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
            out.append(buffer, n);
        ::pclose(pipe);
    }
    return out;
}

// A socket bound to 127.0.0.1 (port 0: one the system picks), so that a test can take a port away.
inline int BoundSocket(int type, int port = 0) {
    int fd = ::socket(AF_INET, type, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    if (type == SOCK_STREAM)
        ::listen(fd, 1);
    return fd;
}

inline int PortOf(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

} // namespace quorva::testing
