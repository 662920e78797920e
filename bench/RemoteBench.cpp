// What the remote side keeps up with while a take is recording (one test pattern, 720p30, into its own
// movie): OSC messages applied each second, and OSCQuery requests answered each second, one value or the
// whole tree with its 123 values. A small client on the loopback plays the remote.
#include "core/RecorderController.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/SettingsStore.h"
#include "platform/gpu/GpuDevice.h"
#include "remote/RecorderNetwork.h"
#include "sources/TestPatternDirectory.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
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
