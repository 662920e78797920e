#pragma once

#include "core/composition/CompositionScheduler.h"
#include "core/composition/Layout.h"
#include "core/composition/RecorderPlace.h"
#include "core/control/PlaceConnections.h"
#include "core/control/RecorderSettings.h"
#include "core/control/TakePlanning.h"
#include "core/movie/EncoderSpeed.h"
#include "core/movie/Take.h"
#include "core/source/NoIndex.h"
#include "core/source/SoundLevels.h"
#include "core/source/SoundSource.h"
#include "core/source/SourceDescription.h"
#include "core/source/SourceDirectory.h"
#include "platform/EventLoop.h"
#include "platform/PictureEngine.h"
#include "platform/SettingsStore.h"
#include "platform/SystemActivity.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorva {

class TakeMovie;

// The most places, and so sources, that one recording holds.
inline constexpr size_t RecorderMaximumPlaces = 8;

enum class RecorderState { Idle, Recording, Finishing };

// "idle", "recording" or "finishing".
const std::string& RecorderStateName(RecorderState state);

// The centre of the program, and the one face that the window, the command line and the remote side
// see: the recording settings, the numbered places that hold the chosen sources, the recording of
// them all into one take, the assembled picture and the monitor picture, the state, and the error
// shown to the user. One instance, made at start-up. Its parts do the work: RecorderSettings keeps
// the settings, PlaceConnections the sources' connections, PlanTake() decides what a take records,
// and CompositionScheduler what is composed when.
//
// Everything here is meant for the main thread (the main EventLoop's). The sources' callbacks run on
// their own threads: they touch their place, hand pictures and sound to the take and to the
// composition, and share nothing else with the main thread. Settings never fail: numbers out of range
// are clamped, names that are not in their list are ignored. Operations that refuse set the error and
// answer false.
class RecorderController : public std::enable_shared_from_this<RecorderController> {
    struct Private {};

public:
    using ObserverId = uint64_t;

    // Registers the settings' defaults, loads the settings, makes the places from the saved titles and
    // connects those whose source is offered. `computerSound` may be empty where there is none.
    // `encoderSpeed` tells how fast this machine encodes; without one, it is measured into `defaults`.
    static std::shared_ptr<RecorderController> make(std::shared_ptr<PictureEngine> engine,
                                                    std::shared_ptr<SourceDirectory> directory,
                                                    std::shared_ptr<SoundSource> computerSound,
                                                    std::shared_ptr<SettingsStore> defaults,
                                                    std::shared_ptr<EncoderSpeed> encoderSpeed = nullptr);
    RecorderController(Private, std::shared_ptr<PictureEngine> engine,
                       std::shared_ptr<SourceDirectory> directory, std::shared_ptr<SoundSource> computerSound,
                       std::shared_ptr<SettingsStore> defaults, std::shared_ptr<EncoderSpeed> encoderSpeed);
    // Stops the computer's sound and every place's source.
    ~RecorderController();
    RecorderController(const RecorderController&) = delete;
    RecorderController& operator=(const RecorderController&) = delete;

    const std::shared_ptr<PictureEngine>& engine() const { return _engine; }

    // Settings. Each setter stores, persists and tells the observers, except where it ignores a value.
    const RecorderSettings& settings() const { return _settings; }
    // Any setting by its name: a text (false, changing nothing, when it is refused) or a number, kept
    // within its range.
    bool setText(Setting setting, std::string_view text);
    void setNumber(Setting setting, double number);

    // Any text: the take reads an unknown name as "h264".
    const std::string& codec() const { return _settings.text(Setting::Codec); }
    void setCodec(std::string_view codec) { setText(Setting::Codec, codec); }
    // 0…16384; 0 either way: the sources' own size.
    int64_t width() const { return _settings.integer(Setting::Width); }
    void setWidth(int64_t width) { setNumber(Setting::Width, double(width)); }
    int64_t height() const { return _settings.integer(Setting::Height); }
    void setHeight(int64_t height) { setNumber(Setting::Height, double(height)); }
    // 0…240, not a number: 0; 0 keeps every frame.
    double fps() const { return _settings.number(Setting::FPS); }
    void setFps(double fps) { setNumber(Setting::FPS, fps); }
    // Megabits a second, 0…1000, not a number: 0; 0 is chosen from size and rate.
    double bitrate() const { return _settings.number(Setting::Bitrate); }
    void setBitrate(double bitrate) { setNumber(Setting::Bitrate, bitrate); }
    // A leading "~" is expanded.
    const std::string& folder() const { return _settings.text(Setting::Folder); }
    void setFolder(std::string_view folder) { setText(Setting::Folder, folder); }
    // "": named after the date.
    const std::string& name() const { return _settings.text(Setting::Name); }
    void setName(std::string_view name) { setText(Setting::Name, name); }
    // Ignored unless an output name.
    const std::string& output() const { return _settings.text(Setting::Output); }
    void setOutput(std::string_view output) { setText(Setting::Output, output); }
    // Ignored unless a layout name.
    const std::string& layout() const { return _settings.text(Setting::Layout); }
    void setLayout(std::string_view layout) { setText(Setting::Layout, layout); }
    // 0…1000.
    int64_t gap() const { return _settings.integer(Setting::Gap); }
    void setGap(int64_t gap) { setNumber(Setting::Gap, double(gap)); }
    // "", "computer", or the title of a place; ignored unless it matches (see soundChoiceMatching).
    const std::string& sound() const { return _settings.text(Setting::Sound); }
    void setSound(std::string_view sound) { setText(Setting::Sound, sound); }
    bool performance() const { return _settings.flag(Setting::Performance); }
    void setPerformance(bool performance) { setNumber(Setting::Performance, performance ? 1 : 0); }
    // Whether the NDI runtime could be loaded and, when it could not, why, in one line; not persisted.
    bool ndiAvailable() const { return _ndiAvailable; }
    const std::string& ndiReason() const { return _ndiReason; }
    void setNdiAvailable(bool available, std::string reason);

    // State and errors.
    RecorderState state() const { return _state; }
    const std::string& stateName() const { return RecorderStateName(_state); }
    bool isRecording() const { return _state != RecorderState::Idle; }
    const std::string& error() const { return _error; }
    // Counts every message that is not empty; "" clears the error without counting.
    void setError(std::string error);
    uint64_t errorCount() const { return _errorCount; }
    // The error that ended or spoiled the last recording; kept until the next start.
    const std::string& recordingError() const { return _recordingError; }
    // Sets the error and answers false: every refusal goes through here.
    bool failWithError(std::string message);

    // Observers are called on the calling thread (the main thread) after every change. An observer may
    // add or remove observers, itself included.
    ObserverId addObserver(std::function<void()> observer);
    void removeObserver(ObserverId observer);
    void changed();

    // Places, in order; numbered from 1 for the user. The list is only ever replaced as a whole.
    const Places& places() const { return _places; }
    // What the directory offers, each title once.
    const std::vector<SourceDescription>& availableSources() const { return _availableSources; }

    // Matching what a user typed. A title equal to the text wins, else the first that contains it
    // ignoring case; offered sources come before places whose source is offline.
    std::optional<std::string> titleMatching(std::string_view text);
    // The same over the places only, silently.
    std::optional<std::string> placeTitleMatching(std::string_view text) const;
    // "" stays "", "computer" in any case is "computer", anything else a place's title.
    std::optional<std::string> soundChoiceMatching(std::string_view text) const;
    size_t indexOfPlaceWithTitle(std::string_view title) const; // NoIndex when none

    // Changing the places: only while idle. Each answers true on success.
    bool placesCanChange();
    bool addSourceMatching(std::string_view text);
    // An empty text removes the place; a title that a place has already moves that place here.
    bool setSourceMatching(std::string_view text, int64_t place);
    void removeSourceAtPlace(int64_t place);
    bool moveSourceFromPlace(int64_t from, int64_t to);

    // The directory's list, each title once (the first description wins), in its order.
    static std::vector<SourceDescription> sourcesOf(SourceDirectory& directory) {
        return PlaceConnections::sourcesOf(directory);
    }
    // Follows the directory's list: forgets sources that left it, connects places whose source is back.
    void sourcesDidChange();

    // Recording. The one take is reused for every recording.
    const std::shared_ptr<Take>& take() const { return _take; }
    // Starts a take of every place with the current settings. True when recording (also when it already
    // was); false, with the error set, when it cannot start.
    bool start();
    // Stops the recording; `completionHandler` (may be empty) runs on the main thread once the movies
    // are finished, at once when nothing records. Handlers of several calls run in the order given.
    void stopWithCompletionHandler(std::function<void()> completionHandler);
    // Starts when idle, stops otherwise.
    void toggle();
    // The take's movies, one per place, then its assembled movie when it has one.
    std::vector<std::shared_ptr<TakeMovie>> moviesOfTheTake() const;
    // One movie of the take failed (`index` NoIndex or past the places: the assembled movie). The
    // others go on; when none is left the recording stops.
    void movieAtIndexFailedWithError(size_t index, const Error& error);
    // The take's movies are finished: back to idle, and the stop handlers run.
    void recordingEndedWithError(const std::optional<Error>& error);
    // Measures the places, reconnects sources that went quiet or died, keeps the monitor moving and
    // tells the observers. Runs every 0.25 s on the main loop.
    void refresh();

    // Status. These read the take's movies, so while idle they describe the last recording.
    double startTime() const { return _startTime; }
    // Seconds of the current recording; when idle, the duration of the last one.
    double elapsed() const;
    uint64_t frames() const;  // of the assembled movie, else of the first place's movie
    uint64_t dropped() const; // by every movie of the take
    // Pictures that `movie` should hold by now, or by the end of the last take: its source's announced
    // rate, capped by the frame rate setting, over the take's time so far; the assembled movie at its
    // clock source's rate, or the lower rate chosen for it. A source that fell behind shows here, not
    // as dropped. 0 when the rate is not known.
    uint64_t framesDue(const TakeMovie& movie) const;
    // The pictures a second behind framesDue(), fixed when the take started; 0 for a movie not of it.
    double dueRate(const TakeMovie& movie) const;
    // The speed preset that the take's H.264 or HEVC encoders use on the processor; empty for ProRes.
    const std::string& encoderPreset() const { return _encoderPreset; }
    // The assembled movie's frame rate where the machine could not encode every picture of the take
    // and it was lowered (a whole divisor of its clock source's); 0 where it was not.
    double loweredAssembledRate() const { return _loweredAssembledRate; }
    std::string file() const; // the assembled movie's, else the first place's
    std::string assembledFile() const;
    uint64_t assembledFrames() const;
    uint64_t assembledDropped() const;
    double assembledSoundWritten() const;
    double soundLeftOut() const; // seconds, over every movie of the take
    // The local time of day at the last take's time 0, in seconds since midnight, where its timecode
    // begins; negative before any take.
    double timeOfDay() const { return _timeOfDay; }
    // How loud the computer's sound is, measured as its blocks go to the take; read by one reader.
    SoundLevels& computerSoundLevels() const { return *_computerSoundLevels; }
    // The page that reports on the last take, beside its movies ("<stem>.html", with "<stem>.json"
    // beside it); empty until a take has one.
    const std::string& lastReport() const { return _lastReport; }

    // The disk. Minutes of recording that the folder's disk still holds, its movies' finish kept aside:
    // at the rate the take writes at, while idle at the last take's rate, or before any take at what
    // the settings are expected to write. Brought up to date at every refresh.
    double diskMinutes() const { return _diskMinutes; }
    // Below this the recorder warns, at the start of a take or when a take gets there.
    static constexpr double DiskWarningMinutes = 10;
    // A take that the disk holds for less than this is not started.
    static constexpr double DiskRefusalSeconds = 10;

    // Composition: the assembled picture of all places, for the take's assembled movie and the monitor.
    // While recording in performance mode the monitor is held to RecorderLimitedDisplayRate.
    bool displayIsLimited() const;
    // Whether someone watches the monitor (the window's preview, while it shows): the monitor is
    // composed only then.
    void setMonitorWatched(bool watched) { _composition->monitorWatched(watched); }
    // The arrangement of the assembled picture: the running take's, else what a take would use now.
    Layout assembledLayout() const;
    // The last monitor picture composed, for the preview to draw; nothing when nobody watched yet, there
    // is no place or the GPU refused. Any thread.
    std::shared_ptr<Picture> assembledFrame() const { return _composition->assembledFrame(); }
    void showPicture(std::shared_ptr<Picture> picture) { _composition->showPicture(std::move(picture)); }
    // The place whose pictures set the pace of composition, if any.
    std::shared_ptr<RecorderPlace> clockPlace() const { return _composition->clockPlace(); }

private:
    friend struct RecorderControllerProbe; // lets tests drive the state and the clock

    // The one way the list of places changes after construction.
    void usePlaces(Places places);
    void setState(RecorderState state) { _state = state; }
    void refreshAtTime(double now);
    // The places, layout, gap, size or codec changed: the monitor follows.
    void compositionChanged();
    // The performance setting or the state changed: so may the monitor's rate.
    void displayLimitChanged();
    // Measures what the disk still holds and, while recording, finishes the take before the disk would
    // no longer hold its finish.
    void watchDiskAtTime(double now);
    // Bytes the take's movie files hold now.
    uint64_t bytesOfTheTake() const;
    // Writes the report of the take that just ended, beside its movies.
    void writeReport();

    const std::shared_ptr<PictureEngine> _engine;
    const std::shared_ptr<SourceDirectory> _directory;
    const std::shared_ptr<SoundSource> _computerSound;
    const std::shared_ptr<SoundLevels> _computerSoundLevels = std::make_shared<SoundLevels>();
    const std::shared_ptr<SettingsStore> _defaults;
    const std::shared_ptr<Take> _take;
    const std::shared_ptr<CompositionScheduler> _composition;
    const PlaceConnections _connections;
    std::shared_ptr<EncoderSpeed> _encoderSpeed;

    RecorderSettings _settings;
    bool _ndiAvailable = false;
    std::string _ndiReason;
    Places _places;
    std::vector<SourceDescription> _availableSources;
    RecorderState _state = RecorderState::Idle;
    std::string _error;
    uint64_t _errorCount = 0;
    std::string _recordingError;

    std::map<ObserverId, std::shared_ptr<std::function<void()>>> _observers;
    ObserverId _nextObserver = 1;

    std::weak_ptr<EventLoop> _refreshLoop;
    TimerId _refreshTimer = 0;
    std::unique_ptr<SystemActivity> _activity;
    double _startTime = 0;
    // The rate at which each movie of the take is due pictures, fixed at its start.
    std::vector<std::pair<std::shared_ptr<const TakeMovie>, double>> _dueRates;
    std::string _encoderPreset;
    double _loweredAssembledRate = 0;
    double _lastElapsed = 0;
    // Why the take ended by itself (a full disk, every movie failed); nothing when it was stopped.
    std::optional<std::string> _stopReason;
    std::chrono::system_clock::time_point _startedAt;
    double _timeOfDay = -1;
    std::string _takeFolder;
    uint64_t _freeAtStart = 0;
    double _estimatedBytesPerSecond = 0; // of the take, before anything is measured
    double _lastBytesPerSecond = 0;      // of the last take, measured
    double _diskMinutes = 0;
    bool _diskWarned = false;
    std::string _lastReport;
    std::vector<std::function<void()>> _stopHandlers;
};

} // namespace quorva
