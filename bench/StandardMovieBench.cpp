// What making a long ProRes movie standard costs at its finish: following its fragments (as the writer
// does after each one reaches the file), then appending the standard header and hiding the fragments,
// each synced. The movie is 1080p60 ProRes 422 with 24-bit stereo sound and a timecode, cut into a
// fragment a second; a two-second clip repeated without encoding makes it quickly. QUORVA_MOVIE_GB sets
// its size (10 by default); it is removed at the end. Its size and fragments are in the report's context.
#include "core/movie/StandardMovie.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace quorva {
namespace {

namespace fs = std::filesystem;

fs::path Movie;
int64_t MovieSize = 0;

// The movie's first bytes, which hiding the fragments changes and each finish puts back.
constexpr size_t Head = 4096;

bool Run(const std::string& command) {
    if (std::system(command.c_str()) == 0)
        return true;
    std::fprintf(stderr, "standard_movie_bench: failed: %s\n", command.c_str());
    return false;
}

bool MakeMovie(const fs::path& folder, double gigabytes) {
    const fs::path clip = folder / "clip.mov";
    Movie = folder / "long.mov";
    if (!Run(
            "ffmpeg -v error -f lavfi -i testsrc2=rate=60:size=1920x1080 -f lavfi -i sine=r=48000 -t 2 -ac 2 "
            "-c:v prores_ks -profile:v standard -c:a pcm_s24le -f mov '" +
            clip.string() + "'") ||
        !Run("ffmpeg -v error -stream_loop -1 -i '" + clip.string() +
             "' -map 0:v -map 0:a -c copy -timecode 01:00:00:00 -fs " +
             std::to_string(int64_t(gigabytes * 1e9)) +
             " -movie_timescale 60000 -movflags +delay_moov -frag_duration 1000000 -f mov '" +
             Movie.string() + "'"))
        return false;
    fs::remove(clip);
    // As the writer leaves it at its finish: all of it on the disk, so that the steps' syncs write only
    // what they change.
    const int fd = ::open(Movie.c_str(), O_RDONLY | O_CLOEXEC);
    const bool synced = fd >= 0 && ::fsync(fd) == 0;
    if (fd >= 0)
        ::close(fd);
    MovieSize = int64_t(fs::file_size(Movie));
    return synced;
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Reading every fragment of the finished movie; per_fragment is the time of one. The writer reads each
// right after it reaches the file, from the page cache, as every iteration but the first does here.
void FollowTheFragments(benchmark::State& state) {
    const int fd = ::open(Movie.c_str(), O_RDWR | O_CLOEXEC);
    int64_t fragments = 0;
    for (auto _ : state) {
        StandardMovie movie(fd);
        const Result<> followed = movie.follow(MovieSize);
        if (!followed) {
            state.SkipWithError(followed.error().message().c_str());
            break;
        }
        fragments = movie.fragments();
    }
    ::close(fd);
    state.counters["fragments"] = double(fragments);
    state.counters["per_fragment"] = benchmark::Counter(
        double(fragments), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(FollowTheFragments)->Unit(benchmark::kMillisecond);

// The two steps of the finish, timed apart (seconds, syncs included); the file is put back as it was,
// fragmented, after each.
void FinishStandard(benchmark::State& state) {
    const int fd = ::open(Movie.c_str(), O_RDWR | O_CLOEXEC);
    char head[Head];
    if (::pread(fd, head, Head, 0) != ssize_t(Head)) {
        state.SkipWithError("the movie cannot be read");
        ::close(fd);
        return;
    }
    double append = 0, hide = 0;
    for (auto _ : state) {
        StandardMovie movie(fd);
        Result<> result = movie.follow(MovieSize);
        const auto start = std::chrono::steady_clock::now();
        if (result)
            result = movie.appendStandardHeader();
        const double appended = Seconds(start);
        if (result)
            result = movie.hideFragments();
        const double total = Seconds(start);
        if (!result) {
            state.SkipWithError(result.error().message().c_str());
            break;
        }
        append += appended;
        hide += total - appended;
        state.SetIterationTime(total);
        state.counters["header_bytes"] = double(fs::file_size(Movie) - uint64_t(MovieSize));
        if (::pwrite(fd, head, Head, 0) != ssize_t(Head) || ::ftruncate(fd, MovieSize) != 0 ||
            ::fsync(fd) != 0) {
            state.SkipWithError("the movie cannot be put back");
            break;
        }
    }
    ::close(fd);
    state.counters["append_s"] = benchmark::Counter(append, benchmark::Counter::kAvgIterations);
    state.counters["hide_s"] = benchmark::Counter(hide, benchmark::Counter::kAvgIterations);
}
BENCHMARK(FinishStandard)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
} // namespace quorva

// No GPU here, so not the other benchmarks' set-up, which makes a Vulkan device.
int main(int argc, char** argv) {
    using namespace quorva;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const char* size = std::getenv("QUORVA_MOVIE_GB");
    const double gigabytes = size && std::atof(size) > 0 ? std::atof(size) : 10;
    std::string pattern = (fs::temp_directory_path() / "quorva-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
        std::perror("standard_movie_bench: a temporary folder");
        return 1;
    }
    const fs::path folder = pattern;
    const auto start = std::chrono::steady_clock::now();
    const bool made = MakeMovie(folder, gigabytes);
    if (made) {
        benchmark::AddCustomContext("movie_bytes", std::to_string(MovieSize));
        benchmark::AddCustomContext("movie_made_in_s", std::to_string(Seconds(start)));
        benchmark::RunSpecifiedBenchmarks();
    }
    benchmark::Shutdown();
    fs::remove_all(folder);
    return made ? 0 : 1;
}
