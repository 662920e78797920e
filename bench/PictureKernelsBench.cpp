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

// Laid out as the movie writer lays frames out: planes one after the other, rows padded to 64 bytes.
FrameFormat Format(FrameLayout layout, uint32_t width, uint32_t height) {
    if (layout == FrameLayout::BGRA)
        return FrameFormat::bgra(width, height);
    const size_t sample = layout == FrameLayout::YUV420P ? 1 : 2;
    const uint32_t chromaWidth = layout == FrameLayout::YUVA444P10 ? width : (width + 1) / 2;
    const uint32_t chromaHeight = layout == FrameLayout::YUV420P ? (height + 1) / 2 : height;
    FrameFormat format{layout, width, height, {}, 0};
    const auto add = [&](uint32_t samples, uint32_t rows) {
        const size_t stride = (samples * sample + 63) / 64 * 64;
        format.planes.push_back({format.bytes, stride, rows});
        format.bytes += stride * rows;
    };
    add(width, height);
    add(chromaWidth, chromaHeight);
    add(chromaWidth, chromaHeight);
    if (layout == FrameLayout::YUVA444P10)
        add(width, height);
    format.bytes += 64;
    return format;
}

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
    const FrameFormat format = Format(layout, width, height);
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
