// The processor's picture kernels on one core: converting a BGRA picture into each of the encoders'
// layouts (and the BGRA copy), and making a picture opaque. The instruction set Highway chose is in the
// report's context. For scale: libyuv's ARGBToI420 (BT.601) takes about 0.36 ms for a 1080p picture on
// the development machine.
#include "platform/cpu/PictureKernels.h"

#include <benchmark/benchmark.h>
#include <hwy/targets.h>

#include <random>
#include <vector>

namespace quorva::cpu {
namespace {

constexpr const char* LayoutNames[] = {"YUV420P", "YUV422P10", "YUVA444P10", "BGRA"};

std::vector<uint8_t> RandomPicture(uint32_t width, uint32_t height) {
    std::vector<uint8_t> bytes(size_t(width) * height * 4);
    std::mt19937 random(1);
    for (uint8_t& byte : bytes)
        byte = uint8_t(random());
    return bytes;
}

// Arguments: the layout, width and height.
void ConvertPictureOnOneCore(benchmark::State& state) {
    const auto layout = FrameLayout(state.range(0));
    const auto width = uint32_t(state.range(1)), height = uint32_t(state.range(2));
    const std::vector<uint8_t> picture = RandomPicture(width, height);
    const FrameFormat format = FrameFormat::padded(layout, width, height);
    std::vector<uint8_t> frame(format.bytes);
    for (auto _ : state) {
        ConvertPicture(picture.data(), ptrdiff_t(width) * 4, format, frame.data());
        benchmark::DoNotOptimize(frame.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(picture.size()));
    state.SetLabel(LayoutNames[state.range(0)]);
}
BENCHMARK(ConvertPictureOnOneCore)
    ->Args({int64_t(FrameLayout::YUV420P), 1920, 1080})
    ->Args({int64_t(FrameLayout::YUV420P), 3840, 2160})
    ->Args({int64_t(FrameLayout::YUV422P10), 1920, 1080})
    ->Args({int64_t(FrameLayout::YUVA444P10), 1920, 1080})
    ->Args({int64_t(FrameLayout::BGRA), 1920, 1080})
    ->Unit(benchmark::kMillisecond);

void MakeOpaqueOnOneCore(benchmark::State& state) {
    std::vector<uint8_t> picture = RandomPicture(1920, 1080);
    for (auto _ : state) {
        MakeOpaque(picture.data(), 1920 * 4, 1920, 1080);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(picture.size()));
}
BENCHMARK(MakeOpaqueOnOneCore)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace quorva::cpu

// No GPU here, so not the other benchmarks' set-up, which makes a Vulkan device.
int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const int64_t targets = hwy::SupportedTargets() & HWY_TARGETS;
    benchmark::AddCustomContext("simd_target", hwy::TargetName(targets & -targets));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
