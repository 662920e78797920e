#pragma once

#include "core/movie/MovieRecorder.h"
#include "core/movie/MovieRecorderSettings.h"
#include "core/movie/MovieStatus.h"
#include "core/movie/TakeNaming.h"
#include "core/movie/TakeRoutes.h"
#include "core/source/Geometry.h"
#include "core/source/NoIndex.h"
#include "platform/Error.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace quorva {

class PictureEngine;
class Picture;
class SourceSound;

// An error of a take, in the same domain as the movie recorder's: code -1 and the sentence the user reads.
Error TakeError(std::string message);

// One movie of a take. What it is never changes; why it failed, if it did, is set once the failure is
// known and kept after the take for the status display, as are the recorder's counts.
class TakeMovie final : public MovieStatus {
public:
    TakeMovie(bool hasSound, std::string sourceTitle, std::filesystem::path url,
              std::shared_ptr<MovieRecorder> recorder);
    TakeMovie(const TakeMovie&) = delete;
    TakeMovie& operator=(const TakeMovie&) = delete;

    bool hasSound() const { return _hasSound; }
    // Empty for the assembled movie.
    const std::string& sourceTitle() const { return _sourceTitle; }
    const std::filesystem::path& url() const override { return _url; }
    const std::shared_ptr<MovieRecorder>& recorder() const { return _recorder; }

    std::optional<Error> error() const;
    void setError(Error error);

    uint64_t framesWritten() const override;
    uint64_t framesDropped() const override;
    uint64_t framesHeld() const;
    double soundWritten() const override; // seconds
    double soundLeftOut() const;          // seconds

private:
    const bool _hasSound;
    const std::string _sourceTitle;
    const std::filesystem::path _url;
    const std::shared_ptr<MovieRecorder> _recorder;
    mutable std::mutex _lock; // guards _error, which the main queue writes while others read it
    std::optional<Error> _error;
};

// What a take is to record. The simplest take names only its titles, name, folder and settings: one
// movie per source, each the size of its first picture, without sound. (Every member has an
// initializer so that a designated initializer may leave any out.)
struct TakePlan {
    std::vector<std::string> titles{}; // the sources, in the places' order
    // Parallel to the titles; a source without one (or past the list's end) gives its movie the size of
    // its first picture.
    SourceSizes sizes{};
    TakeOutput output = TakeOutput::Separate;
    Size assembledSize{}; // of the assembled movie, for outputs assembled and both
    // The sources that record their own sound in their own movie.
    std::set<size_t> soundSources{};
    // The source whose sound the assembled movie records, or NoIndex.
    size_t assembledSoundIndex = NoIndex;
    // The computer's sound goes to the assembled movie and, for output separate, to every source's
    // movie without sound of its own.
    bool computerSound = false;
    std::string name{};
    std::filesystem::path folder{};
    // The codec, frame rate and bit rate that all the movies share; their sizes come from the above.
    MovieRecorderSettings settings{};
    // The frame rate of each source's movie, parallel to the titles, and of the assembled movie; a movie
    // without a rate here (or 0) keeps the settings' own.
    std::vector<double> framesPerSecond{};
    double assembledFramesPerSecond = 0;
    // Encoder threads of each source's movie, parallel to the titles, and of the assembled movie; a
    // movie without a number here (or 0) keeps the settings' own.
    std::vector<int64_t> encoderThreads{};
    int64_t assembledEncoderThreads = 0;
    double time = 0; // every movie's time origin, on the media clock
    // The local time of day at that origin, in seconds since midnight, where every movie's timecode
    // starts; negative: none.
    double timeOfDay = -1;
};

// One recording: the movies that start together on one time origin and finish together. It decides
// which movies the output asks for, names their files so that nothing is ever overwritten, and routes
// every source's pictures and sound, the assembled picture and the computer's sound to the right
// movies. Its recorders are kept from take to take, so a new take does not compile shaders again.
//
// Start and finish are called on the main thread; pictures and sound arrive on the sources' threads, the
// assembled picture's placements on the composition's. Those take no lock of the take's: they follow the
// routes that the start made (see TakeRoutes).
// A movie that fails while recording is reported through the movie failure handler and the others go
// on; completions and failures are delivered on the main queue.
class Take : public std::enable_shared_from_this<Take> {
    struct Private {};

public:
    // (source index, or NoIndex for the assembled movie; why it failed)
    using MovieFailureHandler = std::function<void(size_t source, const Error& error)>;
    using CompletionHandler = std::function<void(std::optional<Error> error)>;
    // Movies larger than this either way are refused before any file is made.
    static constexpr double MaximumAssembledSide = 16384;

    static std::shared_ptr<Take> make(std::shared_ptr<PictureEngine> engine);
    Take(Private, std::shared_ptr<PictureEngine> engine);
    Take(const Take&) = delete;
    Take& operator=(const Take&) = delete;

    // Starts every movie of `plan`, or none: when one cannot start, those begun are finished at once,
    // and as none has a picture yet, their files go with them.
    Result<> start(const TakePlan& plan);

    // A picture of source `index`; ignored when the take records no movie of that source (NoIndex, or
    // while not recording).
    void appendPicture(const std::shared_ptr<Picture>& picture, bool flipped, size_t index, double time);
    // Whether the assembled movie would keep a picture at `time`: ask before composing one.
    bool wantsAssembledFrameAtTime(double time);
    // The assembled picture at `time` will not come: counted as dropped where the movie would keep it.
    void dropAssembledFrameAtTime(double time);
    // The assembled picture at `time`, as the pictures placed in it: its movie draws them itself.
    void appendAssembledPlacements(std::vector<PicturePlacement> placements, double time);
    // Sound of source `index`, to its own movie if it records its sound, and to the assembled movie if
    // that records this source's sound.
    void appendSound(const std::shared_ptr<SourceSound>& sound, size_t index, double time);
    void appendComputerSound(const std::shared_ptr<SourceSound>& sound, double time);

    // Finishes every movie that has not failed, holding each last picture until `time`. The handler
    // runs on the main queue once all are done: with nothing if any movie got a picture.
    void finishAtTime(double time, CompletionHandler completionHandler);

    bool isRecording() const;
    // The separate movies of the current or last take, in source order, and its assembled movie.
    std::vector<std::shared_ptr<TakeMovie>> movies() const;
    std::shared_ptr<TakeMovie> assembledMovie() const;
    // Frames in flight in all the take's movies.
    uint64_t framesPending() const;
    // Of the current or last take: what its files' names begin with ("Show 2"), where they are, and the
    // codec that its movies share.
    std::string stem() const;
    std::filesystem::path folder() const;
    Codec codec() const;

    void setMovieFailureHandler(MovieFailureHandler handler);

private:
    // Gives the pool `count` separate recorders and, when `assembled`, the assembled one.
    Result<> growRecorders(size_t count, bool assembled);
    // Starts one movie's recorder, its failures reported as those of `index`.
    Result<> startMovie(const std::shared_ptr<TakeMovie>& movie, size_t index,
                        const MovieRecorderSettings& settings, double time);
    void movieFailed(const std::shared_ptr<TakeMovie>& movie, size_t index, Error error);
    // The assembled movie's recorder while the take records; nothing otherwise.
    std::shared_ptr<MovieRecorder> assembledRecorder() const;

    const std::shared_ptr<PictureEngine> _engine;
    std::vector<std::shared_ptr<MovieRecorder>> _recorders;
    std::vector<std::shared_ptr<TakeMovie>> _movies;
    std::shared_ptr<MovieRecorder> _assembledRecorder;
    std::shared_ptr<TakeMovie> _assembledMovie;
    std::string _stem;
    std::filesystem::path _folder;
    Codec _codec = Codec::H264;
    bool _recording = false;
    bool _finishing = false;
    MovieFailureHandler _movieFailureHandler;
    // Guards the fields above. Held only to read or swap them, never across a call into a recorder.
    mutable std::mutex _lock;
    // While recording, where what arrives goes; nothing otherwise. Replaced whole and never changed, so
    // that a reader copies the pointer under a lock of its own and routes without any lock. (GCC 12's
    // std::atomic<std::shared_ptr> releases its lock bit with a relaxed store after a load, which orders
    // nothing: ThreadSanitizer rightly reports a race on the pointer.)
    std::shared_ptr<const TakeRoutes> currentRoutes() const;
    void setRoutes(std::shared_ptr<const TakeRoutes> routes);
    mutable std::mutex _routesLock;
    std::shared_ptr<const TakeRoutes> _routesHeld;
};

} // namespace quorva
