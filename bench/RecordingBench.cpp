// What a whole take costs: N live test patterns of 1920 × 1080 at 30 frames a second recorded through
// the RecorderController with output "both" (a movie per source and the grid of all of them), for N = 1,
// 2 and 4. It reports the frames written beside those due (from the sources' rates and the take's length)
// and those the recorder dropped, the share of its frames due that the worst movie wrote, the processor
// time per frame written (every thread of the process counted), the peak resident memory of the take,
// and the time from the start to the first picture a movie accepted, beside the ffmpeg command-line tool
// doing the same work in the same run: N testsrc2 inputs (and N tones) stacked into the same grid with
// xstack and encoded, plus each input encoded alone, with the same encoder settings and the preset that
// the take chose. `ratio` is ffmpeg's processor time per frame over the recorder's: above 1, the recorder
// does the work for less. The steady figures leave out the take's start and finish.
//
// --seconds=S shortens (or lengthens) each take from its 20 seconds. QUORVA_VULKAN_DEVICE names part of
// the device to use and QUORVA_PICTURES the picture engine; their names are in the report's context.
#include "bench/BenchSetup.h"
#include "core/Layout.h"
#include "core/MovieWriter.h"
#include "core/RecorderController.h"
#include "core/Take.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/MediaClock.h"
#include "sources/TestPatternSource.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>

namespace quorva {
namespace {

constexpr uint32_t Width = 1920, Height = 1080;
constexpr double Rate = 30;

std::shared_ptr<PictureEngine> Engine;
std::shared_ptr<EncoderSpeed> Speed; // measured before the first take, as a machine that has recorded before
std::filesystem::path Folder;
double Seconds = 20;

// N patterns of the same format, each under its own title: the built-in list has one of each format.
class BenchPatterns final : public SourceDirectory {
public:
    explicit BenchPatterns(int count) : _count(count) {}
    static std::string title(int i) { return "Bench Pattern " + std::to_string(i + 1); }

    std::vector<SourceDescription> availableSources() override {
        std::vector<SourceDescription> sources;
        for (int i = 0; i < _count; ++i)
            sources.emplace_back(title(i), "", SourceKindPattern);
        return sources;
    }
    std::shared_ptr<FrameSource>
    connectToSourceWithTitle(const std::string& title,
                             const std::shared_ptr<PictureEngine>& engine) override {
        auto source = TestPatternSource::make({title, Width, Height, Rate, false}, engine);
        return source ? source.value() : nullptr;
    }
    ChangeHandler changeHandler() const override { return {}; }
    void setChangeHandler(ChangeHandler) override {}

private:
    int _count;
};

// The peak resident memory of this process since the last reset, in megabytes.
double PeakMegabytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:"))
            return std::atof(line.c_str() + 6) / 1024;
    }
    return 0;
}

// Starts the peak over from what the process holds now.
void ResetPeakMemory() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

double ProcessorSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Figures {
    double processorSeconds = 0;
    uint64_t framesWritten = 0;
    uint64_t framesDue = 0;
    uint64_t framesDropped = 0;
    double worstShareWritten = 1; // of its frames due, by the movie that wrote the fewest
    double peakMegabytes = 0;     // resident
    double firstPictureSeconds = 0;
    std::string preset; // the take's, which ffmpeg then gets too
    // While recording only, without the take's start (encoders opened, shaders compiled) and finish.
    double steadyProcessorSeconds = 0;
    uint64_t steadyFrames = 0;
    bool ok = false;
};

uint64_t FramesWritten(const RecorderController& controller) {
    uint64_t frames = 0;
    for (const auto& movie : controller.moviesOfTheTake())
        frames += movie->framesWritten();
    return frames;
}

Figures RecordTake(int count) {
    Figures figures;
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    const std::filesystem::path folder = Folder / ("recorder-" + std::to_string(count));
    std::filesystem::create_directories(folder);
    {
        auto settings = std::make_shared<SettingsStore>(ApplicationIdentifier, folder / "settings");
        auto controller = RecorderController::make(Engine, std::make_shared<BenchPatterns>(count), nullptr,
                                                   settings, Speed);
        controller->setOutput("both");
        controller->setLayout("grid");
        controller->setFolder(folder.string());
        for (int i = 0; i < count; ++i)
            controller->addSourceMatching(BenchPatterns::title(i));
        controller->setSound(BenchPatterns::title(0));
        // The grid is laid out for the sizes of the first pictures.
        loop->runUntil(
            [&] {
                for (const auto& place : controller->places()) {
                    if (place->width() <= 0)
                        return false;
                }
                return true;
            },
            10);
        ResetPeakMemory();
        const double start = ProcessorSeconds(RUSAGE_SELF);
        const double startTime = MediaClock::now();
        if (controller->start()) {
            figures.preset = controller->encoderPreset();
            // The first picture that a movie of the take accepted, counted from the start, looked for
            // every millisecond.
            const TimerId poll = loop->scheduleTimer(0.001, [] {});
            loop->runUntil(
                [&] {
                    for (const auto& movie : controller->moviesOfTheTake()) {
                        if (movie->framesWritten() + movie->recorder()->framesPending() > 0)
                            return true;
                    }
                    return false;
                },
                10);
            figures.firstPictureSeconds = MediaClock::now() - startTime;
            loop->cancelTimer(poll);
            bool done = false;
            // One second to settle, then the steady part until the stop.
            double steadyStart = 0;
            uint64_t steadyFrames = 0;
            loop->postAfter(1, [&] {
                steadyStart = ProcessorSeconds(RUSAGE_SELF);
                steadyFrames = FramesWritten(*controller);
            });
            loop->postAfter(Seconds, [&] {
                figures.steadyProcessorSeconds = ProcessorSeconds(RUSAGE_SELF) - steadyStart;
                figures.steadyFrames = FramesWritten(*controller) - steadyFrames;
                controller->stopWithCompletionHandler([&] { done = true; });
            });
            loop->runUntil([&] { return done; }, Seconds + 600);
            figures.processorSeconds = ProcessorSeconds(RUSAGE_SELF) - start;
            figures.ok = done && controller->recordingError().empty();
            for (const auto& movie : controller->moviesOfTheTake()) {
                const uint64_t due = controller->framesDue(*movie);
                figures.framesWritten += movie->framesWritten();
                figures.framesDue += due;
                figures.framesDropped += movie->framesDropped();
                if (due > 0)
                    figures.worstShareWritten =
                        std::min(figures.worstShareWritten, double(movie->framesWritten()) / double(due));
            }
            figures.peakMegabytes = PeakMegabytes();
        }
    }
    EventLoop::setMainLoop(nullptr);
    std::filesystem::remove_all(folder);
    return figures;
}

// The options that match what the movie writer asks of libx264 and the AAC encoder.
std::string EncoderOptions(int64_t width, int64_t height, const std::string& preset) {
    return "-c:v libx264 -preset " + preset + " -b:v " +
           std::to_string(MovieBitRate(Codec::H264, width, height, Rate, 0)) + " -g " +
           std::to_string(int(std::ceil(2 * Rate))) +
           " -bf 0 -pix_fmt yuv420p -color_primaries bt709 -color_trc bt709 -colorspace bt709 -color_range tv"
           " -c:a aac -aac_coder fast -b:a 256k -ar 48000 -ac 2 -frag_duration 10000000 -movflags "
           "+delay_moov -y ";
}

// The same take made by ffmpeg in one process, timed by the processor time of its process.
Figures FFmpegTake(int count, const std::string& preset) {
    Figures figures;
    std::vector<Size> sizes(size_t(count), Size{double(Width), double(Height)});
    const Layout grid(LayoutKind::Grid, sizes, 0, Size{0, 0});
    const std::filesystem::path folder = Folder / ("ffmpeg-" + std::to_string(count));
    std::filesystem::create_directories(folder);
    const std::string seconds = std::to_string(Seconds);
    std::string command = "ffmpeg -nostdin -loglevel error";
    for (int i = 0; i < count; ++i)
        command += " -f lavfi -i testsrc2=s=" + std::to_string(Width) + "x" + std::to_string(Height) +
                   ":r=" + std::to_string(int(Rate)) + ":d=" + seconds;
    for (int i = 0; i < count; ++i)
        command += " -f lavfi -i sine=f=1000:r=48000:d=" + seconds;
    std::string filter, stack;
    for (int i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        filter += "[" + n + ":v]split[s" + n + "][g" + n + "];";
        stack += "[g" + n + "]";
    }
    const std::string firstTone = std::to_string(count);
    filter += "[" + firstTone + ":a]asplit[a0][t0];";
    if (count == 1) {
        filter += "[g0]null[grid]";
    } else {
        std::string places;
        for (const Rect& frame : grid.frames()) {
            if (!places.empty())
                places += "|";
            places += std::to_string(int(frame.x)) + "_" + std::to_string(int(frame.y));
        }
        filter += stack + "xstack=inputs=" + std::to_string(count) + ":layout=" + places + "[grid]";
    }
    command += " -filter_complex \"" + filter + "\"";
    command += " -map [grid] -map [t0] " +
               EncoderOptions(int64_t(grid.size().width), int64_t(grid.size().height), preset) +
               (folder / "grid.mov").string();
    for (int i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        const std::string sound = i == 0 ? "[a0]" : std::to_string(count + i) + ":a";
        command += " -map [s" + n + "] -map " + sound + " " + EncoderOptions(Width, Height, preset) +
                   (folder / ("source-" + n + ".mov")).string();
    }
    // GNU time reports ffmpeg's own peak: this process's children inherit its size when they fork.
    const std::filesystem::path peak = folder / "peak";
    command = "/usr/bin/time -f %M -o " + peak.string() + " " + command;
    const double start = ProcessorSeconds(RUSAGE_CHILDREN);
    figures.ok = std::system(command.c_str()) == 0;
    figures.processorSeconds = ProcessorSeconds(RUSAGE_CHILDREN) - start;
    std::ifstream(peak) >> figures.peakMegabytes;
    figures.peakMegabytes /= 1024;
    figures.framesWritten = uint64_t(std::lround(Seconds * Rate)) * uint64_t(count + 1);
    std::filesystem::remove_all(folder);
    return figures;
}

void RecordTestPatterns(benchmark::State& state) {
    const int count = int(state.range(0));
    Figures recorder, ffmpeg;
    for (auto _ : state) {
        const double start = MediaClock::now();
        recorder = RecordTake(count);
        state.SetIterationTime(MediaClock::now() - start);
        ffmpeg = FFmpegTake(count, recorder.preset);
    }
    if (!recorder.ok || !ffmpeg.ok || recorder.framesWritten == 0) {
        state.SkipWithError("a take could not be recorded");
        return;
    }
    const double recorderPerFrame = recorder.processorSeconds / double(recorder.framesWritten);
    const double ffmpegPerFrame = ffmpeg.processorSeconds / double(ffmpeg.framesWritten);
    state.counters["frames"] = double(recorder.framesWritten);
    // What a machine that keeps up writes: every source's pictures and as many assembled ones. Frames
    // that the sources could not draw in time never reach the recorders, so `dropped` alone hides them.
    state.counters["frames_due"] = double(recorder.framesDue);
    state.counters["dropped"] = double(recorder.framesDropped);
    state.counters["worst_movie_written_percent"] = 100 * recorder.worstShareWritten;
    state.counters["peak_MB"] = recorder.peakMegabytes;
    state.counters["ffmpeg_peak_MB"] = ffmpeg.peakMegabytes;
    state.counters["first_picture_ms"] = 1000 * recorder.firstPictureSeconds;
    state.counters["cpu_ms_per_frame"] = recorderPerFrame * 1000;
    state.counters["ffmpeg_cpu_ms_per_frame"] = ffmpegPerFrame * 1000;
    state.counters["ratio"] = ffmpegPerFrame / recorderPerFrame;
    if (recorder.steadyFrames > 0) {
        const double steadyPerFrame = recorder.steadyProcessorSeconds / double(recorder.steadyFrames);
        state.counters["steady_cpu_ms_per_frame"] = steadyPerFrame * 1000;
        state.counters["steady_ratio"] = ffmpegPerFrame / steadyPerFrame;
    }
    state.SetLabel(std::to_string(count) + " × 1080p30, both, " + std::to_string(int(Seconds)) + " s, " +
                   recorder.preset);
}
BENCHMARK(RecordTestPatterns)
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

} // namespace
} // namespace quorva

int main(int argc, char** argv) {
    // --seconds is ours; Google Benchmark refuses flags it does not know.
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (argument.starts_with("--seconds=") && std::atof(argument.c_str() + 10) > 0) {
            quorva::Seconds = std::atof(argument.c_str() + 10);
            argv[i--] = argv[--argc];
        }
    }
    quorva::Engine = quorva::SetUpBenchmark(argc, argv);
    quorva::Speed = quorva::EncoderSpeed::make(std::make_shared<quorva::SettingsStore>());
    quorva::Speed->speeds(quorva::Codec::H264);
    quorva::ScratchFolder folder;
    quorva::Folder = folder.path();
    benchmark::AddCustomContext("seconds_per_take", std::to_string(quorva::Seconds));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
