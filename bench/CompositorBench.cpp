// The compositor's cost at the recorder's largest picture: eight 1920 × 1080 sources assembled into a
// 3840 × 2160 grid, timed until each composition is drawn. QUORVA_VULKAN_DEVICE names part of the device
// to use (say "NVIDIA" or "llvmpipe") and QUORVA_PICTURES the engine; their names are in the report's
// context.
#include "bench/BenchSetup.h"
#include "core/composition/Compositor.h"
#include "sources/TestPattern.h"

#include <benchmark/benchmark.h>

#include <future>
#include <string>

namespace quorva {
namespace {

std::shared_ptr<PictureEngine> Engine;

void ComposeEightSourcesIntoA4KGrid(benchmark::State& state) {
    auto compositor = Compositor::make(Engine);
    if (!compositor) {
        state.SkipWithError("no compositor");
        return;
    }
    auto pattern = TestPattern::make(1920, 1080, false);
    if (!pattern) {
        state.SkipWithError(pattern.error().message().c_str());
        return;
    }
    std::vector<std::shared_ptr<Picture>> sources;
    for (uint64_t i = 0; i < 8; ++i) {
        auto drawn = pattern.value()->drawFrame(1000 * i);
        auto picture = drawn ? Engine->adopt(drawn.value()) : Result<std::shared_ptr<Picture>>(drawn.error());
        if (!picture) {
            state.SkipWithError(picture.error().message().c_str());
            return;
        }
        sources.push_back(picture.value());
    }
    Layout layout(LayoutKind::Grid, std::vector<Size>(8, Size{1920, 1080}), 0, {3840, 2160});
    std::vector<bool> flipped(8, false);

    for (auto _ : state) {
        std::promise<void> drawn;
        auto target = compositor.value()->compose(
            layout, sources, flipped, false, [&](const std::shared_ptr<Picture>&) { drawn.set_value(); });
        if (!target) {
            state.SkipWithError("a composition was refused");
            return;
        }
        drawn.get_future().wait();
    }
    state.counters["compositions/s"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    state.SetLabel(Engine->name());
}
BENCHMARK(ComposeEightSourcesIntoA4KGrid)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
} // namespace quorva

int main(int argc, char** argv) {
    quorva::Engine = quorva::SetUpBenchmark(argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    quorva::Engine.reset();
    return 0;
}
