#include "bench/SourceToEncoder.h"

#include "core/movie/MovieRecorder.h"
#include "core/movie/MovieWriter.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/MediaClock.h"

#include <ctime>
#include <mutex>

namespace quorva {

namespace {

double CpuSeconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// What the frame handler measures, on the source's thread.
struct Measures {
    std::mutex lock;
    uint64_t pictures = 0;
    double firstThread = 0, lastThread = 0, firstProcess = 0, lastProcess = 0, converting = 0;
};

} // namespace

void MeasureSourceToEncoder(benchmark::State& state, FrameSource& source,
                            const std::shared_ptr<PictureEngine>& engine, const std::filesystem::path& movie,
                            uint32_t width, uint32_t height, double rate, double seconds) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    auto recorder = MovieRecorder::make(engine).value();
    MovieRecorderSettings settings;
    settings.setFramesPerSecond(rate);
    auto converter = engine->makeFrameConverter().value();
    auto writer =
        MovieWriter::make(movie.parent_path() / "format.mov", {Codec::H264, width, height, rate, 0, false})
            .value();
    const FrameFormat format = writer->frameFormat();
    writer->cancel();
    Measures measures;
    for (auto _ : state) {
        if (!recorder->startWritingToURL(movie, settings)) {
            state.SkipWithError("the movie could not be started");
            break;
        }
        source.output().setFrameHandler([&](const std::shared_ptr<Picture>& picture) {
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
        loop->runUntil([] { return false; }, seconds);
        source.stop();
        bool done = false;
        recorder->finishAtTime(MediaClock::now(), [&](std::optional<Error>) { done = true; });
        loop->runUntil([&] { return done; }, 60);
        state.SetIterationTime(seconds);
    }
    EventLoop::setMainLoop(nullptr);
    const double pictures = double(measures.pictures - 1);
    if (measures.pictures < 2) {
        state.SkipWithError("no picture arrived");
        return;
    }
    const double thread = measures.lastThread - measures.firstThread;
    const double process = measures.lastProcess - measures.firstProcess;
    state.counters["receive_ms"] = 1000 * (thread - measures.converting) / pictures;
    state.counters["convert_ms"] = 1000 * measures.converting / pictures;
    state.counters["encode_ms"] = 1000 * (process - thread - measures.converting) / pictures;
    state.counters["written"] = double(recorder->framesWritten());
    state.counters["sent"] = seconds * rate;
}

} // namespace quorva
