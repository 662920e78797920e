// What the remote side keeps up with while a take is recording (one test pattern, 720p30, into its own
// movie): OSC messages applied each second, OSCQuery requests answered each second, one value or the
// whole tree with its 123 values, and how long the main thread stalls while a show controller changes
// settings. A small client on the loopback plays the remote.
#include "core/control/RecorderController.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/SettingsStore.h"
#include "platform/gpu/GpuDevice.h"
#include "remote/RecorderNetwork.h"
#include "sources/TestPatternDirectory.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>
#include <unistd.h>

namespace quorva {
namespace {

struct Recorder {
    std::shared_ptr<HeadlessEventLoop> loop = std::make_shared<HeadlessEventLoop>();
    std::thread thread;
    std::shared_ptr<RecorderController> controller;
    std::shared_ptr<RecorderNetwork> network;
    std::atomic<uint64_t> errors{0};
    std::string folder =
        std::filesystem::temp_directory_path() / ("remote-bench-" + std::to_string(::getpid()));
    std::string failure;

    template <class F>
    void onMain(F work) {
        std::promise<void> done;
        loop->post([&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }

    Recorder() {
        EventLoop::setMainLoop(loop);
        thread = std::thread([this] { loop->run(); });
        std::filesystem::create_directories(folder);
        onMain([&] {
            auto device = GpuDevice::make();
            auto engine = device ? PictureEngine::make(device.value())
                                 : Result<std::shared_ptr<PictureEngine>>(device.error());
            if (!engine) {
                failure = engine.error().message();
                return;
            }
            controller = RecorderController::make(engine.value(), std::make_shared<TestPatternDirectory>(),
                                                  nullptr, std::make_shared<SettingsStore>("bench", folder));
            controller->addObserver([this] { errors = controller->errorCount(); });
            network = RecorderNetwork::make(controller, "bench");
            if (!network->startNetworkWithOSCPort(39530, 39531, "QuorvaBench"))
                failure = controller->error();
            controller->setFolder(folder);
            controller->setOutput("separate");
            controller->setSourceMatching("720p30", 1);
        });
        // The pattern needs a moment to deliver its first pictures, without which nothing records.
        for (int i = 0; i < 100 && failure.empty(); ++i) {
            bool online = false;
            onMain([&] {
                online = !controller->places().empty() && controller->places()[0]->lastFrameTime() > 0;
            });
            if (online)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        onMain([&] {
            if (failure.empty() && !controller->start())
                failure = controller->error();
        });
    }
    ~Recorder() {
        std::promise<void> finished;
        onMain([&] {
            if (controller)
                controller->stopWithCompletionHandler([&] { finished.set_value(); });
            else
                finished.set_value();
        });
        finished.get_future().wait();
        onMain([&] {
            network.reset();
            controller.reset();
        });
        loop->stop();
        thread.join();
        EventLoop::setMainLoop(nullptr);
        std::filesystem::remove_all(folder);
    }
};

Recorder* TheRecorder = nullptr;

sockaddr_in Loopback(int64_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Messages to an unknown address: each one reaches the controller as an error, which counts them.
void OSCMessagesApplied(benchmark::State& state) {
    Recorder& r = *TheRecorder;
    if (!r.failure.empty()) {
        state.SkipWithError(r.failure.c_str());
        return;
    }
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = Loopback(r.network->oscPort());
    static const char message[] = "/nothing\0\0\0\0,i\0\0\0\0\0\1";
    constexpr uint64_t Batch = 64; // small enough for the socket's buffer
    for (auto _ : state) {
        uint64_t target = r.errors + Batch;
        for (uint64_t i = 0; i < Batch; ++i)
            ::sendto(fd, message, sizeof message - 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (r.errors < target) {
            if (std::chrono::steady_clock::now() > deadline) {
                state.SkipWithError("messages were lost");
                ::close(fd);
                return;
            }
            std::this_thread::yield();
        }
    }
    ::close(fd);
    state.counters["messages/s"] =
        benchmark::Counter(double(state.iterations() * Batch), benchmark::Counter::kIsRate);
}
BENCHMARK(OSCMessagesApplied)->UseRealTime()->MinTime(3);

void OSCQueryRequestsAnswered(benchmark::State& state, std::string target) {
    Recorder& r = *TheRecorder;
    if (!r.failure.empty()) {
        state.SkipWithError(r.failure.c_str());
        return;
    }
    std::string request = "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    sockaddr_in to = Loopback(r.network->oscQueryPort());
    char buffer[16384];
    size_t bytes = 0;
    for (auto _ : state) {
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to);
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;)
            bytes += size_t(n);
        ::close(fd);
    }
    state.counters["requests/s"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["bytes/request"] = double(bytes) / double(std::max<int64_t>(1, state.iterations()));
}
BENCHMARK_CAPTURE(OSCQueryRequestsAnswered, oneValue, std::string("/status/frames?VALUE"))
    ->UseRealTime()
    ->MinTime(3);
BENCHMARK_CAPTURE(OSCQueryRequestsAnswered, wholeTree, std::string("/"))->UseRealTime()->MinTime(3);

// An OSC message with one argument, 32-bit integer or text.
std::string OSCPacket(const std::string& address, const std::variant<int32_t, std::string>& argument) {
    auto padded = [](std::string text) {
        text.push_back('\0');
        text.resize((text.size() + 3) / 4 * 4, '\0');
        return text;
    };
    if (auto* number = std::get_if<int32_t>(&argument)) {
        uint32_t big = htonl(uint32_t(*number));
        std::string bytes(4, '\0');
        std::memcpy(bytes.data(), &big, 4);
        return padded(address) + padded(",i") + bytes;
    }
    return padded(address) + padded(",s") + padded(std::get<std::string>(argument));
}

// The longest wait, in milliseconds, of a task posted to the main loop every millisecond, and of an
// OSCQuery value asked for over and over, while 1,000 setting changes arrive over OSC, two a
// millisecond apart: the codec, the size, the gap, the layout, the name, each changing the settings
// file and most the monitor's picture.
void MainLoopStallsWhileSettingsChange(benchmark::State& state) {
    Recorder& r = *TheRecorder;
    if (!r.failure.empty()) {
        state.SkipWithError(r.failure.c_str());
        return;
    }
    constexpr int Changes = 1000;
    using Clock = std::chrono::steady_clock;
    auto milliseconds = [](Clock::duration d) {
        return std::chrono::duration<double, std::milli>(d).count();
    };
    for (auto _ : state) {
        std::atomic<bool> running = true;
        std::atomic<double> loopStall = 0, answerStall = 0;
        auto keepLongest = [](std::atomic<double>& longest, double value) {
            for (double seen = longest; value > seen && !longest.compare_exchange_weak(seen, value);) {
            }
        };
        std::thread ticker([&] {
            while (running) {
                Clock::time_point posted = Clock::now();
                r.loop->post([&, posted] { keepLongest(loopStall, milliseconds(Clock::now() - posted)); });
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        std::thread asker([&] {
            const std::string request = "GET /status/frames?VALUE HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
            sockaddr_in to = Loopback(r.network->oscQueryPort());
            char buffer[4096];
            while (running) {
                Clock::time_point asked = Clock::now();
                int fd = ::socket(AF_INET, SOCK_STREAM, 0);
                ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to);
                ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
                while (::recv(fd, buffer, sizeof buffer, 0) > 0) {
                }
                ::close(fd);
                keepLongest(answerStall, milliseconds(Clock::now() - asked));
            }
        });

        const std::vector<std::string> codecs = {"h264", "hevc", "prores422", "prores4444"};
        const std::vector<std::string> layouts = {"row", "column", "grid", "focus"};
        int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to = Loopback(r.network->oscPort());
        std::string lastName;
        for (int i = 0; i < Changes; ++i) {
            std::string packet;
            switch (i % 6) {
            case 0:
                packet = OSCPacket("/codec", codecs[size_t(i / 6) % codecs.size()]);
                break;
            case 1:
                packet = OSCPacket("/width", 1280 + 2 * (i % 64));
                break;
            case 2:
                packet = OSCPacket("/height", 720 + 2 * (i % 64));
                break;
            case 3:
                packet = OSCPacket("/gap", i % 32);
                break;
            case 4:
                packet = OSCPacket("/layout", layouts[size_t(i / 6) % layouts.size()]);
                break;
            default:
                lastName = "Take " + std::to_string(i);
                packet = OSCPacket("/name", lastName);
                break;
            }
            ::sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
            std::this_thread::sleep_for(std::chrono::microseconds(2000));
        }
        ::close(fd);
        // The main loop has caught up with the datagrams once the last name sent is applied.
        for (auto deadline = Clock::now() + std::chrono::seconds(30); Clock::now() < deadline;) {
            std::string name;
            r.onMain([&] { name = r.controller->name(); });
            if (name == lastName)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        running = false;
        ticker.join();
        asker.join();
        state.counters["main_loop_longest_stall_ms"] = loopStall.load();
        state.counters["oscquery_longest_answer_ms"] = answerStall.load();
    }
}
BENCHMARK(MainLoopStallsWhileSettingsChange)->UseRealTime()->Iterations(1)->Unit(benchmark::kSecond);

} // namespace
} // namespace quorva

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    quorva::TheRecorder = new quorva::Recorder();
    benchmark::RunSpecifiedBenchmarks();
    delete quorva::TheRecorder;
    benchmark::Shutdown();
    return 0;
}
