// How many 1920 × 1080 frames a second one MovieRecorder sustains for each codec, beside the ffmpeg
// command-line tool turning the same BGRA pictures into a movie with the same encoder settings, timed
// in the same run; the ratio is what to read. A second benchmark times the picture engine's conversion of
// one picture into each codec's pixel format alone, a third what fragments of one second cost a movie
// against fragments of ten (its size, and the processor time of writing it), and a fourth the processor
// time of a movie where every other slot is held. QUORVA_VULKAN_DEVICE names part of the device to use and
// QUORVA_PICTURES the engine; their names are in the report's context.
#include "bench/BenchSetup.h"
#include "core/movie/MovieRecorder.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/MediaClock.h"
#include "sources/TestPattern.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <string>
#include <sys/resource.h>
#include <thread>

namespace quorva {
namespace {

constexpr uint32_t Width = 1920, Height = 1080;
constexpr int Distinct = 16; // pictures drawn once and handed in over and over
constexpr int Frames = 180;  // three seconds at 60 frames a second

struct Pictures {
    std::vector<std::shared_ptr<Picture>> pictures;
    std::vector<std::vector<uint8_t>> bytes; // the same pictures as BGRA, for ffmpeg
};

const Pictures& TestPictures() {
    static Pictures pictures = [] {
        Pictures made;
        auto pattern = TestPattern::make(Width, Height, false).value();
        for (int i = 0; i < Distinct; ++i) {
            auto drawn = pattern->drawFrame(uint64_t(i)).value();
            made.bytes.push_back(drawn->readPixels(0, 0, Width, Height).value());
            made.pictures.push_back(BenchEngine->adopt(drawn).value());
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
    const std::filesystem::path output = BenchFolder / ("ffmpeg-" + std::to_string(codec) + ".mov");
    std::filesystem::remove(output);
    const std::string command =
        "ffmpeg -loglevel error -f rawvideo -pix_fmt bgra -s 1920x1080 -r 60 -i pipe:0 " +
        EncoderOptions(codec) + " -frag_duration 1000000 -movflags +delay_moov -y " + output.string();
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
    Result<std::shared_ptr<MovieRecorder>> made = MovieRecorder::make(BenchEngine);
    const std::filesystem::path output = BenchFolder / ("recorder-" + std::to_string(codec) + ".mov");
    std::filesystem::remove(output);
    MovieRecorderSettings settings;
    settings.setCodec(Codec(codec));
    settings.setWidth(Width);
    settings.setHeight(Height);
    if (!made || !made.value()->startWritingToURL(output, settings, 0))
        return 0;
    const std::shared_ptr<MovieRecorder>& recorder = made.value();
    const double start = MediaClock::now();
    for (int i = 0; i < Frames; ++i) {
        while (recorder->framesPending() >= MovieRecorder::MaximumFramesInFlight)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        recorder->appendPicture(pictures.pictures[size_t(i % Distinct)], false, i / 60.0);
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
    state.SetLabel(NameOf(Codec(codec)));
}
BENCHMARK(RecordAt1080p)->DenseRange(0, 3)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// One 1080p picture converted into memory in the pixel format of codec state.range(0).
void ConvertA1080pPicture(benchmark::State& state) {
    const Pictures& pictures = TestPictures();
    auto converter = BenchEngine->makeFrameConverter().value();
    const int64_t codec = state.range(0);
    auto writer =
        MovieWriter::make(BenchFolder / "convert.mov", {Codec(codec), Width, Height, 60, 0, false}).value();
    const FrameFormat format = writer->frameFormat();
    int i = 0;
    for (auto _ : state) {
        std::promise<std::shared_ptr<FrameMemory>> converted;
        if (!converter->convert(pictures.pictures[size_t(i++ % Distinct)], false, false, format,
                                [&](std::shared_ptr<FrameMemory> memory) { converted.set_value(memory); })) {
            state.SkipWithError("the conversion was refused");
            break;
        }
        converted.get_future().wait();
    }
    writer->cancel();
    state.SetLabel(NameOf(Codec(codec)) + " on " + BenchEngine->name());
}
BENCHMARK(ConvertA1080pPicture)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->UseRealTime();

double ProcessorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

// The test pictures converted once into what `writer` takes.
std::vector<std::shared_ptr<FrameMemory>> ConvertedPictures(MovieWriter& writer) {
    auto converter = BenchEngine->makeFrameConverter().value();
    std::vector<std::shared_ptr<FrameMemory>> converted;
    for (const auto& picture : TestPictures().pictures) {
        std::promise<std::shared_ptr<FrameMemory>> done;
        (void)converter->convert(picture, false, false, writer.frameFormat(),
                                 [&](std::shared_ptr<FrameMemory> memory) { done.set_value(memory); });
        converted.push_back(done.get_future().get());
    }
    return converted;
}

// Writes ten seconds of 1080p60 of `format` straight with a movie writer, from pictures converted once, a
// picture every `step` slots (the slots between held), with silence where the format records sound: the
// processor time that the whole process spent writing it (the encoder's threads included), and the
// file's size. False, the benchmark skipped, when the movie could not be written.
bool WriteTenSeconds(benchmark::State& state, const MovieWriter::Format& format, int step, double& processor,
                     double& size) {
    const std::filesystem::path output = BenchFolder / "ten-seconds.mov";
    std::filesystem::remove(output);
    auto writer = MovieWriter::make(output, format).value();
    const std::vector<std::shared_ptr<FrameMemory>> converted = ConvertedPictures(*writer);
    const double start = ProcessorSeconds();
    for (int i = 0; i < 600; i += step) {
        const auto& memory = converted[size_t(i % Distinct)];
        if (!writer->appendFrame(writer->wrapFrame(memory->data(), [memory] {}), i) ||
            (format.recordsSound && !writer->appendSound(nullptr, 800 * step, int64_t(i) * 800))) {
            state.SkipWithError("the movie could not be written");
            return false;
        }
    }
    if (!writer->finish(600)) {
        state.SkipWithError("the movie could not be finished");
        return false;
    }
    processor = ProcessorSeconds() - start;
    size = double(std::filesystem::file_size(output));
    std::filesystem::remove(output);
    return true;
}

// Ten seconds of 1080p60 in codec state.range(0), cut into fragments of state.range(1) seconds: the file's
// size and the processor time of writing it, to compare one second with ten.
void WriteWithFragmentsOf(benchmark::State& state) {
    const Codec codec = Codec(state.range(0));
    const MovieWriter::Format format{.codec = codec,
                                     .width = Width,
                                     .height = Height,
                                     .framesPerSecond = 60,
                                     .recordsSound = true,
                                     .fragmentSeconds = double(state.range(1))};
    double size = 0, processor = 0;
    for (auto _ : state)
        if (!WriteTenSeconds(state, format, 1, processor, size))
            return;
    state.counters["file_MB"] = size / 1e6;
    state.counters["processor_s"] = processor;
    state.SetLabel(NameOf(codec) + ", fragments of " + std::to_string(state.range(1)) + " s");
}
BENCHMARK(WriteWithFragmentsOf)
    ->ArgsProduct({{0, 2}, {1, 10}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Ten seconds of 1080p60 in codec state.range(0) where every other slot gets no picture (state.range(1)
// 1) or every slot gets one (0): the processor time of writing it. What a held slot costs is the
// difference between the two, against half of what the pictures cost; an encoder starved of processor
// time drops pictures, and each dropped one is a held slot.
void WriteWithHeldSlots(benchmark::State& state) {
    const Codec codec = Codec(state.range(0));
    const bool holds = state.range(1) != 0;
    const MovieWriter::Format format{.codec = codec, .width = Width, .height = Height, .framesPerSecond = 60};
    double processor = 0, size = 0;
    for (auto _ : state)
        if (!WriteTenSeconds(state, format, holds ? 2 : 1, processor, size))
            return;
    state.counters["processor_s"] = processor;
    state.counters["file_MB"] = size / 1e6;
    state.SetLabel(NameOf(codec) + (holds ? ", every other slot held" : ", a picture every slot"));
}
BENCHMARK(WriteWithHeldSlots)
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace
} // namespace quorva

int main(int argc, char** argv) {
    return quorva::RunBenchmarks(argc, argv);
}
