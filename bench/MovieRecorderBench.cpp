// How many 1920 × 1080 frames a second one MovieRecorder sustains for each codec, beside the ffmpeg
// command-line tool turning the same BGRA pictures into a movie with the same encoder settings, timed
// in the same run; the ratio is what to read. A second benchmark times the recorder's conversion alone,
// on the GPU and with the processor finishing it (libswscale), which is how the GPU path was chosen.
// QUORVA_VULKAN_DEVICE names part of the device to use; its name is in the report's context.
#include "bench/BenchSetup.h"
#include "core/FrameConverter.h"
#include "core/MovieRecorder.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/MediaClock.h"
#include "sources/TestPattern.h"

extern "C" {
#include <libswscale/swscale.h>
}

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

namespace quorva {
namespace {

constexpr uint32_t Width = 1920, Height = 1080;
constexpr int Distinct = 16; // pictures drawn once and handed in over and over
constexpr int Frames = 180;  // three seconds at 60 frames a second

std::shared_ptr<GpuDevice> Device;
std::filesystem::path Folder;

struct Pictures {
    std::shared_ptr<CommandQueue> queue;
    std::vector<std::shared_ptr<Texture>> textures;
    std::vector<std::vector<uint8_t>> bytes; // the same pictures as BGRA, for ffmpeg
};

const Pictures& TestPictures() {
    static Pictures pictures = [] {
        Pictures made;
        made.queue = CommandQueue::make(Device).value();
        auto pattern = TestPattern::make(made.queue, Width, Height, false).value();
        for (int i = 0; i < Distinct; ++i) {
            std::promise<void> drawn;
            auto texture = pattern->drawFrame(uint64_t(i), [&](const auto&) { drawn.set_value(); }).value();
            drawn.get_future().wait();
            made.bytes.push_back(texture->readPixels().value());
            made.textures.push_back(std::move(texture));
        }
        return made;
    }();
    return pictures;
}

// The ffmpeg options that match what the movie writer asks of each encoder.
std::string EncoderOptions(int64_t codec) {
    const std::string colour = " -color_primaries bt709 -color_trc bt709 -colorspace bt709 -color_range tv";
    switch (codec) {
    case 1:
        return "-c:v libx265 -preset ultrafast -x265-params log-level=error:bframes=0 -b:v 7464960 -g 120 "
               "-pix_fmt yuv420p" +
               colour;
    case 2:
        return "-c:v prores_ks -profile:v standard -qscale:v 9 -pix_fmt yuv422p10le" + colour;
    case 3:
        return "-c:v prores_ks -profile:v 4444 -qscale:v 9 -pix_fmt yuva444p10le" + colour;
    default:
        return "-c:v libx264 -preset veryfast -b:v 12441600 -g 120 -bf 0 -pix_fmt yuv420p" + colour;
    }
}

// Seconds ffmpeg takes to turn the pictures, piped in as raw BGRA, into a fragmented movie.
double FFmpegSeconds(int64_t codec) {
    const Pictures& pictures = TestPictures();
    const std::filesystem::path output = Folder / ("ffmpeg-" + std::to_string(codec) + ".mov");
    std::filesystem::remove(output);
    const std::string command =
        "ffmpeg -loglevel error -f rawvideo -pix_fmt bgra -s 1920x1080 -r 60 -i pipe:0 " +
        EncoderOptions(codec) + " -frag_duration 10000000 -movflags +delay_moov -y " + output.string();
    const double start = MediaClock::now();
    FILE* pipe = popen(command.c_str(), "w");
    if (!pipe)
        return 0;
    for (int i = 0; i < Frames; ++i)
        std::fwrite(pictures.bytes[size_t(i % Distinct)].data(), 1, Width * Height * 4, pipe);
    const bool ok = pclose(pipe) == 0;
    const double seconds = MediaClock::now() - start;
    std::filesystem::remove(output);
    return ok ? seconds : 0;
}

// Seconds one recorder takes from its first frame to its finished movie, handed frames as fast as it
// takes them without dropping any.
double RecorderSeconds(int64_t codec, uint64_t& dropped) {
    const Pictures& pictures = TestPictures();
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    auto recorder = MovieRecorder::make(pictures.queue);
    const std::filesystem::path output = Folder / ("recorder-" + std::to_string(codec) + ".mov");
    std::filesystem::remove(output);
    MovieRecorderSettings settings;
    settings.setCodec(codec);
    settings.setWidth(Width);
    settings.setHeight(Height);
    if (!recorder || !recorder->startWritingToURL(output, settings, 0))
        return 0;
    const double start = MediaClock::now();
    for (int i = 0; i < Frames; ++i) {
        while (recorder->framesPending() >= MovieRecorder::MaximumFramesInFlight)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        recorder->appendTexture(pictures.textures[size_t(i % Distinct)], false, i / 60.0);
    }
    bool done = false, ok = false;
    recorder->finishAtTime(Frames / 60.0, [&](std::optional<Error> error) {
        ok = !error;
        done = true;
    });
    loop->runUntil([&] { return done; }, 600);
    const double seconds = MediaClock::now() - start;
    dropped = recorder->framesDropped();
    EventLoop::setMainLoop(nullptr);
    std::filesystem::remove(output);
    return ok ? seconds : 0;
}

void RecordAt1080p(benchmark::State& state) {
    const int64_t codec = state.range(0);
    double recorder = 0, ffmpeg = 0;
    uint64_t dropped = 0;
    for (auto _ : state) {
        recorder = RecorderSeconds(codec, dropped);
        ffmpeg = FFmpegSeconds(codec);
        state.SetIterationTime(recorder);
    }
    if (recorder <= 0 || ffmpeg <= 0) {
        state.SkipWithError("a movie could not be written");
        return;
    }
    state.counters["recorder_fps"] = Frames / recorder;
    state.counters["ffmpeg_fps"] = Frames / ffmpeg;
    state.counters["ratio"] = ffmpeg / recorder;
    state.counters["dropped"] = double(dropped);
    state.SetLabel(MovieRecorderSettings::nameForCodec(codec));
}
BENCHMARK(RecordAt1080p)->DenseRange(0, 3)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// One 1080p picture to 4:2:0 in memory: in one GPU pass (state.range(0) == 0), or fitted on the GPU
// as BGRA and converted by libswscale on the processor (1).
void ConvertA1080pPicture(benchmark::State& state) {
    const Pictures& pictures = TestPictures();
    auto converter = FrameConverter::make(pictures.queue).value();
    auto writer = MovieWriter::make(Folder / "convert.mov", {0, Width, Height, 60, 0, false}).value();
    const bool processor = state.range(0) == 1;
    const FrameFormat format = processor ? FrameFormat::bgra(Width, Height) : FrameFormatOf(*writer);
    SwsContext* scale = sws_getContext(int(Width), int(Height), AV_PIX_FMT_BGRA, int(Width), int(Height),
                                       AV_PIX_FMT_YUV420P, SWS_POINT, nullptr, nullptr, nullptr);
    const int* coefficients = sws_getCoefficients(SWS_CS_ITU709);
    sws_setColorspaceDetails(scale, coefficients, 1, coefficients, 0, 0, 1 << 16, 1 << 16);
    int i = 0;
    for (auto _ : state) {
        std::promise<std::shared_ptr<FrameMemory>> converted;
        auto texture = pictures.textures[size_t(i++ % Distinct)];
        if (!converter->convert(texture, false, false, format,
                                [&](std::shared_ptr<FrameMemory> memory) { converted.set_value(memory); })) {
            state.SkipWithError("the conversion was refused");
            break;
        }
        std::shared_ptr<FrameMemory> memory = converted.get_future().get();
        if (processor) {
            MovieFrame frame = writer->makeFrame();
            const uint8_t* source[] = {memory->data()};
            const int stride[] = {int(Width * 4)};
            sws_scale(scale, source, stride, 0, int(Height), frame->data, frame->linesize);
        }
    }
    sws_freeContext(scale);
    writer->cancel();
    state.SetLabel(processor ? "GPU fit + libswscale" : "GPU fit and convert");
}
BENCHMARK(ConvertA1080pPicture)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
} // namespace quorva

int main(int argc, char** argv) {
    quorva::Device = quorva::SetUpBenchmark(argc, argv);
    quorva::ScratchFolder folder;
    quorva::Folder = folder.path();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
