#pragma once

#include "platform/HeadlessEventLoop.h"
#include "platform/Log.h"
#include "tests/Processes.h"
#include "tests/core/Limits.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <utility>
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
    bool waitFor(const std::string& line) {
        return WaitFor([&] { return has(line); }, 30, 0.01);
    }
    std::string all() {
        std::lock_guard guard(lock);
        std::string text;
        for (const auto& line : lines)
            text += line + "\n";
        return text;
    }
};

// 127.0.0.1:port, for connecting and sending to.
inline sockaddr_in Loopback(int port) {
    return {AF_INET, htons(uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

// `fd` connected to 127.0.0.1:port, or connecting when it does not block.
inline int Connected(int fd, int port) {
    sockaddr_in to = Loopback(port);
    ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to);
    return fd;
}

// A socket bound to every interface, or to 127.0.0.`host`, on `port` (0: one the system picks), so that a
// test can take a port away or be a client from another address.
inline int BoundSocket(int type, int port = 0, int host = 0) {
    int fd = ::socket(AF_INET, type, 0);
    sockaddr_in address{AF_INET, htons(uint16_t(port)), {host ? htonl(0x7f000000u | uint32_t(host)) : 0}, {}};
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

struct Answer {
    int status = 0;
    std::string head, body;
};

// One request with curl: the status, the headers and the body.
inline Answer Curl(int port, const std::string& target, const std::string& options = "") {
    std::string out = Shell("curl -s -i --max-time 10 " + options +
                            " 'http://127.0.0.1:" + std::to_string(port) + target + "'");
    int status = 0;
    std::sscanf(out.c_str(), "HTTP/1.1 %d", &status);
    size_t end = out.find("\r\n\r\n");
    return {status, out.substr(0, end), end == std::string::npos ? "" : out.substr(end + 4)};
}

// The status line answered to raw bytes, or "" when the server closed without answering.
inline std::string StatusLine(int port, const std::string& request) {
    int fd = Connected(::socket(AF_INET, SOCK_STREAM, 0), port);
    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    std::string answer;
    char buffer[4096];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;)
        answer.append(buffer, size_t(n));
    ::close(fd);
    return answer.substr(0, answer.find("\r\n"));
}

// `quorvarecorder --headless` in a process of its own, with its settings in a folder `dir` of the test's
// own named after `name` and its stderr in dir/log, started on (or after) the given ports with `options`;
// the ports it found are read from its log. It must exit cleanly when it is stopped.
struct HeadlessRecorder {
    std::string dir;
    pid_t pid = 0;
    int oscPort = 0, queryPort = 0;

    HeadlessRecorder(const std::string& name, int wantedOSCPort, int wantedQueryPort,
                     const std::string& options = "")
        : dir(::testing::TempDir() + "headless-" + name + "-" + std::to_string(::getpid())) {
        Shell("mkdir -p " + dir + "/config && chmod 700 " + dir);
        // The shell execs the recorder in its place, so that the signals reach the recorder itself.
        // No system bus: nothing is announced from a test.
        std::string command = "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent XDG_CONFIG_HOME=" + dir +
                              "/config XDG_RUNTIME_DIR=" + dir +
                              " QUORVA_OSC_PORT=" + std::to_string(wantedOSCPort) +
                              " QUORVA_OSCQUERY_PORT=" + std::to_string(wantedQueryPort) +
                              " exec " QUORVA_RECORDER_PATH " --headless " + options + " 2>" + dir + "/log";
        pid = Spawn(command);
        const std::string started = "OSCQuery server started on TCP port ";
        (void)WaitFor(
            [&] {
                std::string text = log();
                size_t at = text.find(started);
                return at != std::string::npos &&
                       std::sscanf(text.c_str() + at + started.size(), "%d (namespace of OSC port %d)",
                                   &queryPort, &oscPort) == 2;
            },
            30, 0.05);
    }
    ~HeadlessRecorder() {
        EXPECT_EQ(pid ? stop() : 0, 0) << log();
        std::filesystem::remove_all(dir);
    }
    std::string log() const { return Shell("cat " + dir + "/log 2>/dev/null"); }
    int stop() { return End(std::exchange(pid, 0)); }
    void send(const std::string& arguments) const {
        Shell("oscsend 127.0.0.1 " + std::to_string(oscPort) + " " + arguments);
    }
    // Waits up to 20 seconds for `address` to read `expected` over OSCQuery, and answers what it read last.
    nlohmann::json value(const std::string& address, const nlohmann::json& expected = {}) const {
        nlohmann::json read;
        (void)WaitFor(
            [&] {
                auto answer = nlohmann::json::parse(Curl(queryPort, address + "?VALUE").body, nullptr, false);
                read = answer.is_object() ? answer["VALUE"][0] : nlohmann::json();
                return expected.is_null() || read == expected;
            },
            20, 0.1);
        return read;
    }
};

} // namespace quorva::testing
