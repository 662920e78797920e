#include "core/RecorderController.h"

#include "core/Layout.h"
#include "core/MovieRecorderSettings.h"
#include "core/TakeNaming.h"
#include "platform/EventLoop.h"
#include "platform/MediaClock.h"
#include "platform/UserFolders.h"

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cwctype>
#include <locale.h>
#include <set>
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

std::shared_ptr<RecorderController> RecorderController::make(std::shared_ptr<GpuDevice> device,
                                                             std::shared_ptr<SourceDirectory> directory,
                                                             std::shared_ptr<SoundSource> computerSound,
                                                             std::shared_ptr<SettingsStore> defaults) {
    auto controller = std::make_shared<RecorderController>(Private{}, std::move(device), std::move(directory),
                                                           std::move(computerSound), std::move(defaults));
    // What follows hands out weak references to the controller, which exist only from here on.
    controller->connectPlaces();
    controller->compositionChanged();
    std::weak_ptr<RecorderController> weak = controller;
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
    return controller;
}

RecorderController::RecorderController(Private, std::shared_ptr<GpuDevice> device,
                                       std::shared_ptr<SourceDirectory> directory,
                                       std::shared_ptr<SoundSource> computerSound,
                                       std::shared_ptr<SettingsStore> defaults)
    : _device(std::move(device)), _directory(std::move(directory)), _computerSound(std::move(computerSound)),
      _defaults(std::move(defaults)) {
    loadSettings();
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
    auto source = _directory->connectToSourceWithTitle(place->title(), _device);
    if (!source)
        return;
    place->setKind(source->kind());
    place->setKindKnown(true);
    // Read once: a source does not turn over while connected.
    bool flipped = source->flipped();

    std::weak_ptr<RecorderPlace> weakPlace = place;
    std::weak_ptr<RecorderController> weakController = weak_from_this();
    source->setFrameHandler([weakPlace, weakController, flipped](const std::shared_ptr<Texture>& texture) {
        double time = MediaClock::now();
        auto place = weakPlace.lock();
        if (!place)
            return;
        // While a take runs, the index names this place's movie in it; between takes it is NoIndex.
        size_t takeIndex = place->receivedFrame(texture, flipped, time);
        (void)takeIndex;
        if (auto controller = weakController.lock())
            controller->placeReceivedFrame(place, time);
    });
    source->setSoundHandler([weakPlace](const std::shared_ptr<SourceSound>&) {
        double time = MediaClock::now();
        auto place = weakPlace.lock();
        if (!place)
            return;
        size_t soundIndex = place->receivedSoundAtTime(time);
        (void)soundIndex;
    });
    place->setSource(std::move(source));
}

void RecorderController::placeReceivedFrame(const std::shared_ptr<RecorderPlace>&, double) {
    // Nothing is composed from the places' pictures yet.
}

void RecorderController::compositionChanged() {
    // No picture is composed yet, so nothing follows the layout.
}

void RecorderController::displayLimitChanged() {
    // No monitor is drawn yet, so there is no rate to hold down.
}

} // namespace quorva
