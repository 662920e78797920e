#include "core/RecorderController.h"

#include "core/Compositor.h"
#include "core/Layout.h"
#include "core/MovieRecorderSettings.h"
#include "core/SourceSound.h"
#include "core/Take.h"
#include "core/TakeNaming.h"
#include "platform/EventLoop.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"
#include "platform/Semaphore.h"
#include "platform/UserFolders.h"

#include <algorithm>
#include <clocale>
#include <cmath>
#include <ctime>
#include <cwctype>
#include <locale.h>
#include <set>
#include <thread>
#include <utility>

namespace quorva {

namespace {

const char* const CodecKey = "RecorderCodec";
const char* const FolderKey = "RecorderFolder";
const char* const NameKey = "RecorderName";
const char* const OutputKey = "RecorderOutput";
const char* const LayoutKey = "RecorderLayout";
const char* const SoundKey = "RecorderSound";
const char* const WidthKey = "RecorderWidth";
const char* const HeightKey = "RecorderHeight";
const char* const FPSKey = "RecorderFPS";
const char* const BitrateKey = "RecorderBitrate";
const char* const GapKey = "RecorderGap";
const char* const PerformanceKey = "RecorderPerformance";
const char* const SourcesKey = "RecorderSources";

constexpr int64_t MaximumSide = 16384;
constexpr double MaximumFPS = 240;
constexpr double MaximumBitrate = 1000;
constexpr int64_t MaximumGap = 1000;

constexpr double RefreshInterval = 0.25;
// A place without a source is tried again this often; a silent one is checked at twice this, doubled
// with every silent check, up to the longest interval.
constexpr double CheckInterval = 2;
constexpr double LongestCheckInterval = 30;
constexpr uint64_t MostCheckDoublings = 8;
constexpr int64_t TransparentCodec = 3; // "prores4444"
// The clock passes to another place once the clock place's last picture is this much older.
constexpr double ClockHandOverInterval = 1.0;
// The monitor is composed at most this often (250 a second) outside performance mode.
constexpr double MonitorInterval = 0.004;
// The monitor picture is at most this large either way, to leave the GPU to the encoders.
constexpr double MonitorMaximumSide = 4096;
constexpr double MonitorWaitLimit = 0.5;

// Whether places of this kind may bring sound: network and test sources do, desktop video streams
// (PipeWire, and any kind this program does not know) never do.
bool KindCarriesSound(int64_t kind) {
    return kind == SourceKindNDI || kind == SourceKindPattern;
}

// "QuorvaRecorder 2025-03-03 21.05.09", in local time. The numeric conversions of strftime ignore the
// user's locale, so the digits and the 24-hour clock are the same everywhere.
std::string TakeNameAt(std::time_t time) {
    std::tm parts{};
    localtime_r(&time, &parts);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H.%M.%S", &parts);
    return std::string("QuorvaRecorder ") + stamp;
}

std::vector<Size> LayoutSizes(const std::vector<std::optional<Size>>& sizes) {
    std::vector<Size> layoutSizes;
    for (const auto& size : sizes)
        layoutSizes.push_back(size.value_or(Size{}));
    return layoutSizes;
}

double ClampedFinite(double value, double maximum) {
    return std::isfinite(value) ? std::clamp(value, 0.0, maximum) : 0;
}

// Titles come from people and from the network, in any script: case is folded per character with the
// C library's Unicode tables rather than for ASCII letters only.
std::u32string Folded(std::string_view text) {
    static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
    std::u32string folded;
    folded.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        auto byte = static_cast<unsigned char>(text[i]);
        int length = byte < 0x80           ? 1
                     : (byte >> 5) == 0x6  ? 2
                     : (byte >> 4) == 0xE  ? 3
                     : (byte >> 3) == 0x1E ? 4
                                           : 0;
        char32_t code = length == 1   ? byte
                        : length == 2 ? byte & 0x1F
                        : length == 3 ? byte & 0x0F
                                      : byte & 0x07;
        bool whole = length > 0 && i + size_t(length) <= text.size();
        for (int k = 1; whole && k < length; ++k) {
            auto next = static_cast<unsigned char>(text[i + size_t(k)]);
            whole = (next & 0xC0) == 0x80;
            code = (code << 6) | (next & 0x3F);
        }
        if (!whole) {
            // A stray byte stands for itself, so that broken text still matches itself.
            folded.push_back(char32_t(0xDC00 + byte));
            ++i;
            continue;
        }
        if (utf8)
            code = char32_t(::towlower_l(wint_t(code), utf8));
        else if (code < 0x80)
            code = char32_t(std::tolower(int(code)));
        folded.push_back(code);
        i += size_t(length);
    }
    return folded;
}

bool ContainsIgnoringCase(std::string_view text, const std::u32string& foldedPart) {
    return Folded(text).find(foldedPart) != std::u32string::npos;
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

std::vector<std::optional<Size>> SizesOfPlaces(const std::vector<std::shared_ptr<RecorderPlace>>& places) {
    std::vector<std::optional<Size>> sizes;
    for (const auto& place : places) {
        int64_t width = place->width(), height = place->height();
        if (width >= 1 && height >= 1)
            sizes.push_back(Size{double(width), double(height)});
        else
            sizes.push_back(std::nullopt);
    }
    return sizes;
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
    controller->connectPlaces();
    controller->compositionChanged();
    controller->_directory->setChangeHandler([weak] {
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
      _defaults(std::move(defaults)), _encoderSpeed(std::move(encoderSpeed)) {
    if (!_encoderSpeed && _defaults)
        _encoderSpeed = EncoderSpeed::make(_defaults);
    loadSettings();
    if (_engine) {
        _takeCompositor = Compositor::make(_engine);
        _monitorCompositor = Compositor::make(_engine);
    }
    _take = Take::make(_engine);
    if (_computerSound) {
        // Holds the take, not the controller: the sound's thread never reaches the controller.
        _computerSound->setSoundHandler([take = _take](const std::shared_ptr<SourceSound>& sound) {
            take->appendComputerSound(sound, MediaClock::now());
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

void RecorderController::loadSettings() {
    const std::string& firstCodec = MovieRecorderSettings::codecNames().front();
    const std::string& firstOutput = OutputNames().front();
    const std::string& firstLayout = Layout::kindNames().front();
    _defaults->registerDefaults({{CodecKey, firstCodec},
                                 {FolderKey, MoviesFolder().string()},
                                 {NameKey, std::string()},
                                 {OutputKey, firstOutput},
                                 {LayoutKey, firstLayout},
                                 {SoundKey, std::string()}});

    // Names are checked, because every other part reads them; numbers come back exactly as saved
    // (except the gap), since the take and the movies give 0 and large values their meaning.
    int64_t number = 0;
    _codec = _defaults->stringForKey(CodecKey).value_or("");
    if (!MovieRecorderSettings::getCodec(number, _codec))
        _codec = firstCodec;
    _folder = _defaults->stringForKey(FolderKey).value_or("");
    _name = _defaults->stringForKey(NameKey).value_or("");
    _output = _defaults->stringForKey(OutputKey).value_or("");
    if (!GetOutput(number, _output))
        _output = firstOutput;
    _layout = _defaults->stringForKey(LayoutKey).value_or("");
    if (!Layout::getKind(number, _layout))
        _layout = firstLayout;
    _sound = _defaults->stringForKey(SoundKey).value_or("");
    _width = _defaults->integerForKey(WidthKey);
    _height = _defaults->integerForKey(HeightKey);
    _fps = _defaults->doubleForKey(FPSKey);
    _bitrate = _defaults->doubleForKey(BitrateKey);
    _gap = std::clamp<int64_t>(_defaults->integerForKey(GapKey), 0, MaximumGap);
    _performance = _defaults->boolForKey(PerformanceKey);
}

// Settings. A failed write is logged by the store and the value still holds for this run, so the
// setters carry on either way.

void RecorderController::setCodec(std::string codec) {
    _codec = std::move(codec);
    (void)_defaults->setString(_codec, CodecKey);
    compositionChanged();
    changed();
}

void RecorderController::setWidth(int64_t width) {
    _width = std::clamp<int64_t>(width, 0, MaximumSide);
    (void)_defaults->setInteger(_width, WidthKey);
    compositionChanged();
    changed();
}

void RecorderController::setHeight(int64_t height) {
    _height = std::clamp<int64_t>(height, 0, MaximumSide);
    (void)_defaults->setInteger(_height, HeightKey);
    compositionChanged();
    changed();
}

void RecorderController::setFps(double fps) {
    _fps = ClampedFinite(fps, MaximumFPS);
    (void)_defaults->setDouble(_fps, FPSKey);
    changed();
}

void RecorderController::setBitrate(double bitrate) {
    _bitrate = ClampedFinite(bitrate, MaximumBitrate);
    (void)_defaults->setDouble(_bitrate, BitrateKey);
    changed();
}

void RecorderController::setFolder(std::string folder) {
    _folder = ExpandTilde(folder);
    (void)_defaults->setString(_folder, FolderKey);
    changed();
}

void RecorderController::setName(std::string name) {
    _name = std::move(name);
    (void)_defaults->setString(_name, NameKey);
    changed();
}

void RecorderController::setOutput(std::string_view output) {
    int64_t number = 0;
    if (!GetOutput(number, output))
        return;
    _output = NameForOutput(number);
    (void)_defaults->setString(_output, OutputKey);
    changed();
}

void RecorderController::setLayout(std::string_view layout) {
    int64_t kind = 0;
    if (!Layout::getKind(kind, layout))
        return;
    _layout = Layout::nameForKind(kind);
    (void)_defaults->setString(_layout, LayoutKey);
    compositionChanged();
    changed();
}

void RecorderController::setGap(int64_t gap) {
    _gap = std::clamp<int64_t>(gap, 0, MaximumGap);
    (void)_defaults->setInteger(_gap, GapKey);
    compositionChanged();
    changed();
}

void RecorderController::setSound(std::string_view sound) {
    auto choice = soundChoiceMatching(sound);
    if (!choice)
        return;
    _sound = std::move(*choice);
    (void)_defaults->setString(_sound, SoundKey);
    changed();
}

void RecorderController::setPerformance(bool performance) {
    _performance = performance;
    (void)_defaults->setBool(_performance, PerformanceKey);
    displayLimitChanged();
    changed();
}

void RecorderController::setNdiAvailable(bool available) {
    _ndiAvailable = available;
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
        failWithError("/source expects the title of a source");
        return std::nullopt;
    }
    std::vector<std::string> candidates;
    std::set<std::string> offered;
    for (const auto& description : _availableSources) {
        candidates.push_back(description.title());
        offered.insert(description.title());
    }
    // A place whose source is offline can still be named.
    for (const auto& place : _places) {
        std::string title = place->title();
        if (!offered.count(title))
            candidates.push_back(std::move(title));
    }
    for (const auto& candidate : candidates) {
        if (candidate == text)
            return candidate;
    }
    std::u32string part = Folded(text);
    for (const auto& candidate : candidates) {
        if (ContainsIgnoringCase(candidate, part))
            return candidate;
    }
    failWithError("There is no source called \u201C" + std::string(text) + "\u201D");
    return std::nullopt;
}

std::optional<std::string> RecorderController::placeTitleMatching(std::string_view text) const {
    for (const auto& place : _places) {
        if (std::string title = place->title(); title == text)
            return title;
    }
    std::u32string part = Folded(text);
    for (const auto& place : _places) {
        if (std::string title = place->title(); ContainsIgnoringCase(title, part))
            return title;
    }
    return std::nullopt;
}

std::optional<std::string> RecorderController::soundChoiceMatching(std::string_view text) const {
    if (text.empty())
        return std::string();
    if (Folded(text) == Folded(RecorderComputerSound))
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
    // Replaced whole, never changed in place: whoever holds the old list keeps a consistent one.
    _places = std::move(places);
    std::vector<std::string> titles;
    for (const auto& place : _places)
        titles.push_back(place->title());
    (void)_defaults->setStringArray(titles, SourcesKey);
    connectPlaces();
    compositionChanged();
    changed();
}

// Connecting.

std::vector<SourceDescription> RecorderController::sourcesOf(SourceDirectory& directory) {
    std::vector<SourceDescription> sources;
    std::set<std::string> seen;
    for (auto& description : directory.availableSources()) {
        if (seen.insert(description.title()).second)
            sources.push_back(std::move(description));
    }
    return sources;
}

void RecorderController::sourcesDidChange() {
    _availableSources = sourcesOf(*_directory);
    connectPlaces();
    changed();
}

void RecorderController::connectPlaces() {
    std::set<std::string> offered;
    for (const auto& description : _availableSources)
        offered.insert(description.title());
    for (const auto& place : _places) {
        auto source = place->source();
        if (source && !offered.count(source->title()))
            place->letGoOfSource();
        else if (!source && offered.count(place->title()))
            connectPlace(place);
    }
}

void RecorderController::connectPlace(const std::shared_ptr<RecorderPlace>& place) {
    place->setCheckTime(MediaClock::now());
    auto source = _directory->connectToSourceWithTitle(place->title(), _engine);
    if (!source)
        return;
    place->setKind(source->kind());
    place->setKindKnown(true);
    // Read once: a source does not turn over while connected.
    bool flipped = source->flipped();

    // The take is held strongly: it is the same for every recording, so these handlers route into
    // whichever take runs without being installed again.
    std::weak_ptr<RecorderPlace> weakPlace = place;
    std::weak_ptr<RecorderController> weakController = weak_from_this();
    source->setFrameHandler(
        [weakPlace, weakController, take = _take, flipped](const std::shared_ptr<Picture>& picture) {
            double time = MediaClock::now();
            auto place = weakPlace.lock();
            if (!place)
                return;
            // While a take runs, the index names this place's movie in it; between takes it is NoIndex.
            size_t takeIndex = place->receivedFrame(picture, flipped, time);
            if (takeIndex != NoIndex)
                take->appendPicture(picture, flipped, takeIndex, time);
            if (auto controller = weakController.lock())
                controller->placeReceivedFrame(place, time);
        });
    source->setSoundHandler([weakPlace, take = _take](const std::shared_ptr<SourceSound>& sound) {
        double time = MediaClock::now();
        auto place = weakPlace.lock();
        if (!place)
            return;
        size_t soundIndex = place->receivedSoundAtTime(time);
        if (soundIndex != NoIndex)
            take->appendSound(sound, soundIndex, time);
    });
    place->setSource(std::move(source));
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

    MovieRecorderSettings settings;
    int64_t codec = 0;
    MovieRecorderSettings::getCodec(codec, _codec);
    settings.setCodec(codec);
    settings.setFramesPerSecond(_fps);
    settings.setMegabitsPerSecond(_bitrate);

    const std::vector<std::optional<Size>> sizes = SizesOfPlaces(_places);
    int64_t output = TakeOutputSeparate;
    GetOutput(output, _output);
    std::shared_ptr<const Layout> layout;
    if (output != TakeOutputSeparate)
        layout = std::make_shared<Layout>(layoutKind(), LayoutSizes(sizes), _gap,
                                          Size{double(_width), double(_height)});
    const std::string name = _name.empty() ? TakeNameAt(std::time(nullptr)) : _name;

    const bool computerSound = _sound == RecorderComputerSound;
    const auto [soundSources, assembledSoundIndex] = soundRouting(output, computerSound);

    // What each movie is due: its source's announced rate, capped by the frame rate setting; the
    // assembled picture is composed as the clock source delivers.
    const auto rateOf = [this](const std::shared_ptr<RecorderPlace>& place) {
        const auto source = place ? place->source() : nullptr;
        const double rate = source ? source->framesPerSecond() : 0;
        return _fps > 0 ? std::min(rate, _fps) : rate;
    };
    std::vector<double> rates;
    for (const auto& place : _places)
        rates.push_back(rateOf(place));
    const double clockRate = rateOf(clockPlace());
    const PresetChoice preset =
        choosePreset(codec, output != TakeOutputAssembled ? sizes : Take::SourceSizes(), rates,
                     layout ? layout->size() : Size{}, clockRate);
    settings.setEncoderPreset(preset.preset);
    // The take's encoders run side by side: each gets its share of the processors. More threads than
    // that cost memory (a picture each) and time spent waiting on one another, and left the encoders
    // further behind at the start of a take here.
    const size_t movieCount = (output != TakeOutputAssembled ? _places.size() : 0) + (layout ? 1 : 0);
    settings.setEncoderThreads(
        std::max<int64_t>(1, std::lround(double(std::thread::hardware_concurrency()) / double(movieCount))));

    std::vector<std::string> titles;
    for (const auto& place : _places)
        titles.push_back(place->title());
    const double time = MediaClock::now();
    Result<> started =
        _take->startWithSourceTitles(titles, sizes, output, layout ? layout->size() : Size{}, soundSources,
                                     assembledSoundIndex, computerSound, name, _folder, settings, time);
    if (!started) {
        const std::string& message = started.error().message();
        return failWithError(message.empty() ? "The recording could not start" : message);
    }

    if (computerSound && _computerSound)
        (void)_computerSound->start();
    const auto movies = _take->movies();
    for (size_t i = 0; i < _places.size(); ++i) {
        const bool hasMovie = i < movies.size();
        _places[i]->setMovie(hasMovie ? movies[i] : nullptr);
        _places[i]->setInTake(hasMovie);
        // A place without a movie of its own may still give the assembled movie its sound.
        _places[i]->setTakeIndex(i, hasMovie);
    }
    {
        std::lock_guard lock(_composeLock);
        _takeLayout = layout;
        _takeMonitorLayout = layout ? std::make_shared<const Layout>(
                                          MonitorLayout(*layout, layout->kind(), LayoutSizes(sizes), _gap))
                                    : nullptr;
        _takeTransparent = codec == TransparentCodec;
    }
    _startTime = time;
    _dueRates.clear();
    for (size_t i = 0; i < rates.size() && i < movies.size(); ++i)
        _dueRates.emplace_back(movies[i], rates[i]);
    if (auto assembled = _take->assembledMovie())
        _dueRates.emplace_back(assembled, clockRate);
    _encoderPreset = preset.preset;
    if (!preset.keepsUp) {
        const std::string warning = "The encoders cannot keep up with these movies on this computer, even at "
                                    "their fastest: frames will be dropped. Record fewer or smaller sources, "
                                    "a lower frame rate, or ProRes";
        Log("RecorderController: ", warning);
        setError(warning);
    }
    _activity = SystemActivity::begin("Recording");
    _state = RecorderState::Recording;
    displayLimitChanged();
    refresh();
    return true;
}

std::pair<std::set<size_t>, size_t> RecorderController::soundRouting(int64_t output,
                                                                     bool computerSound) const {
    std::set<size_t> sources;
    for (size_t i = 0; i < _places.size(); ++i) {
        const RecorderPlace& place = *_places[i];
        // With the computer's sound in every separate movie, only a source's own sound would add to it.
        // Otherwise a place whose kind is not known yet may still turn out to have sound.
        const bool carries = place.kindKnown() && KindCarriesSound(place.kind());
        if (computerSound && output == TakeOutputSeparate ? carries : !place.kindKnown() || carries)
            sources.insert(i);
    }
    size_t assembledIndex = NoIndex;
    if (!computerSound && !_sound.empty()) {
        size_t index = indexOfPlaceWithTitle(_sound);
        if (sources.count(index))
            assembledIndex = index;
    }
    return {sources, assembledIndex};
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
        place->setTakeIndex(NoIndex, false);
    {
        std::lock_guard lock(_composeLock);
        _takeLayout = nullptr;
        _takeMonitorLayout = nullptr;
    }
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

namespace {

// "Title: description" when the take has several movies, else the description alone.
std::string MovieMessage(const std::string& title, const Error& error, size_t movieCount) {
    if (movieCount <= 1)
        return error.message();
    return (title.empty() ? std::string("Assembled movie") : title) + ": " + error.message();
}

} // namespace

void RecorderController::movieAtIndexFailedWithError(size_t index, const Error& error) {
    const auto movies = _take->movies();
    const auto all = moviesOfTheTake();
    const std::string title = index < movies.size() ? movies[index]->sourceTitle() : std::string();
    std::string message = MovieMessage(title, error, all.size());
    _recordingError = message;
    setError(std::move(message));
    // The recording goes on while any movie is still being written.
    if (std::all_of(all.begin(), all.end(), [](const auto& movie) { return movie->error().has_value(); }))
        stopWithCompletionHandler({});
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
    for (const auto& place : _places) {
        place->measureAtTime(now);
        const double lastFrame = place->lastFrameTime();
        if (lastFrame > place->checkTime())
            place->setSilentChecks(0);
        const auto source = place->source();
        const double interval =
            source ? std::min(CheckInterval *
                                  std::exp2(double(std::min(place->silentChecks(), MostCheckDoublings))),
                              LongestCheckInterval)
                   : CheckInterval;
        if (now - std::max(place->checkTime(), lastFrame) <= interval)
            continue;
        if (!source) {
            connectPlace(place);
        } else if (source->isAlive()) {
            place->setCheckTime(now);
            place->setSilentChecks(place->silentChecks() + 1);
        } else {
            place->letGoOfSource();
            connectPlace(place);
            if (place->source())
                place->setSilentChecks(place->silentChecks() + 1);
        }
    }

    bool composeMonitor = false;
    {
        std::lock_guard lock(_composeLock);
        for (const auto& place : _places) {
            if (place->isOnline()) {
                _clockPlace = place;
                break;
            }
        }
        // Keeps the monitor moving when no clock source drives it.
        composeMonitor = now - _lastComposeTime > RefreshInterval;
    }
    if (composeMonitor)
        composeMonitorAtTime(now, false);
    changed();
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

PresetChoice RecorderController::choosePreset(int64_t codec, const Take::SourceSizes& sizes,
                                              const std::vector<double>& rates, Size assembledSize,
                                              double clockRate) const {
    if (!_encoderSpeed)
        return {};
    // A source that does not say its rate may send as many as a display shows; one whose size is not
    // known yet is taken to be 1080p, the common case.
    const auto pixelsOf = [](std::optional<Size> size, double rate) {
        const Size known = size.value_or(Size{1920, 1080});
        return known.width * known.height * (rate > 0 ? rate : 60);
    };
    double pixels = assembledSize.width > 0 ? pixelsOf(assembledSize, clockRate) : 0;
    for (size_t i = 0; i < sizes.size() && i < rates.size(); ++i)
        pixels += pixelsOf(sizes[i], rates[i]);
    return _encoderSpeed->presetFor(codec, pixels);
}

uint64_t RecorderController::framesDue(const TakeMovie& movie) const {
    for (const auto& [due, rate] : _dueRates) {
        if (due.get() == &movie)
            return uint64_t(std::llround(rate * elapsed()));
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

int64_t RecorderController::layoutKind() const {
    int64_t kind = 0;
    Layout::getKind(kind, _layout);
    return kind;
}

bool RecorderController::displayIsLimited() const {
    return _performance && isRecording();
}

Layout RecorderController::assembledLayout() const {
    {
        std::lock_guard lock(_composeLock);
        if (_takeLayout)
            return *_takeLayout;
    }
    return Layout(layoutKind(), LayoutSizes(SizesOfPlaces(_places)), _gap,
                  Size{double(_width), double(_height)});
}

std::shared_ptr<Picture> RecorderController::assembledFrame() const {
    std::lock_guard lock(_shown->lock);
    return _shown->picture;
}

void RecorderController::showPicture(std::shared_ptr<Picture> picture) {
    std::lock_guard lock(_shown->lock);
    _shown->picture = std::move(picture);
}

std::shared_ptr<RecorderPlace> RecorderController::clockPlace() const {
    std::lock_guard lock(_composeLock);
    return _clockPlace;
}

void RecorderController::placeReceivedFrame(const std::shared_ptr<RecorderPlace>& place, double time) {
    Places places;
    std::shared_ptr<const Layout> takeLayout;
    bool transparent = false;
    double lastComposeTime = 0, interval = 0;
    {
        std::lock_guard lock(_composeLock);
        if (std::find(_composePlaces.begin(), _composePlaces.end(), place) == _composePlaces.end())
            return;
        // The clock stays with one source while it delivers and passes to another within a second after
        // it stops.
        if (_clockPlace != place &&
            (!_clockPlace || time - _clockPlace->lastFrameTime() > ClockHandOverInterval))
            _clockPlace = place;
        if (_clockPlace != place)
            return; // its picture waits for the next composition
        places = _composePlaces;
        takeLayout = _takeLayout;
        transparent = _takeTransparent;
        lastComposeTime = _lastComposeTime;
        interval = _displayLimited ? 1 / RecorderLimitedDisplayRate : MonitorInterval;
    }
    if (takeLayout && _take->wantsAssembledFrameAtTime(time)) {
        // The monitor shows the picture being recorded, so it needs no composition of its own.
        composePlaces(places, *takeLayout, transparent, _takeCompositor, time,
                      [take = _take, time](const std::shared_ptr<Picture>& picture) {
                          take->appendAssembledPicture(picture, time);
                      });
    } else if (time - lastComposeTime >= interval) {
        composeMonitorAtTime(time, false);
    }
}

void RecorderController::compositionChanged() {
    {
        std::lock_guard lock(_composeLock);
        _composePlaces = _places;
        _composeKind = layoutKind();
        _composeGap = _gap;
        _composeFittingSize = Size{double(_width), double(_height)};
        int64_t codec = 0;
        MovieRecorderSettings::getCodec(codec, _codec);
        _composeTransparent = codec == TransparentCodec;
        if (_clockPlace && std::find(_places.begin(), _places.end(), _clockPlace) == _places.end())
            _clockPlace = nullptr;
    }
    composeMonitorAtTime(MediaClock::now(), true);
}

void RecorderController::displayLimitChanged() {
    bool limited = displayIsLimited();
    std::lock_guard lock(_composeLock);
    _displayLimited = limited;
}

void RecorderController::composeMonitorAtTime(double time, bool wait) {
    Places places;
    std::shared_ptr<const Layout> monitorLayout;
    int64_t kind = 0, gap = 0;
    Size fitting;
    bool transparent = false;
    {
        std::lock_guard lock(_composeLock);
        places = _composePlaces;
        monitorLayout = _takeMonitorLayout;
        kind = _composeKind;
        gap = _composeGap;
        fitting = _composeFittingSize;
        transparent = monitorLayout ? _takeTransparent : _composeTransparent;
    }
    if (!monitorLayout) {
        std::vector<Size> sizes = LayoutSizes(SizesOfPlaces(places));
        monitorLayout = std::make_shared<const Layout>(
            MonitorLayout(Layout(kind, sizes, gap, fitting), kind, sizes, gap));
    }
    auto drawn = wait ? std::make_shared<Semaphore>() : nullptr;
    bool composing = composePlaces(places, *monitorLayout, transparent, _monitorCompositor, time,
                                   [drawn](const std::shared_ptr<Picture>&) {
                                       if (drawn)
                                           drawn->signal();
                                   });
    // A stalled GPU must not hold the main thread for long.
    if (composing && drawn)
        (void)drawn->wait(MonitorWaitLimit);
}

bool RecorderController::composePlaces(const Places& places, const Layout& layout, bool transparent,
                                       const std::shared_ptr<Compositor>& compositor, double time,
                                       std::function<void(const std::shared_ptr<Picture>&)> then) {
    std::vector<std::shared_ptr<Picture>> pictures;
    std::vector<bool> flipped;
    for (const auto& place : places) {
        pictures.push_back(place->source() ? place->latestFrame() : nullptr);
        flipped.push_back(place->flipped());
    }
    {
        std::lock_guard lock(_composeLock);
        _lastComposeTime = time;
    }
    if (!places.empty() && compositor) {
        auto composed = compositor->compose(
            layout, pictures, flipped, transparent,
            [shown = _shown, then = std::move(then)](const std::shared_ptr<Picture>& picture) {
                {
                    std::lock_guard lock(shown->lock);
                    shown->picture = picture;
                }
                if (then)
                    then(picture);
            });
        if (composed)
            return true;
    }
    showPicture(nullptr);
    return false;
}

Layout MonitorLayout(const Layout& layout, int64_t kind, const std::vector<Size>& sizes, int64_t gap) {
    const Size size = layout.size();
    const double larger = std::max(size.width, size.height);
    if (larger <= MonitorMaximumSide)
        return layout;
    const double scale = MonitorMaximumSide / larger;
    auto side = [scale](double length) { return std::max(2.0, 2 * std::round(length * scale / 2)); };
    return Layout(kind, sizes, gap, Size{side(size.width), side(size.height)});
}

} // namespace quorva
