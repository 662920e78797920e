#pragma once

#include "core/NoIndex.h"
#include "core/RecorderPlace.h"
#include "core/SoundSource.h"
#include "core/SourceDescription.h"
#include "core/SourceDirectory.h"
#include "platform/SettingsStore.h"
#include "platform/gpu/GpuDevice.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorva {

// The most places, and so sources, that one recording holds.
inline constexpr size_t RecorderMaximumPlaces = 8;
// The sound choice that stands for the computer's own sound.
inline constexpr const char* RecorderComputerSound = "computer";

enum class RecorderState { Idle, Recording, Finishing };

// "idle", "recording" or "finishing".
const std::string& RecorderStateName(RecorderState state);

// The centre of the program: the recording settings and their persistence in the user's defaults, the
// numbered places that hold the chosen sources and their connections, the state, and the error shown
// to the user. One instance, made at start-up.
//
// Everything here is meant for the main thread (the main EventLoop's); only the sources' callbacks run
// elsewhere, and they touch nothing but their place. Settings never fail: numbers out of range are
// clamped, names that are not in their list are ignored. Operations that refuse set the error and
// answer false.
class RecorderController : public std::enable_shared_from_this<RecorderController> {
    struct Private {};

public:
    using Places = std::vector<std::shared_ptr<RecorderPlace>>;
    using ObserverId = uint64_t;

    // Registers the settings' defaults, loads the settings, makes the places from the saved titles and
    // connects those whose source is offered. `computerSound` may be empty where there is none.
    static std::shared_ptr<RecorderController> make(std::shared_ptr<GpuDevice> device,
                                                    std::shared_ptr<SourceDirectory> directory,
                                                    std::shared_ptr<SoundSource> computerSound,
                                                    std::shared_ptr<SettingsStore> defaults);
    RecorderController(Private, std::shared_ptr<GpuDevice> device, std::shared_ptr<SourceDirectory> directory,
                       std::shared_ptr<SoundSource> computerSound, std::shared_ptr<SettingsStore> defaults);
    // Stops the computer's sound and every place's source.
    ~RecorderController();
    RecorderController(const RecorderController&) = delete;
    RecorderController& operator=(const RecorderController&) = delete;

    const std::shared_ptr<GpuDevice>& device() const { return _device; }

    // Settings. Each setter stores, persists and tells the observers, except where it ignores a value.
    const std::string& codec() const { return _codec; }
    void setCodec(std::string codec);        // any text: the take reads an unknown name as "h264"
    int64_t width() const { return _width; } // 0: the sources' own size
    void setWidth(int64_t width);            // 0…16384
    int64_t height() const { return _height; }
    void setHeight(int64_t height);             // 0…16384
    double fps() const { return _fps; }         // 0: every frame
    void setFps(double fps);                    // 0…240, not a number: 0
    double bitrate() const { return _bitrate; } // megabits a second; 0: chosen from size and rate
    void setBitrate(double bitrate);            // 0…1000, not a number: 0
    const std::string& folder() const { return _folder; }
    void setFolder(std::string folder);               // a leading "~" is expanded
    const std::string& name() const { return _name; } // "": named after the date
    void setName(std::string name);
    const std::string& output() const { return _output; }
    void setOutput(std::string_view output); // ignored unless an output name
    const std::string& layout() const { return _layout; }
    void setLayout(std::string_view layout); // ignored unless a layout name
    int64_t gap() const { return _gap; }
    void setGap(int64_t gap); // 0…1000
    // "", "computer", or the title of a place.
    const std::string& sound() const { return _sound; }
    void setSound(std::string_view sound); // ignored unless it matches (see soundChoiceMatching)
    bool performance() const { return _performance; }
    void setPerformance(bool performance);
    bool ndiAvailable() const { return _ndiAvailable; } // not persisted
    void setNdiAvailable(bool available);

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
    static std::vector<SourceDescription> sourcesOf(SourceDirectory& directory);
    // Follows the directory's list: forgets sources that left it, connects places whose source is back.
    void sourcesDidChange();

private:
    friend struct RecorderControllerProbe; // lets tests put the controller in a recording state

    void loadSettings();
    // The one way the list of places changes after construction.
    void usePlaces(Places places);
    void connectPlaces();
    void connectPlace(const std::shared_ptr<RecorderPlace>& place);
    void setState(RecorderState state) { _state = state; }
    // Called for every picture of every place, on the source's thread.
    void placeReceivedFrame(const std::shared_ptr<RecorderPlace>& place, double time);
    // The places, layout, gap, size or codec changed: what is composed must follow.
    void compositionChanged();
    // The performance setting or the state changed: so may the monitor's rate.
    void displayLimitChanged();

    const std::shared_ptr<GpuDevice> _device;
    const std::shared_ptr<SourceDirectory> _directory;
    const std::shared_ptr<SoundSource> _computerSound;
    const std::shared_ptr<SettingsStore> _defaults;

    bool _performance = false;
    bool _ndiAvailable = false;
    std::string _codec;
    int64_t _width = 0;
    int64_t _height = 0;
    double _fps = 0;
    double _bitrate = 0;
    std::string _folder;
    std::string _name;
    std::string _output;
    std::string _layout;
    int64_t _gap = 0;
    std::string _sound;
    Places _places;
    std::vector<SourceDescription> _availableSources;
    RecorderState _state = RecorderState::Idle;
    std::string _error;
    uint64_t _errorCount = 0;
    std::string _recordingError;

    std::map<ObserverId, std::shared_ptr<std::function<void()>>> _observers;
    ObserverId _nextObserver = 1;
};

} // namespace quorva
