#pragma once

#include "core/movie/MovieStatus.h"
#include "core/source/FrameSource.h"
#include "core/source/Geometry.h"
#include "core/source/NoIndex.h"
#include "core/source/SoundLevels.h"
#include "platform/Picture.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quorva {

// One numbered place of the recorder: the title of the chosen source (which need not be online), the
// connected source if any, the latest picture it delivered, its measured frame rate and whether it
// counts as online, and, during a take, which of the take's sources it is (the take's routes say where
// that source's pictures and sound go).
//
// Pictures and sound arrive on the source's thread; everything else happens on the main thread. The
// lock guards what the callbacks write and the take index, so that a callback reads a take index that
// belongs with the picture it stores. It is held for a few loads and stores only.
class RecorderPlace {
public:
    // A source counts as online while its last picture is younger than this.
    static constexpr double OnlineInterval = 1.0;
    // A source has sound while its last block is younger than this.
    static constexpr double SoundInterval = 3.0;

    explicit RecorderPlace(std::string title);
    RecorderPlace(const RecorderPlace&) = delete;
    RecorderPlace& operator=(const RecorderPlace&) = delete;

    std::string title() const;
    void setTitle(std::string title);
    std::shared_ptr<FrameSource> source() const;
    void setSource(std::shared_ptr<FrameSource> source);
    std::shared_ptr<MovieStatus> movie() const;
    void setMovie(std::shared_ptr<MovieStatus> movie);

    // On the source's thread, for every picture: keeps it as the latest frame and answers the place's
    // take index.
    size_t receivedFrame(std::shared_ptr<Picture> picture, bool flipped, double time);
    // On the source's thread, for every block of sound: answers the place's take index.
    size_t receivedSoundAtTime(double time);

    // Stops the source and forgets it with its latest picture and its sound; the counts, the size and
    // the kind stay.
    void letGoOfSource();
    // The place's index among the take's sources while a take records, NoIndex between takes.
    void setTakeIndex(size_t index);
    // Decides whether the source is online and blends the frame rate since the last measurement.
    void measureAtTime(double now);

    bool isOnline() const { return _online; }
    double fps() const { return _fps; }
    double lastFrameTime() const;
    bool hasSound() const;
    bool hasSoundAtTime(double now) const;
    int64_t width() const;
    int64_t height() const;
    std::shared_ptr<Picture> latestFrame() const;
    bool flipped() const;

    // The movie's path while in a take; after it, only if the movie got a picture; else "".
    std::string file() const;
    uint64_t frames() const;
    uint64_t dropped() const;
    double soundWritten() const;

    // "" until a source of this title has been connected.
    std::string kindName() const;

    // How loud the place's sound is: every block measured on the source's thread as it passes to the take.
    SoundLevels& soundLevels() const { return _soundLevels; }

    // Main thread only.
    bool inTake() const { return _inTake; }
    void setInTake(bool inTake) { _inTake = inTake; }
    int64_t kind() const { return _kind; }
    void setKind(int64_t kind) { _kind = kind; }
    bool kindKnown() const { return _kindKnown; }
    void setKindKnown(bool kindKnown) { _kindKnown = kindKnown; }
    double checkTime() const { return _checkTime; }
    void setCheckTime(double checkTime) { _checkTime = checkTime; }
    uint64_t silentChecks() const { return _silentChecks; }
    void setSilentChecks(uint64_t silentChecks) { _silentChecks = silentChecks; }

private:
    mutable std::mutex _lock; // guards the fields up to _movie
    std::shared_ptr<Picture> _latestFrame;
    bool _flipped = false;
    int64_t _width = 0;
    int64_t _height = 0;
    uint64_t _frameCount = 0; // never reset
    double _lastFrameTime = 0;
    double _lastSoundTime = 0;
    size_t _takeIndex = NoIndex;
    std::string _title;
    std::shared_ptr<FrameSource> _source;
    std::shared_ptr<MovieStatus> _movie;

    uint64_t _measuredFrameCount = 0;
    double _measuredTime = 0;
    double _fps = 0;
    bool _online = false;
    bool _inTake = false;
    bool _kindKnown = false;
    int64_t _kind = 0;
    double _checkTime = 0;
    uint64_t _silentChecks = 0;
    mutable SoundLevels _soundLevels;
};

// The places of the recorder, in order. A list is only ever replaced as a whole, never changed in place,
// so that whoever took one (a composition on a source's thread) keeps a consistent list.
using Places = std::vector<std::shared_ptr<RecorderPlace>>;

// The size of each place's latest picture, in order, or nothing for a place that has none yet.
SourceSizes SizesOfPlaces(const Places& places);

} // namespace quorva
