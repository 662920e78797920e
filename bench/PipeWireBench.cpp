// What a picture from another program costs on its way through PipeWire, beside what encoding it costs:
// a GStreamer publisher sends 1920 × 1080 pictures, 30 a second, in the layout of state.range(0) (BGRx,
// I420, NV12), and a source hands them to a movie recorder (H.264) as a take does; the counters are those
// of MeasureSourceToEncoder, receive_ms being PipeWire's thread taking the buffer and converting it into a
// picture. Run inside a PipeWire session (tests/sources/with_pipewire.sh; ./quorva bench does it).
#include "bench/BenchSetup.h"
#include "bench/SourceToEncoder.h"
#include "sources/PipeWireDirectory.h"

#include <benchmark/benchmark.h>

#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

extern char** environ;

namespace quorva {
namespace {

constexpr double Seconds = 5;
const char* const Layouts[] = {"BGRx", "I420", "NV12"};

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

void ReceiveA1080pPicture(benchmark::State& state) {
    const std::string layout = Layouts[state.range(0)];
    const pid_t publisher = Publish(layout);
    PipeWireDirectory directory;
    std::shared_ptr<FrameSource> source;
    for (int i = 0; i < 200 && !source; ++i) {
        source = directory.connectToSourceWithTitle("Bench - gst-launch-1.0", BenchEngine);
        if (!source)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!source) {
        kill(publisher, SIGTERM);
        waitpid(publisher, nullptr, 0);
        state.SkipWithError("no PipeWire publisher (run inside tests/sources/with_pipewire.sh)");
        return;
    }
    MeasureSourceToEncoder(state, *source, BenchEngine, BenchFolder / ("pipewire-" + layout + ".mov"), 1920,
                           1080, 30, Seconds);
    kill(publisher, SIGTERM);
    waitpid(publisher, nullptr, 0);
    state.SetLabel(layout + " on " + BenchEngine->name());
}
BENCHMARK(ReceiveA1080pPicture)
    ->DenseRange(0, 2)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
} // namespace quorva

int main(int argc, char** argv) {
    return quorva::RunBenchmarks(argc, argv);
}
