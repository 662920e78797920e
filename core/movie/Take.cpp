#include "core/movie/Take.h"

#include "platform/EventLoop.h"
#include "platform/Log.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <system_error>

namespace quorva {

namespace fs = std::filesystem;

namespace {

// A size from a source or the user as the whole pixels a recorder is given: fractions dropped, anything
// that is not a finite positive number read as "take the first frame's size".
int64_t WholePixels(double value) {
    if (!std::isfinite(value) || value < 1)
        return 0;
    return value >= double(INT64_MAX) ? INT64_MAX : int64_t(value);
}

} // namespace

Error TakeError(std::string message) {
    return Error(MovieRecorderErrorDomain, -1, std::move(message));
}

// --- TakeMovie ---------------------------------------------------------------------------------------

TakeMovie::TakeMovie(bool hasSound, std::string sourceTitle, fs::path url,
                     std::shared_ptr<MovieRecorder> recorder)
    : _hasSound(hasSound), _sourceTitle(std::move(sourceTitle)), _url(std::move(url)),
      _recorder(std::move(recorder)) {}

std::optional<Error> TakeMovie::error() const {
    std::lock_guard lock(_lock);
    return _error;
}

void TakeMovie::setError(Error error) {
    std::lock_guard lock(_lock);
    _error = std::move(error);
}

uint64_t TakeMovie::framesWritten() const {
    return _recorder->framesWritten();
}
uint64_t TakeMovie::framesDropped() const {
    return _recorder->framesDropped();
}

uint64_t TakeMovie::framesHeld() const {
    return _recorder->framesHeld();
}
double TakeMovie::soundWritten() const {
    return _recorder->soundWritten();
}
double TakeMovie::soundLeftOut() const {
    return _recorder->soundLeftOut();
}

// --- Take --------------------------------------------------------------------------------------------

std::shared_ptr<Take> Take::make(std::shared_ptr<PictureEngine> engine) {
    return std::make_shared<Take>(Private{}, std::move(engine));
}

Take::Take(Private, std::shared_ptr<PictureEngine> engine) : _engine(std::move(engine)) {}

Result<> Take::start(const TakePlan& plan) {
    {
        std::lock_guard lock(_lock);
        if (_recording)
            return TakeError("A recording is already in progress");
        if (_finishing)
            return TakeError("The previous movies are still being finished");
    }
    const std::vector<std::string>& titles = plan.titles;
    if (titles.empty())
        return TakeError("No source is selected");
    std::error_code error;
    if (!fs::is_directory(plan.folder, error))
        return TakeError("The folder “" + plan.folder.string() + "” does not exist");

    const TakeOutput output = plan.output;
    const Size assembledSize = plan.assembledSize;
    const bool assembled = output != TakeOutput::Separate;
    if (assembled) {
        // Written this way round so that a size that is not a number counts as none.
        if (!(assembledSize.width >= 2 && assembledSize.height >= 2))
            return TakeError("The assembled picture has no size");
        if (assembledSize.width > MaximumAssembledSide || assembledSize.height > MaximumAssembledSide)
            return TakeError("An assembled picture of " + std::to_string(int64_t(assembledSize.width)) +
                             " × " + std::to_string(int64_t(assembledSize.height)) +
                             " is too large to be written. Choose a smaller size for the assembled movie");
    }

    const size_t count = output == TakeOutput::Assembled ? 0 : titles.size();
    if (Result<> grown = growRecorders(count, assembled); !grown)
        return grown;

    const TakeURLs urls = URLsForName(plan.name, titles, output, plan.folder);

    const bool computerSound = plan.computerSound;
    const size_t assembledSoundIndex =
        computerSound || output == TakeOutput::Separate || plan.assembledSoundIndex >= titles.size()
            ? NoIndex
            : plan.assembledSoundIndex;

    auto routes = std::make_shared<TakeRoutes>();
    routes->sources.resize(titles.size());
    std::vector<std::shared_ptr<TakeMovie>> started;
    std::shared_ptr<TakeMovie> assembledMovie;
    if (assembled) {
        MovieRecorderSettings movieSettings = plan.settings;
        movieSettings.setWidth(int64_t(assembledSize.width));
        movieSettings.setHeight(int64_t(assembledSize.height));
        movieSettings.setRecordsSound(computerSound || assembledSoundIndex != NoIndex);
        if (plan.assembledFramesPerSecond > 0)
            movieSettings.setFramesPerSecond(plan.assembledFramesPerSecond);
        movieSettings.setTimeOfDay(plan.timeOfDay);
        if (plan.assembledEncoderThreads > 0)
            movieSettings.setEncoderThreads(plan.assembledEncoderThreads);
        assembledMovie = std::make_shared<TakeMovie>(movieSettings.recordsSound(), std::string(),
                                                     *urls.assembled, _assembledRecorder);
        if (Result<> begun = startMovie(assembledMovie, NoIndex, movieSettings, plan.time); !begun)
            return begun;
        started.push_back(assembledMovie);
        routes->assembled = _assembledRecorder;
        if (computerSound)
            routes->computerSound.push_back(_assembledRecorder);
    }

    std::vector<std::shared_ptr<TakeMovie>> movies;
    for (size_t i = 0; i < count; ++i) {
        MovieRecorderSettings movieSettings = plan.settings;
        const std::optional<Size> size = i < plan.sizes.size() ? plan.sizes[i] : std::nullopt;
        movieSettings.setWidth(size ? WholePixels(size->width) : 0);
        movieSettings.setHeight(size ? WholePixels(size->height) : 0);
        const bool ownSound = plan.soundSources.count(i) > 0;
        const bool hearsComputer = computerSound && output == TakeOutput::Separate && !ownSound;
        movieSettings.setRecordsSound(ownSound || hearsComputer);
        if (i < plan.encoderThreads.size() && plan.encoderThreads[i] > 0)
            movieSettings.setEncoderThreads(plan.encoderThreads[i]);
        if (i < plan.framesPerSecond.size() && plan.framesPerSecond[i] > 0)
            movieSettings.setFramesPerSecond(plan.framesPerSecond[i]);
        movieSettings.setTimeOfDay(plan.timeOfDay);
        auto movie = std::make_shared<TakeMovie>(movieSettings.recordsSound(), titles[i], urls.separate[i],
                                                 _recorders[i]);
        if (Result<> begun = startMovie(movie, i, movieSettings, plan.time); !begun) {
            // A take is all its movies or none: those already begun end now, and as none has a frame
            // yet, their files go with them.
            for (const std::shared_ptr<TakeMovie>& other : started)
                other->recorder()->finishAtTime(plan.time, [](std::optional<Error>) {});
            return begun;
        }
        routes->sources[i].pictures = _recorders[i];
        if (ownSound)
            routes->sources[i].sound.push_back(_recorders[i]);
        if (hearsComputer)
            routes->computerSound.push_back(_recorders[i]);
        movies.push_back(movie);
        started.push_back(movie);
    }
    if (assembledSoundIndex != NoIndex)
        routes->sources[assembledSoundIndex].sound.push_back(_assembledRecorder);

    {
        std::lock_guard lock(_lock);
        _movies = std::move(movies);
        _assembledMovie = std::move(assembledMovie);
        _stem = urls.stem;
        _folder = plan.folder;
        _codec = plan.settings.codec();
        _recording = true;
    }
    setRoutes(std::move(routes));
    return {};
}

Result<> Take::growRecorders(size_t count, bool assembled) {
    // When another program takes the processor away, the assembled movie's encoder yields first: the
    // sources' own movies hold every picture, the assembled one is made again from them.
    auto make = [this](int niceness) -> Result<std::shared_ptr<MovieRecorder>> {
        if (!_engine)
            return TakeError("Movies cannot be written on this computer: Vulkan is not available");
        Result<std::shared_ptr<MovieRecorder>> made = MovieRecorder::make(_engine, niceness);
        if (!made)
            return TakeError("Movies cannot be written on this computer: " + made.error().message());
        return made;
    };
    while (_recorders.size() < count) {
        Result<std::shared_ptr<MovieRecorder>> made = make(MovieRecorder::SourceNiceness);
        if (!made)
            return made.error();
        _recorders.push_back(std::move(made.value()));
    }
    if (assembled && !_assembledRecorder) {
        Result<std::shared_ptr<MovieRecorder>> made = make(MovieRecorder::AssembledNiceness);
        if (!made)
            return made.error();
        _assembledRecorder = std::move(made.value());
    }
    return {};
}

Result<> Take::startMovie(const std::shared_ptr<TakeMovie>& movie, size_t index,
                          const MovieRecorderSettings& settings, double time) {
    // Weak: the recorder keeps its handler, and the movie and the take keep the recorder.
    std::weak_ptr<Take> weakTake = weak_from_this();
    std::weak_ptr<TakeMovie> weakMovie = movie;
    movie->recorder()->setFailureHandler([weakTake, weakMovie, index](const Error& error) {
        std::shared_ptr<Take> take = weakTake.lock();
        std::shared_ptr<TakeMovie> movie = weakMovie.lock();
        if (take && movie)
            take->movieFailed(movie, index, error);
    });
    return movie->recorder()->startWritingToURL(movie->url(), settings, time);
}

void Take::movieFailed(const std::shared_ptr<TakeMovie>& movie, size_t index, Error error) {
    // An assembled movie whose file could not even be made was most likely refused its size, which
    // the user can do something about.
    if (index == NoIndex && movie->recorder()->outputSize().width == 0)
        error =
            TakeError(error.message() + ". Choose a smaller size for the assembled movie, or HEVC or ProRes");
    // The failure itself wins over whatever the finish may have noted meanwhile.
    movie->setError(error);
    MovieFailureHandler handler;
    {
        std::lock_guard lock(_lock);
        // A movie of a take that never began, or of an earlier take, is nobody's concern now.
        if (movie != _assembledMovie && std::find(_movies.begin(), _movies.end(), movie) == _movies.end())
            return;
        handler = _movieFailureHandler;
    }
    Log("Take: ", (movie->sourceTitle().empty() ? std::string("Assembled movie") : movie->sourceTitle()) +
                      ": " + error.message());
    if (handler)
        handler(index, error);
}

std::shared_ptr<const TakeRoutes> Take::currentRoutes() const {
    std::lock_guard lock(_routesLock);
    return _routesHeld;
}

void Take::setRoutes(std::shared_ptr<const TakeRoutes> routes) {
    std::lock_guard lock(_routesLock);
    _routesHeld = std::move(routes);
}

void Take::appendPicture(const std::shared_ptr<Picture>& picture, bool flipped, size_t index, double time) {
    const std::shared_ptr<const TakeRoutes> routes = currentRoutes();
    const TakeRoutes::Source* source = routes ? routes->source(index) : nullptr;
    if (source && source->pictures)
        source->pictures->appendPicture(picture, flipped, time);
}

std::shared_ptr<MovieRecorder> Take::assembledRecorder() const {
    const std::shared_ptr<const TakeRoutes> routes = currentRoutes();
    return routes ? routes->assembled : nullptr;
}

bool Take::wantsAssembledFrameAtTime(double time) {
    std::shared_ptr<MovieRecorder> recorder = assembledRecorder();
    return recorder && recorder->wantsFrameAtTime(time);
}

void Take::dropAssembledFrameAtTime(double time) {
    if (std::shared_ptr<MovieRecorder> recorder = assembledRecorder())
        recorder->dropFrameAtTime(time);
}

void Take::appendAssembledPlacements(std::vector<PicturePlacement> placements, double time) {
    if (std::shared_ptr<MovieRecorder> recorder = assembledRecorder())
        recorder->appendPlacements(std::move(placements), time);
}

void Take::appendSound(const std::shared_ptr<SourceSound>& sound, size_t index, double time) {
    const std::shared_ptr<const TakeRoutes> routes = currentRoutes();
    if (const TakeRoutes::Source* source = routes ? routes->source(index) : nullptr) {
        for (const std::shared_ptr<MovieRecorder>& recorder : source->sound)
            recorder->appendSound(sound, time);
    }
}

void Take::appendComputerSound(const std::shared_ptr<SourceSound>& sound, double time) {
    if (const std::shared_ptr<const TakeRoutes> routes = currentRoutes()) {
        for (const std::shared_ptr<MovieRecorder>& recorder : routes->computerSound)
            recorder->appendSound(sound, time);
    }
}

void Take::finishAtTime(double time, CompletionHandler completionHandler) {
    std::vector<std::shared_ptr<TakeMovie>> movies;
    {
        std::lock_guard lock(_lock);
        if (!_recording) {
            EventLoop::postToMain([completionHandler] {
                if (completionHandler)
                    completionHandler(TakeError("There is no recording in progress"));
            });
            return;
        }
        _recording = false;
        _finishing = true;
        // From here on nothing that arrives reaches a movie, whichever thread it comes on.
        setRoutes(nullptr);
        movies = _movies;
        if (_assembledMovie)
            movies.push_back(_assembledMovie);
    }

    // Runs on the main queue once every movie still going has answered.
    auto done = [self = shared_from_this(), movies, completionHandler] {
        uint64_t frames = 0;
        for (const std::shared_ptr<TakeMovie>& movie : movies)
            frames += movie->framesWritten();
        {
            std::lock_guard lock(self->_lock);
            self->_finishing = false;
        }
        if (completionHandler)
            completionHandler(
                frames > 0 ? std::nullopt
                           : std::optional(TakeError("No frame was received, so no movie was written")));
    };

    std::vector<std::shared_ptr<TakeMovie>> going;
    for (const std::shared_ptr<TakeMovie>& movie : movies) {
        if (!movie->error())
            going.push_back(movie);
    }
    if (going.empty()) {
        EventLoop::postToMain(done);
        return;
    }
    auto left = std::make_shared<std::atomic<size_t>>(going.size());
    for (const std::shared_ptr<TakeMovie>& movie : going) {
        movie->recorder()->finishAtTime(time, [movie, left, done](std::optional<Error> error) {
            // A movie that never got a picture has nothing to have failed at: its file is simply not
            // made, and the take as a whole says so when no movie got one. One whose pictures did not
            // reach the file (they count as dropped then) did fail.
            if (error && movie->framesWritten() + movie->framesDropped() > 0 && !movie->error())
                movie->setError(*error);
            if (left->fetch_sub(1) == 1)
                done();
        });
    }
}

bool Take::isRecording() const {
    std::lock_guard lock(_lock);
    return _recording;
}

std::vector<std::shared_ptr<TakeMovie>> Take::movies() const {
    std::lock_guard lock(_lock);
    return _movies;
}

std::shared_ptr<TakeMovie> Take::assembledMovie() const {
    std::lock_guard lock(_lock);
    return _assembledMovie;
}

uint64_t Take::framesPending() const {
    std::vector<std::shared_ptr<TakeMovie>> movies;
    {
        std::lock_guard lock(_lock);
        movies = _movies;
        if (_assembledMovie)
            movies.push_back(_assembledMovie);
    }
    uint64_t pending = 0;
    for (const std::shared_ptr<TakeMovie>& movie : movies)
        pending += movie->recorder()->framesPending();
    return pending;
}

std::string Take::stem() const {
    std::lock_guard lock(_lock);
    return _stem;
}

std::filesystem::path Take::folder() const {
    std::lock_guard lock(_lock);
    return _folder;
}

Codec Take::codec() const {
    std::lock_guard lock(_lock);
    return _codec;
}

void Take::setMovieFailureHandler(MovieFailureHandler handler) {
    std::lock_guard lock(_lock);
    _movieFailureHandler = std::move(handler);
}

} // namespace quorva
