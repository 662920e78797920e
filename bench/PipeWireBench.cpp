// What a picture from another program costs on its way through PipeWire, beside what encoding it costs:
// a GStreamer publisher sends 1920 × 1080 pictures, 30 a second, in the layout of state.range(0) (BGRx,
// I420, NV12), and a source hands them to a movie recorder (H.264) as a take does. Run inside a PipeWire
// session (tests/sources/with_pipewire.sh; ./quorva bench does it). Counters, processor milliseconds per
// picture: receive_ms on PipeWire's thread (taking the buffer, converting it into a picture), convert_ms
// for the picture's conversion into the encoder's frame (done once more on the handler's thread, to be
// timed apart), encode_ms for the recorder's work besides its own conversion of the picture (the encoder,
// the muxer), and the pictures written against those published.
#include "bench/BenchSetup.h"
#include "core/MovieRecorder.h"
#include "core/MovieWriter.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/MediaClock.h"
#include "sources/PipeWireDirectory.h"

#include <benchmark/benchmark.h>

#include <csignal>
#include <ctime>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace quorva {
namespace {

constexpr double Seconds = 5;
const char* const Layouts[] = {"BGRx", "I420", "NV12"};

std::shared_ptr<PictureEngine> Engine;
std::filesystem::path Folder;

double CpuSeconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// gst-launch-1.0 publishing "Bench" until it is ended.
pid_t Publish(const std::string& layout) {
    const std::string command = "exec gst-launch-1.0 -q videotestsrc pattern=smpte ! "
                                "video/x-raw,width=1920,height=1080,framerate=30/1"
                                " ! videoconvert ! video/x-raw,format=" +
                                layout +
                                " ! pipewiresink mode=provide "
                                "stream-properties=\"props,media.class=Video/Source,node.description=Bench\""
                                " >/dev/null 2>&1";
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    pid_t pid = 0;
    return posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) == 0 ? pid : 0;
}

// What the frame handler measures, on PipeWire's thread.
struct Measures {
    std::mutex lock;
    uint64_t pictures = 0;
    double firstThread = 0, lastThread = 0, firstProcess = 0, lastProcess = 0, converting = 0;
};

void ReceiveA1080pPicture(benchmark::State& state) {
    const std::string layout = Layouts[state.range(0)];
    const pid_t publisher = Publish(layout);
    PipeWireDirectory directory;
    std::shared_ptr<FrameSource> source;
    for (int i = 0; i < 200 && !source; ++i) {
        source = directory.connectToSourceWithTitle("Bench - gst-launch-1.0", Engine);
        if (!source)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!source) {
        kill(publisher, SIGTERM);
        waitpid(publisher, nullptr, 0);
        state.SkipWithError("no PipeWire publisher (run inside tests/sources/with_pipewire.sh)");
        return;
    }
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    auto recorder = MovieRecorder::make(Engine).value();
    MovieRecorderSettings settings;
    settings.setFramesPerSecond(30);
    auto converter = Engine->makeFrameConverter().value();
    auto writer = MovieWriter::make(Folder / "format.mov", {Codec::H264, 1920, 1080, 30, 0, false}).value();
    const FrameFormat format = writer->frameFormat();
    writer->cancel();
    Measures measures;
    for (auto _ : state) {
        if (!recorder->startWritingToURL(Folder / ("pipewire-" + layout + ".mov"), settings)) {
            state.SkipWithError("the movie could not be started");
            break;
        }
        source->setFrameHandler([&](const std::shared_ptr<Picture>& picture) {
            const double start = CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
            (void)converter->convert(picture, false, false, format, [](std::shared_ptr<FrameMemory>) {});
            const double converted = CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
            recorder->appendPicture(picture, false, MediaClock::now());
            std::lock_guard guard(measures.lock);
            if (measures.pictures++ == 0) {
                measures.firstThread = start;
                measures.firstProcess = CpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
            } else {
                measures.converting += converted - start;
            }
            measures.lastThread = CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
            measures.lastProcess = CpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
        });
        loop->runUntil([] { return false; }, Seconds);
        source->stop();
        bool done = false;
        recorder->finishAtTime(MediaClock::now(), [&](std::optional<Error>) { done = true; });
        loop->runUntil([&] { return done; }, 60);
        state.SetIterationTime(Seconds);
    }
    kill(publisher, SIGTERM);
    waitpid(publisher, nullptr, 0);
    EventLoop::setMainLoop(nullptr);
    const double pictures = double(measures.pictures - 1);
    if (pictures < 1) {
        state.SkipWithError("no picture arrived");
        return;
    }
    const double thread = measures.lastThread - measures.firstThread;
    const double process = measures.lastProcess - measures.firstProcess;
    state.counters["receive_ms"] = 1000 * (thread - measures.converting) / pictures;
    state.counters["convert_ms"] = 1000 * measures.converting / pictures;
    state.counters["encode_ms"] = 1000 * (process - thread - measures.converting) / pictures;
    state.counters["written"] = double(recorder->framesWritten());
    state.counters["published"] = Seconds * 30;
    state.SetLabel(layout + " on " + Engine->name());
}
BENCHMARK(ReceiveA1080pPicture)
    ->DenseRange(0, 2)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
} // namespace quorva

int main(int argc, char** argv) {
    quorva::Engine = quorva::SetUpBenchmark(argc, argv);
    quorva::ScratchFolder folder;
    quorva::Folder = folder.path();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
