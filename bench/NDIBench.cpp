// What a received NDI picture costs on its way to the encoder, beside what encoding it costs: a sender of
// the fake runtime (tests/fakes, which hands its pictures over at no cost of its own) sends 1920 × 1080
// pictures, 60 a second, as BGRX or BGRA (state.range(0)), and a source hands them to a movie recorder
// (H.264) as a take does; the counters are those of MeasureSourceToEncoder, receive_ms being the receive
// thread's copy of each picture into one of the engine's.
#include "bench/BenchSetup.h"
#include "bench/SourceToEncoder.h"
#include "sources/NDIDirectory.h"
#include "tests/fakes/FakeNDI.h"

#include <benchmark/benchmark.h>

#include <thread>

namespace quorva {
namespace {

constexpr double Seconds = 5;
const char* const Layouts[] = {"BGRX", "BGRA"};

void ReceiveA1080p60Picture(benchmark::State& state) {
    const char* layout = Layouts[state.range(0)];
    FakeNDISender sender;
    sender.name = "BENCH (Camera)";
    sender.fourcc = state.range(0) == 0 ? FakeNDIFourCC("BGRX") : FakeNDIFourCC("BGRA");
    sender.width = 1920, sender.height = 1080, sender.colour = 0xFF4080C0;
    sender.frameRateN = 60;
    const int id = FakeNDI_AddSender(&sender);
    NDIDirectory directory(NDILibrary::makeWithPath(QUORVA_FAKE_NDI));
    std::shared_ptr<FrameSource> source;
    for (int i = 0; i < 100 && !source; ++i) {
        source = directory.connectToSourceWithTitle(sender.name, BenchEngine);
        if (!source)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (source)
        MeasureSourceToEncoder(state, *source, BenchEngine,
                               BenchFolder / (std::string("ndi-") + layout + ".mov"), 1920, 1080, 60,
                               Seconds);
    else
        state.SkipWithError("the fake runtime's sender could not be received");
    FakeNDI_RemoveSender(id);
    state.SetLabel(std::string(layout) + " on " + BenchEngine->name());
}
BENCHMARK(ReceiveA1080p60Picture)
    ->DenseRange(0, 1)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
} // namespace quorva

int main(int argc, char** argv) {
    return quorva::RunBenchmarks(argc, argv);
}
