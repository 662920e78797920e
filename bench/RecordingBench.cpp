// What a whole take costs, and whether it keeps real time: live test patterns recorded through the
// RecorderController with output "both" (a movie per source and the grid of all of them), as
// `quorvarecorder record` records them. The takes: N patterns of 1920 × 1080 at 30 frames a second for
// N = 1, 2 and 4, and the three built-in patterns as `./quorva run` records them (1080p60, 720p30 and
// Alpha 1080p30 with the 720p30 one's sound: a 3840 × 2160 grid at the 1080p60 pattern's rate).
//
// For each take it reports the frames written beside those due (from the rates the take fixed at its
// start, over its length) and those the recorder dropped; the share of its frames due that the worst
// movie wrote, then the same for the separate movies alone and for the assembled movie, beside the rate
// that movie was due, which need not be its clock source's; the processor time per frame written (every
// thread of the process counted), the peak resident memory of the take, and the time from the start to
// the first picture a movie accepted. The label lists every movie's frames written against due. Beside
// it, the ffmpeg command-line tool does the same work in the same run: one testsrc2 input (and one tone)
// per source at its size and rate, each encoded alone, plus their grid made with xstack at the assembled
// movie's rate, with the encoder settings of the recorder's movie writer and the preset that the take
// chose; its processor time and peak memory are its own process's. `ratio` is ffmpeg's processor time
// per frame over the recorder's: above 1, the recorder does the work for less. The steady figures leave
// out the take's start and finish.
//
// --seconds=S shortens (or lengthens) each take from its 20 seconds. --take=NxHpR adds a take of N patterns
// of H lines (16:9) at R pictures a second, "8x1080p60" say, for a machine with a GPU. QUORVA_VULKAN_DEVICE
// names part of the device to use and QUORVA_PICTURES the picture engine; their names are in the report's
// context. Where ffmpeg (or GNU time) is missing, as on a GPU machine lent bare, the takes are measured
// without the comparison.
#include "bench/BenchSetup.h"
#include "core/composition/Layout.h"
#include "core/control/RecorderController.h"
#include "core/movie/MovieWriter.h"
#include "core/movie/Take.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/MediaClock.h"
#include "sources/TestPatternDirectory.h"
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
#include <vector>

namespace quorva {
namespace {

std::shared_ptr<PictureEngine> Engine;
std::shared_ptr<EncoderSpeed> Speed; // measured before the first take, as a machine that has recorded before
std::filesystem::path Folder;
double Seconds = 20;

// One take to measure: its sources in their places' order, and the one whose sound the assembled movie
// keeps (each separate movie keeps its own).
struct TakeCase {
    std::string name; // after "RecordTestPatterns/"
    std::vector<TestPatternFormat> sources;
    size_t sound = 0;
};

// COUNT patterns of 16:9 pictures HEIGHT lines high, each under its own title (the built-in list has one
// pattern of each format).
TakeCase SameFormats(std::string name, int count, uint32_t height, double rate) {
    TakeCase take{std::move(name), {}, 0};
    for (int i = 0; i < count; ++i)
        take.sources.push_back(
            {"Bench Pattern " + std::to_string(i + 1), height * 16 / 9, height, rate, false});
    return take;
}

std::vector<TakeCase> TakeCases() {
    std::vector<TakeCase> cases;
    for (int count : {1, 2, 4})
        cases.push_back(SameFormats(std::to_string(count), count, 1080, 30));
    const auto& builtIn = TestPatternDirectory::formats();
    const auto sound = std::find_if(builtIn.begin(), builtIn.end(),
                                    [](const TestPatternFormat& format) { return format.height == 720; });
    cases.push_back({"built_in", builtIn, size_t(sound - builtIn.begin())});
    return cases;
}

// "1080p60", "720p30", "alpha 1080p30".
std::string FormatName(const TestPatternFormat& format) {
    return std::string(format.transparent ? "alpha " : "") + std::to_string(format.height) + "p" +
           std::to_string(std::lround(format.rate));
}

// "4 × 1080p30" when the sources share a format, else "1080p60 + 720p30 + alpha 1080p30".
std::string SourcesName(const std::vector<TestPatternFormat>& sources) {
    const bool same = std::all_of(sources.begin(), sources.end(), [&](const TestPatternFormat& format) {
        return FormatName(format) == FormatName(sources.front());
    });
    if (same)
        return std::to_string(sources.size()) + " × " + FormatName(sources.front());
    std::string name;
    for (const auto& format : sources)
        name += (name.empty() ? "" : " + ") + FormatName(format);
    return name;
}

// The case's patterns, offered under their titles.
class BenchPatterns final : public SourceDirectory {
public:
    explicit BenchPatterns(std::vector<TestPatternFormat> formats) : _formats(std::move(formats)) {}

    std::vector<SourceDescription> availableSources() override {
        std::vector<SourceDescription> sources;
        for (const auto& format : _formats)
            sources.emplace_back(format.title, "", SourceKindPattern);
        return sources;
    }
    std::shared_ptr<FrameSource>
    connectToSourceWithTitle(const std::string& title,
                             const std::shared_ptr<PictureEngine>& engine) override {
        for (const auto& format : _formats) {
            if (format.title != title)
                continue;
            auto source = TestPatternSource::make(format, engine);
            return source ? source.value() : nullptr;
        }
        return nullptr;
    }
    ChangeNotifier& changes() override { return _changes; }

private:
    const std::vector<TestPatternFormat> _formats;
    ChangeNotifier _changes;
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

struct MovieFigures {
    uint64_t written = 0;
    uint64_t due = 0;
    double share() const { return due > 0 ? double(written) / double(due) : 1; }
};

struct Figures {
    double processorSeconds = 0;
    uint64_t framesWritten = 0;
    uint64_t framesDue = 0;
    uint64_t framesDropped = 0;
    // Of its frames due, by the movie that wrote the fewest: of all, and of the separate movies alone.
    double worstShareWritten = 1;
    double worstSeparateShareWritten = 1;
    std::vector<MovieFigures> separate; // in the places' order
    MovieFigures assembled;
    double assembledRate = 0; // pictures a second that the assembled movie was due
    double peakMegabytes = 0; // resident
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

// What the take's movies hold once it has finished.
void CountMovies(const RecorderController& controller, Figures& figures) {
    for (const auto& movie : controller.moviesOfTheTake()) {
        const MovieFigures counted{movie->framesWritten(), controller.framesDue(*movie)};
        figures.framesWritten += counted.written;
        figures.framesDue += counted.due;
        figures.framesDropped += movie->framesDropped();
        figures.worstShareWritten = std::min(figures.worstShareWritten, counted.share());
        if (movie->sourceTitle().empty()) {
            figures.assembled = counted;
            figures.assembledRate = controller.dueRate(*movie);
        } else {
            figures.separate.push_back(counted);
            figures.worstSeparateShareWritten = std::min(figures.worstSeparateShareWritten, counted.share());
        }
    }
}

Figures RecordTake(const TakeCase& take) {
    Figures figures;
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    const std::filesystem::path folder = Folder / ("recorder-" + take.name);
    std::filesystem::create_directories(folder);
    {
        auto settings = std::make_shared<SettingsStore>(ApplicationIdentifier, folder / "settings");
        auto controller = RecorderController::make(Engine, std::make_shared<BenchPatterns>(take.sources),
                                                   nullptr, settings, Speed);
        controller->setOutput("both");
        controller->setLayout("grid");
        controller->setFolder(folder.string());
        // As `quorvarecorder record` takes it: nobody watches the monitor.
        controller->setPerformance(true);
        for (const auto& source : take.sources)
            controller->addSourceMatching(source.title);
        controller->setSound(take.sources[take.sound].title);
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
            CountMovies(*controller, figures);
            figures.peakMegabytes = PeakMegabytes();
        }
    }
    EventLoop::setMainLoop(nullptr);
    std::filesystem::remove_all(folder);
    return figures;
}

// What the movie writer asks of libx264 and the AAC encoder. With the frame rate setting at 0, as in
// these takes, it expects 60 pictures a second of every movie, whatever its source sends, and chooses the
// bit rate and the keyframe interval from that.
std::string EncoderOptions(int64_t width, int64_t height, const std::string& preset) {
    constexpr double WriterRate = 60;
    return "-c:v libx264 -preset " + preset + " -b:v " +
           std::to_string(MovieBitRate(Codec::H264, width, height, 0, 0)) + " -g " +
           std::to_string(int(std::ceil(2 * WriterRate))) +
           " -bf 0 -pix_fmt yuv420p -color_primaries bt709 -color_trc bt709 -colorspace bt709 -color_range tv"
           " -c:a aac -aac_coder fast -b:a 256k -ar 48000 -ac 2 -frag_duration 10000000 -movflags "
           "+delay_moov -y ";
}

// The same take made by ffmpeg in one process, timed by the processor time of its process: `recorded`
// gives the preset and the assembled movie's rate.
Figures FFmpegTake(const TakeCase& take, const Figures& recorded) {
    Figures figures;
    const auto& sources = take.sources;
    const size_t count = sources.size();
    std::vector<Size> sizes;
    for (const auto& source : sources)
        sizes.push_back(Size{double(source.width), double(source.height)});
    const Layout grid(LayoutKind::Grid, sizes, 0, Size{0, 0});
    const double gridRate = recorded.assembledRate;
    const std::filesystem::path folder = Folder / ("ffmpeg-" + take.name);
    std::filesystem::create_directories(folder);
    const std::string seconds = std::to_string(Seconds);
    std::string command = "ffmpeg -nostdin -loglevel error";
    for (const auto& source : sources)
        command += " -f lavfi -i testsrc2=s=" + std::to_string(source.width) + "x" +
                   std::to_string(source.height) + ":r=" + std::to_string(std::lround(source.rate)) +
                   ":d=" + seconds;
    for (size_t i = 0; i < count; ++i)
        command += " -f lavfi -i sine=f=1000:r=48000:d=" + seconds;
    // Each picture goes to its own movie and into the grid, fitted to its place there and repeated (or
    // thinned) to the grid's rate, as the compositor does.
    std::string filter, stack;
    for (size_t i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        const Rect& place = grid.frames()[i];
        std::string fitting;
        if (place.width != sizes[i].width || place.height != sizes[i].height)
            fitting += "scale=" + std::to_string(int(place.width)) + ":" + std::to_string(int(place.height));
        if (std::lround(sources[i].rate) != std::lround(gridRate))
            fitting +=
                (fitting.empty() ? "" : ",") + std::string("fps=") + std::to_string(std::lround(gridRate));
        filter += "[" + n + ":v]split[s" + n + "][g" + n + "];";
        if (!fitting.empty())
            filter += "[g" + n + "]" + fitting + "[f" + n + "];";
        stack += fitting.empty() ? "[g" + n + "]" : "[f" + n + "]";
    }
    filter += "[" + std::to_string(count + take.sound) + ":a]asplit[ga][sa];";
    if (count == 1) {
        filter += stack + "null[grid]";
    } else {
        std::string places;
        for (const Rect& frame : grid.frames()) {
            if (!places.empty())
                places += "|";
            places += std::to_string(int(frame.x)) + "_" + std::to_string(int(frame.y));
        }
        filter +=
            stack + "xstack=inputs=" + std::to_string(count) + ":layout=" + places + ":fill=black[grid]";
    }
    command += " -filter_complex \"" + filter + "\"";
    command += " -map [grid] -map [ga] " +
               EncoderOptions(int64_t(grid.size().width), int64_t(grid.size().height), recorded.preset) +
               (folder / "grid.mov").string();
    for (size_t i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        const std::string sound = i == take.sound ? "[sa]" : std::to_string(count + i) + ":a";
        command += " -map [s" + n + "] -map " + sound + " " +
                   EncoderOptions(sources[i].width, sources[i].height, recorded.preset) +
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
    double rates = gridRate;
    for (const auto& source : sources)
        rates += source.rate;
    figures.framesWritten = uint64_t(std::lround(Seconds * rates));
    std::filesystem::remove_all(folder);
    return figures;
}

bool FFmpegAtHand() {
    static const bool found = std::system("command -v ffmpeg >/dev/null && test -x /usr/bin/time") == 0;
    return found;
}

// "written/due" of every movie, the separate ones named by their format, then the grid with its rate.
std::string MoviesText(const TakeCase& take, const Figures& figures) {
    std::string text;
    for (size_t i = 0; i < figures.separate.size() && i < take.sources.size(); ++i)
        text += FormatName(take.sources[i]) + " " + std::to_string(figures.separate[i].written) + "/" +
                std::to_string(figures.separate[i].due) + ", ";
    return text + "grid at " + std::to_string(std::lround(figures.assembledRate)) + " fps " +
           std::to_string(figures.assembled.written) + "/" + std::to_string(figures.assembled.due);
}

void RecordTestPatterns(benchmark::State& state, const TakeCase& take) {
    Figures recorder, ffmpeg;
    for (auto _ : state) {
        const double start = MediaClock::now();
        recorder = RecordTake(take);
        state.SetIterationTime(MediaClock::now() - start);
        if (recorder.ok && FFmpegAtHand())
            ffmpeg = FFmpegTake(take, recorder);
    }
    if (!recorder.ok || (FFmpegAtHand() && !ffmpeg.ok) || recorder.framesWritten == 0) {
        state.SkipWithError("a take could not be recorded");
        return;
    }
    const double recorderPerFrame = recorder.processorSeconds / double(recorder.framesWritten);
    state.counters["frames"] = double(recorder.framesWritten);
    // What a machine that keeps up writes: every source's pictures and the assembled ones at their rate.
    // Frames that the sources could not draw in time never reach the recorders, so `dropped` alone hides
    // them.
    state.counters["frames_due"] = double(recorder.framesDue);
    state.counters["dropped"] = double(recorder.framesDropped);
    state.counters["worst_movie_written_percent"] = 100 * recorder.worstShareWritten;
    state.counters["separate_worst_written_percent"] = 100 * recorder.worstSeparateShareWritten;
    state.counters["grid_written_percent"] = 100 * recorder.assembled.share();
    state.counters["grid_fps"] = recorder.assembledRate;
    state.counters["peak_MB"] = recorder.peakMegabytes;
    state.counters["first_picture_ms"] = 1000 * recorder.firstPictureSeconds;
    state.counters["cpu_ms_per_frame"] = recorderPerFrame * 1000;
    const double steadyPerFrame =
        recorder.steadyFrames > 0 ? recorder.steadyProcessorSeconds / double(recorder.steadyFrames) : 0;
    if (steadyPerFrame > 0)
        state.counters["steady_cpu_ms_per_frame"] = steadyPerFrame * 1000;
    if (ffmpeg.ok) {
        const double ffmpegPerFrame = ffmpeg.processorSeconds / double(ffmpeg.framesWritten);
        state.counters["ffmpeg_peak_MB"] = ffmpeg.peakMegabytes;
        state.counters["ffmpeg_cpu_ms_per_frame"] = ffmpegPerFrame * 1000;
        state.counters["ratio"] = ffmpegPerFrame / recorderPerFrame;
        if (steadyPerFrame > 0)
            state.counters["steady_ratio"] = ffmpegPerFrame / steadyPerFrame;
    }
    state.SetLabel(SourcesName(take.sources) + ", both, " + std::to_string(std::lround(Seconds)) + " s, " +
                   recorder.preset + "; written/due: " + MoviesText(take, recorder));
}

} // namespace
} // namespace quorva

int main(int argc, char** argv) {
    // --seconds and --take are ours; Google Benchmark refuses flags it does not know.
    std::vector<quorva::TakeCase> takes = quorva::TakeCases();
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        int count = 0;
        unsigned height = 0;
        double rate = 0;
        if (argument.starts_with("--seconds=") && std::atof(argument.c_str() + 10) > 0)
            quorva::Seconds = std::atof(argument.c_str() + 10);
        else if (std::sscanf(argument.c_str(), "--take=%dx%up%lf", &count, &height, &rate) == 3 &&
                 count > 0 && height >= 90 && rate > 0)
            takes.push_back(quorva::SameFormats(argument.substr(7), count, height, rate));
        else
            continue;
        argv[i--] = argv[--argc];
    }
    quorva::Engine = quorva::SetUpBenchmark(argc, argv);
    quorva::Speed = quorva::EncoderSpeed::make(std::make_shared<quorva::SettingsStore>());
    quorva::Speed->speeds(quorva::Codec::H264);
    for (const quorva::TakeCase& take : takes)
        benchmark::RegisterBenchmark(("RecordTestPatterns/" + take.name).c_str(), quorva::RecordTestPatterns,
                                     take)
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kSecond);
    quorva::ScratchFolder folder;
    quorva::Folder = folder.path();
    benchmark::AddCustomContext("seconds_per_take", std::to_string(quorva::Seconds));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // As RunBenchmarks() does: the Vulkan device goes before the exit rather than among the static
    // destructors, which may run after the driver's own.
    quorva::Engine.reset();
    return 0;
}
