#include "core/control/RecorderController.h"

#include "core/control/DiskSpace.h"
#include "core/control/TitleMatching.h"
#include "core/movie/TakeReport.h"
#include "core/source/SourceSound.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <set>
#include <system_error>
#include <utility>

namespace quorva {

namespace {

const char* const SourcesKey = "RecorderSources";

constexpr double RefreshInterval = 0.25;

// "Title: description" when the take has several movies, else the description alone.
std::string MovieMessage(const std::string& title, const Error& error, size_t movieCount) {
    if (movieCount <= 1)
        return error.message();
    return (title.empty() ? std::string("Assembled movie") : title) + ": " + error.message();
}

// A frame rate as people write it: 30, 29.97, 15.
std::string RateText(double rate) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", rate);
    std::string written = text;
    written.erase(written.find_last_not_of('0') + 1);
    if (written.back() == '.')
        written.pop_back();
    return written;
}

// Seconds since local midnight, now: where the take's timecode starts.
double LocalTimeOfDay() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm parts{};
    localtime_r(&now.tv_sec, &parts);
    return parts.tm_hour * 3600.0 + parts.tm_min * 60.0 + parts.tm_sec + now.tv_nsec * 1e-9;
}

// The movies that a planned take makes.
size_t MovieCount(const TakePlan& plan) {
    return (plan.output == TakeOutput::Assembled ? 0 : plan.titles.size()) +
           (plan.output == TakeOutput::Separate ? 0 : 1);
}

// Minutes as a warning gives them: tenths under ten, whole ones above.
std::string MinutesText(double minutes) {
    char text[32];
    std::snprintf(text, sizeof text, minutes < 10 ? "%.1f" : "%.0f", minutes);
    return text;
}

std::vector<std::string> TitlesOf(const Places& places) {
    std::vector<std::string> titles;
    for (const auto& place : places)
        titles.push_back(place->title());
    return titles;
}

} // namespace

const std::string& RecorderStateName(RecorderState state) {
    static const std::string Idle = "idle", Recording = "recording", Finishing = "finishing";
    switch (state) {
    case RecorderState::Recording:
        return Recording;
    case RecorderState::Finishing:
        return Finishing;
    default:
        return Idle;
    }
}

std::shared_ptr<RecorderController> RecorderController::make(std::shared_ptr<PictureEngine> engine,
                                                             std::shared_ptr<SourceDirectory> directory,
                                                             std::shared_ptr<SoundSource> computerSound,
                                                             std::shared_ptr<SettingsStore> defaults,
                                                             std::shared_ptr<EncoderSpeed> encoderSpeed) {
    auto controller = std::make_shared<RecorderController>(Private{}, std::move(engine), std::move(directory),
                                                           std::move(computerSound), std::move(defaults),
                                                           std::move(encoderSpeed));
    // What follows hands out weak references to the controller, which exist only from here on.
    std::weak_ptr<RecorderController> weak = controller;
    controller->_take->setMovieFailureHandler([weak](size_t index, const Error& error) {
        if (auto controller = weak.lock())
            controller->movieAtIndexFailedWithError(index, error);
    });
    controller->_directory->changes().setHandler([weak] {
        // Directories learn of changes on their own threads; the places belong to the main thread.
        auto loop = EventLoop::mainLoop();
        if (loop && !loop->isCurrent()) {
            loop->post([weak] {
                if (auto controller = weak.lock())
                    controller->sourcesDidChange();
            });
        } else if (auto controller = weak.lock()) {
            controller->sourcesDidChange();
        }
    });
    // Without a main loop (some tests) nothing refreshes by itself.
    if (auto loop = EventLoop::mainLoop()) {
        controller->_refreshLoop = loop;
        controller->_refreshTimer = loop->scheduleTimer(RefreshInterval, [weak] {
            if (auto controller = weak.lock())
                controller->refresh();
        });
    }
    return controller;
}

RecorderController::RecorderController(Private, std::shared_ptr<PictureEngine> engine,
                                       std::shared_ptr<SourceDirectory> directory,
                                       std::shared_ptr<SoundSource> computerSound,
                                       std::shared_ptr<SettingsStore> defaults,
                                       std::shared_ptr<EncoderSpeed> encoderSpeed)
    : _engine(std::move(engine)), _directory(std::move(directory)), _computerSound(std::move(computerSound)),
      _defaults(std::move(defaults)), _take(Take::make(_engine)),
      _composition(std::make_shared<CompositionScheduler>(_engine, _take)),
      _connections(_directory, _engine, _take,
                   // Weak: the scheduler holds the places, whose sources hold this handler.
                   [composition = std::weak_ptr(_composition)](const std::shared_ptr<RecorderPlace>& place,
                                                               double time) {
                       if (auto scheduler = composition.lock())
                           scheduler->placeReceivedFrame(place, time);
                   }),
      _encoderSpeed(encoderSpeed ? std::move(encoderSpeed) : EncoderSpeed::make(_defaults)),
      _settings(_defaults) {
    if (_computerSound) {
        // Holds the take, not the controller: the sound's thread never reaches the controller.
        _computerSound->output().setSoundHandler(
            [take = _take, levels = _computerSoundLevels](const std::shared_ptr<SourceSound>& sound) {
                const double time = MediaClock::now();
                levels->measure(*sound, time);
                take->appendComputerSound(sound, time);
            });
    }
    _availableSources = sourcesOf(*_directory);
    // Titles are taken as saved, offline or not: a source that is not offered now may come back.
    for (const std::string& title :
         _defaults->stringArrayForKey(SourcesKey).value_or(std::vector<std::string>{})) {
        if (_places.size() == RecorderMaximumPlaces)
            break;
        if (!title.empty())
            _places.push_back(std::make_shared<RecorderPlace>(title));
    }
    _connections.connectPlaces(_places, _availableSources);
    compositionChanged();
}

RecorderController::~RecorderController() {
    if (auto loop = _refreshLoop.lock())
        loop->cancelTimer(_refreshTimer);
    if (_computerSound)
        _computerSound->stop();
    for (const auto& place : _places) {
        if (auto source = place->source())
            source->stop();
    }
}

// Settings.

bool RecorderController::setText(Setting setting, std::string_view text) {
    std::optional<std::string> sound;
    if (setting == Setting::Sound) {
        sound = soundChoiceMatching(text);
        if (!sound)
            return false;
        text = *sound;
    }
    if (!_settings.setText(setting, text))
        return false;
    if (RecorderSettings::followerOf(setting) == SettingFollower::Composition)
        compositionChanged();
    changed();
    return true;
}

void RecorderController::setNumber(Setting setting, double number) {
    _settings.setNumber(setting, number);
    switch (RecorderSettings::followerOf(setting)) {
    case SettingFollower::Composition:
        compositionChanged();
        break;
    case SettingFollower::DisplayLimit:
        displayLimitChanged();
        break;
    case SettingFollower::Nothing:
        break;
    }
    changed();
}

void RecorderController::setNdiAvailable(bool available, std::string reason) {
    _ndiAvailable = available;
    _ndiReason = std::move(reason);
    changed();
}

void RecorderController::setError(std::string error) {
    _error = std::move(error);
    if (!_error.empty())
        ++_errorCount;
    changed();
}

bool RecorderController::failWithError(std::string message) {
    setError(std::move(message));
    return false;
}

RecorderController::ObserverId RecorderController::addObserver(std::function<void()> observer) {
    ObserverId id = _nextObserver++;
    _observers.emplace(id, std::make_shared<std::function<void()>>(std::move(observer)));
    return id;
}

void RecorderController::removeObserver(ObserverId observer) {
    _observers.erase(observer);
}

void RecorderController::changed() {
    std::vector<ObserverId> ids;
    for (const auto& entry : _observers)
        ids.push_back(entry.first);
    for (ObserverId id : ids) {
        // One observer may have removed another, which then hears nothing more.
        auto found = _observers.find(id);
        if (found == _observers.end())
            continue;
        auto observer = found->second;
        (*observer)();
    }
}

// Matching.

std::optional<std::string> RecorderController::titleMatching(std::string_view text) {
    if (text.empty()) {
        failWithError("Give the title of a source, or part of it");
        return std::nullopt;
    }
    std::vector<std::string> candidates;
    std::set<std::string> offered;
    for (const auto& description : _availableSources) {
        candidates.push_back(description.title());
        offered.insert(description.title());
    }
    // A place whose source is offline can still be named.
    for (std::string& title : TitlesOf(_places)) {
        if (!offered.count(title))
            candidates.push_back(std::move(title));
    }
    if (auto title = MatchingTitle(text, candidates))
        return title;
    failWithError("There is no source called \u201C" + std::string(text) + "\u201D");
    return std::nullopt;
}

std::optional<std::string> RecorderController::placeTitleMatching(std::string_view text) const {
    return MatchingTitle(text, TitlesOf(_places));
}

std::optional<std::string> RecorderController::soundChoiceMatching(std::string_view text) const {
    if (text.empty())
        return std::string();
    if (EqualIgnoringCase(text, RecorderComputerSound))
        return std::string(RecorderComputerSound);
    return placeTitleMatching(text);
}

size_t RecorderController::indexOfPlaceWithTitle(std::string_view title) const {
    for (size_t i = 0; i < _places.size(); ++i) {
        if (_places[i]->title() == title)
            return i;
    }
    return NoIndex;
}

// Changing the places. Place numbers are taken as unsigned, as they travel: a negative number is a
// very large one, past every place.

bool RecorderController::placesCanChange() {
    if (_state == RecorderState::Idle)
        return true;
    return failWithError("The sources cannot be changed while recording");
}

bool RecorderController::addSourceMatching(std::string_view text) {
    if (!placesCanChange())
        return false;
    auto title = titleMatching(text);
    if (!title)
        return false;
    if (indexOfPlaceWithTitle(*title) != NoIndex)
        return true;
    if (_places.size() >= RecorderMaximumPlaces)
        return failWithError("No more than " + std::to_string(RecorderMaximumPlaces) +
                             " sources can be recorded at once");
    Places places = _places;
    places.push_back(std::make_shared<RecorderPlace>(std::move(*title)));
    usePlaces(std::move(places));
    return true;
}

bool RecorderController::setSourceMatching(std::string_view text, int64_t place) {
    if (!placesCanChange())
        return false;
    // Checked against the most places there can be, not those there are: setting place 5 of two
    // appends a third.
    uint64_t number = uint64_t(place);
    if (number < 1 || number > RecorderMaximumPlaces)
        return failWithError("There are places 1 to " + std::to_string(RecorderMaximumPlaces));
    if (text.empty()) {
        removeSourceAtPlace(place);
        return true;
    }
    auto title = titleMatching(text);
    if (!title)
        return false;
    Places places = _places;
    size_t position = size_t(number - 1);
    if (size_t existing = indexOfPlaceWithTitle(*title); existing != NoIndex) {
        // The place moves with its connection.
        auto moving = places[existing];
        places.erase(places.begin() + ptrdiff_t(existing));
        places.insert(places.begin() + ptrdiff_t(std::min(position, places.size())), std::move(moving));
    } else if (position < places.size()) {
        places[position] = std::make_shared<RecorderPlace>(std::move(*title));
    } else {
        places.push_back(std::make_shared<RecorderPlace>(std::move(*title)));
    }
    usePlaces(std::move(places));
    return true;
}

void RecorderController::removeSourceAtPlace(int64_t place) {
    if (!placesCanChange())
        return;
    uint64_t number = uint64_t(place);
    if (number < 1 || number > _places.size())
        return;
    Places places = _places;
    places.erase(places.begin() + ptrdiff_t(number - 1));
    usePlaces(std::move(places));
}

bool RecorderController::moveSourceFromPlace(int64_t from, int64_t to) {
    if (!placesCanChange())
        return false;
    uint64_t source = uint64_t(from), target = uint64_t(to);
    if (source < 1 || source > _places.size() || target == 0)
        return failWithError("There is no source in that place");
    Places places = _places;
    auto moving = places[source - 1];
    places.erase(places.begin() + ptrdiff_t(source - 1));
    places.insert(places.begin() + ptrdiff_t(std::min<uint64_t>(target - 1, places.size())),
                  std::move(moving));
    usePlaces(std::move(places));
    return true;
}

void RecorderController::usePlaces(Places places) {
    for (const auto& place : _places) {
        if (std::find(places.begin(), places.end(), place) == places.end())
            place->letGoOfSource();
    }
    _places = std::move(places);
    (void)_defaults->setStringArray(TitlesOf(_places), SourcesKey);
    _connections.connectPlaces(_places, _availableSources);
    compositionChanged();
    changed();
}

void RecorderController::sourcesDidChange() {
    _availableSources = sourcesOf(*_directory);
    _connections.connectPlaces(_places, _availableSources);
    changed();
}

// Recording.

bool RecorderController::start() {
    if (_state == RecorderState::Recording)
        return true;
    if (_state == RecorderState::Finishing)
        return failWithError("The previous recording is still being finished");
    _error.clear();
    _recordingError.clear();
    if (_places.empty())
        return failWithError("No source is selected");

    // The clock place is chosen now as the refresh would (the first place online), rather than left to
    // whichever place happened to send the first picture: the assembled movie's rate is planned on it.
    refresh();
    PlannedTake planned = PlanTake(_settings, _places, clockPlace(), _encoderSpeed.get());
    TakePlan& plan = planned.plan;
    // A take that the disk would hold for only a moment is better not begun: it would end as soon as it
    // started. A folder whose disk cannot be read is left to the take, which says what is wrong with it.
    const size_t movieCount = MovieCount(plan);
    const double estimate = EstimatedBytesPerSecond(planned);
    const std::optional<uint64_t> freeAtStart = FreeBytes(plan.folder);
    const double minutesAtStart = freeAtStart ? MinutesLeft(*freeAtStart, estimate, 0, movieCount) : 0;
    if (freeAtStart && minutesAtStart * 60 < DiskRefusalSeconds)
        return failWithError(
            "The disk of “" + plan.folder.string() +
            "” holds less than ten seconds of these movies: free some space on it, or choose "
            "another folder");
    // A take whose sound cannot be captured still records its pictures, and says why its sound is silent.
    // The capture takes a moment to be linked: it begins before the take, so that the take's first moments
    // are heard.
    std::string soundFailure;
    if (plan.computerSound) {
        Result<> capturing = _computerSound ? _computerSound->start()
                                            : Result<>(Error(ApplicationIdentifier, -1, "no capture here"));
        if (!capturing)
            soundFailure = "The computer's sound is not recorded: " + capturing.error().message();
    }
    plan.time = MediaClock::now();
    plan.timeOfDay = LocalTimeOfDay();
    if (Result<> started = _take->start(plan); !started) {
        if (_computerSound)
            _computerSound->stop();
        const std::string& message = started.error().message();
        return failWithError(message.empty() ? "The recording could not start" : message);
    }
    const auto movies = _take->movies();
    for (size_t i = 0; i < _places.size(); ++i) {
        const bool hasMovie = i < movies.size();
        _places[i]->setMovie(hasMovie ? movies[i] : nullptr);
        _places[i]->setInTake(hasMovie);
        // A place without a movie of its own may still give the assembled movie its sound: the take's
        // routes decide.
        _places[i]->setTakeIndex(i);
    }
    _composition->takeStarted(planned.layout, LayoutSizes(plan.sizes), gap(),
                              plan.settings.codec() == Codec::ProRes4444);
    _startTime = plan.time;
    _dueRates.clear();
    for (size_t i = 0; i < plan.framesPerSecond.size() && i < movies.size(); ++i)
        _dueRates.emplace_back(movies[i], plan.framesPerSecond[i]);
    if (auto assembled = _take->assembledMovie())
        _dueRates.emplace_back(assembled, planned.assembledRate);
    _encoderPreset = planned.preset.preset;
    _loweredAssembledRate = planned.assembledRate < planned.clockRate ? planned.assembledRate : 0;
    if (_loweredAssembledRate > 0) {
        const std::string notice = "This computer cannot encode every picture of these movies: the assembled "
                                   "movie is recorded at " +
                                   RateText(_loweredAssembledRate) + " frames a second instead of " +
                                   RateText(planned.clockRate) +
                                   ", so that each source's own movie keeps all of its pictures";
        Log("RecorderController: ", notice);
        setError(notice);
    }
    if (!planned.preset.keepsUp) {
        // The speeds were measured on grainy pictures, as a camera's are; cleaner ones encode faster, so
        // this is a warning of what may happen rather than a promise of drops.
        const std::string warning =
            "The encoders may not keep up with these movies on this computer, even at "
            "their fastest: frames may be dropped. Record fewer or smaller sources, "
            "a lower frame rate, or ProRes";
        Log("RecorderController: ", warning);
        setError(warning);
    }
    if (!soundFailure.empty()) {
        Log("RecorderController: ", soundFailure);
        setError(soundFailure);
    }
    _startedAt = std::chrono::system_clock::now();
    _timeOfDay = plan.timeOfDay;
    _takeFolder = plan.folder.string();
    _freeAtStart = freeAtStart.value_or(0);
    _estimatedBytesPerSecond = estimate;
    _stopReason.reset();
    _diskMinutes = minutesAtStart;
    _diskWarned = freeAtStart && minutesAtStart < DiskWarningMinutes;
    if (_diskWarned) {
        const std::string warning = "The disk of “" + _takeFolder + "” has room for only " +
                                    MinutesText(minutesAtStart) +
                                    " minutes of these movies: the take will be finished before it is full";
        Log("RecorderController: ", warning);
        setError(warning);
    }
    _activity = SystemActivity::begin("Recording");
    _state = RecorderState::Recording;
    displayLimitChanged();
    refresh();
    return true;
}

void RecorderController::stopWithCompletionHandler(std::function<void()> completionHandler) {
    if (_state == RecorderState::Idle) {
        if (completionHandler)
            completionHandler();
        return;
    }
    if (completionHandler)
        _stopHandlers.push_back(std::move(completionHandler));
    if (_state == RecorderState::Finishing)
        return;

    const double now = MediaClock::now();
    _lastElapsed = now - _startTime;
    if (_computerSound)
        _computerSound->stop();
    // From here on a picture or sound block that arrives is not appended, whichever thread it is on.
    for (const auto& place : _places)
        place->setTakeIndex(NoIndex);
    _composition->takeStopped();
    _state = RecorderState::Finishing;
    displayLimitChanged();
    changed();
    std::weak_ptr<RecorderController> weak = weak_from_this();
    _take->finishAtTime(now, [weak](std::optional<Error> error) {
        if (auto controller = weak.lock())
            controller->recordingEndedWithError(error);
    });
}

void RecorderController::toggle() {
    if (_state == RecorderState::Idle)
        (void)start();
    else
        stopWithCompletionHandler({});
}

std::vector<std::shared_ptr<TakeMovie>> RecorderController::moviesOfTheTake() const {
    auto movies = _take->movies();
    if (auto assembled = _take->assembledMovie())
        movies.push_back(std::move(assembled));
    return movies;
}

void RecorderController::movieAtIndexFailedWithError(size_t index, const Error& error) {
    const auto movies = _take->movies();
    const auto all = moviesOfTheTake();
    const std::string title = index < movies.size() ? movies[index]->sourceTitle() : std::string();
    std::string message = MovieMessage(title, error, all.size());
    _recordingError = message;
    setError(message);
    // The recording goes on while any movie is still being written.
    if (std::all_of(all.begin(), all.end(), [](const auto& movie) { return movie->error().has_value(); })) {
        if (!_stopReason && _state == RecorderState::Recording)
            _stopReason = message;
        stopWithCompletionHandler({});
    }
}

void RecorderController::recordingEndedWithError(const std::optional<Error>& error) {
    if (_state == RecorderState::Idle)
        return;
    for (const auto& place : _places)
        place->setInTake(false);
    // A movie's failure during the recording is what the user needs to read, so it is kept.
    if (_recordingError.empty()) {
        std::string message = error ? error->message() : std::string();
        if (message.empty()) {
            const auto movies = moviesOfTheTake();
            for (const auto& movie : movies) {
                if (auto failure = movie->error()) {
                    message = MovieMessage(movie->sourceTitle(), *failure, movies.size());
                    break;
                }
            }
        }
        if (!message.empty()) {
            _recordingError = message;
            setError(std::move(message));
        }
    }
    if (error && !_stopReason)
        _stopReason = error->message();
    if (_lastElapsed > 0) {
        if (const uint64_t bytes = bytesOfTheTake(); bytes > 0)
            _lastBytesPerSecond = double(bytes) / _lastElapsed;
    }
    writeReport();
    _activity.reset();
    _state = RecorderState::Idle;
    displayLimitChanged();
    refresh();
    // Taken first: a handler may start the next recording and stop it again.
    auto handlers = std::move(_stopHandlers);
    _stopHandlers.clear();
    for (auto& handler : handlers)
        handler();
}

void RecorderController::refresh() {
    refreshAtTime(MediaClock::now());
}

void RecorderController::refreshAtTime(double now) {
    _connections.checkPlaces(_places, now);
    _composition->refreshAtTime(_places, now);
    watchDiskAtTime(now);
    changed();
}

uint64_t RecorderController::bytesOfTheTake() const {
    uint64_t bytes = 0;
    for (const auto& movie : moviesOfTheTake()) {
        std::error_code error;
        const uintmax_t size = std::filesystem::file_size(movie->url(), error);
        if (!error)
            bytes += size;
    }
    return bytes;
}

void RecorderController::watchDiskAtTime(double now) {
    if (_state != RecorderState::Recording) {
        if (_state == RecorderState::Finishing)
            return;
        const std::string& folder = _settings.text(Setting::Folder);
        const std::optional<uint64_t> free = FreeBytes(folder);
        if (!free) {
            _diskMinutes = 0;
            return;
        }
        const PlannedTake planned = PlanTake(_settings, _places, clockPlace(), nullptr);
        const double rate = _lastBytesPerSecond > 0 ? _lastBytesPerSecond : EstimatedBytesPerSecond(planned);
        _diskMinutes = MinutesLeft(*free, rate, 0, MovieCount(planned.plan));
        return;
    }
    const double elapsed = now - _startTime;
    const size_t movies = moviesOfTheTake().size();
    // The files grow a fragment (a second) at a time and the first one is late by the encoders' start,
    // so what they hold is measured over a second less than the take has lasted, and only once a few
    // fragments have come: until then the estimate serves.
    double rate = _estimatedBytesPerSecond;
    if (elapsed >= 3) {
        if (const uint64_t bytes = bytesOfTheTake(); bytes > 0)
            rate = double(bytes) / (elapsed - 1);
    }
    const std::optional<uint64_t> free = FreeBytes(_takeFolder);
    if (!free)
        return;
    _diskMinutes = MinutesLeft(*free, rate, elapsed, movies);
    if (*free <= BytesToFinish(rate, elapsed, movies)) {
        // Finished now, every movie is whole and standard; a moment later the disk would cut them off.
        const std::string message = "The disk of “" + _takeFolder +
                                    "” is nearly full: the take was finished while its movies could still be "
                                    "completed";
        Log("RecorderController: ", message);
        _stopReason = message;
        _recordingError = message;
        setError(message);
        stopWithCompletionHandler({});
        return;
    }
    if (!_diskWarned && _diskMinutes < DiskWarningMinutes) {
        _diskWarned = true;
        const std::string warning = "The disk of “" + _takeFolder + "” has room for only " +
                                    MinutesText(_diskMinutes) +
                                    " minutes of these movies: the take will be finished before it is full";
        Log("RecorderController: ", warning);
        setError(warning);
    }
}

void RecorderController::writeReport() {
    const std::string stem = _take->stem();
    const auto movies = moviesOfTheTake();
    uint64_t pictures = 0;
    for (const auto& movie : movies)
        pictures += movie->framesWritten() + movie->framesHeld();
    // A take that received no picture leaves no movie, and so nothing to report on.
    if (stem.empty() || pictures == 0)
        return;
    TakeReport report;
    report.name = stem;
    report.started = ISO8601(_startedAt);
    report.duration = _lastElapsed;
    report.stopReason = _stopReason;
    report.folder = _take->folder();
    report.freeBytesAtStart = _freeAtStart;
    report.freeBytesAtEnd = FreeBytes(report.folder).value_or(0);
    const std::string& codec = NameOf(_take->codec());
    for (const auto& movie : movies) {
        const std::shared_ptr<MovieRecorder>& recorder = movie->recorder();
        const Size size = recorder->outputSize();
        const std::optional<Error> failure = movie->error();
        report.movies.push_back({.file = movie->url().filename().string(),
                                 .source = movie->sourceTitle(),
                                 .assembled = movie == _take->assembledMovie(),
                                 .width = int64_t(size.width),
                                 .height = int64_t(size.height),
                                 .frameRate = recorder->framesPerSecond(),
                                 .codec = codec,
                                 .encoder = recorder->encoderName(),
                                 .framesDue = framesDue(*movie),
                                 .framesWritten = movie->framesWritten() + movie->framesHeld(),
                                 .framesHeld = movie->framesHeld(),
                                 .framesDropped = movie->framesDropped(),
                                 .soundSeconds = movie->soundWritten(),
                                 .soundLeftOutSeconds = movie->soundLeftOut(),
                                 .error = failure ? std::optional(failure->message()) : std::nullopt,
                                 .heldEachSecond = recorder->framesHeldEachSecond(),
                                 .droppedEachSecond = recorder->framesDroppedEachSecond()});
    }
    report.timecode = TimecodeAt(_timeOfDay, report.movies.front().frameRate);
    if (Result<> written = WriteTakeReport(report); !written) {
        Log("RecorderController: ", written.error().message());
        return;
    }
    _lastReport = (report.folder / (stem + ".html")).string();
}

// Status.

double RecorderController::elapsed() const {
    return _state == RecorderState::Recording ? MediaClock::now() - _startTime : _lastElapsed;
}

uint64_t RecorderController::frames() const {
    if (auto assembled = _take->assembledMovie())
        return assembled->framesWritten();
    return _places.empty() ? 0 : _places.front()->frames();
}

uint64_t RecorderController::dropped() const {
    uint64_t dropped = assembledDropped();
    for (const auto& place : _places)
        dropped += place->dropped();
    return dropped;
}

uint64_t RecorderController::framesDue(const TakeMovie& movie) const {
    return uint64_t(std::llround(dueRate(movie) * elapsed()));
}

double RecorderController::dueRate(const TakeMovie& movie) const {
    for (const auto& [due, rate] : _dueRates) {
        if (due.get() == &movie)
            return rate;
    }
    return 0;
}

std::string RecorderController::file() const {
    if (auto assembled = _take->assembledMovie())
        return assembled->url().string();
    return _places.empty() ? std::string() : _places.front()->file();
}

std::string RecorderController::assembledFile() const {
    auto assembled = _take->assembledMovie();
    if (!assembled || (_state == RecorderState::Idle && assembled->framesWritten() == 0))
        return std::string();
    return assembled->url().string();
}

uint64_t RecorderController::assembledFrames() const {
    auto assembled = _take->assembledMovie();
    return assembled ? assembled->framesWritten() : 0;
}

uint64_t RecorderController::assembledDropped() const {
    auto assembled = _take->assembledMovie();
    return assembled ? assembled->framesDropped() : 0;
}

double RecorderController::assembledSoundWritten() const {
    auto assembled = _take->assembledMovie();
    return assembled ? assembled->soundWritten() : 0;
}

double RecorderController::soundLeftOut() const {
    double leftOut = 0;
    for (const auto& movie : moviesOfTheTake())
        leftOut += movie->soundLeftOut();
    return leftOut;
}

// Composition.

bool RecorderController::displayIsLimited() const {
    return performance() && isRecording();
}

Layout RecorderController::assembledLayout() const {
    if (auto layout = _composition->takeLayout())
        return *layout;
    return Layout(_settings.layoutKind(), LayoutSizes(SizesOfPlaces(_places)), gap(),
                  _settings.fittingSize());
}

void RecorderController::compositionChanged() {
    _composition->arrangementChanged({.places = _places,
                                      .kind = _settings.layoutKind(),
                                      .gap = gap(),
                                      .fittingSize = _settings.fittingSize(),
                                      .transparent = _settings.codec() == Codec::ProRes4444});
}

void RecorderController::displayLimitChanged() {
    _composition->displayLimitChanged(displayIsLimited());
}

} // namespace quorva
