#pragma once

#include "core/movie/FramePacer.h"
#include "core/movie/MovieRecorderSettings.h"
#include "core/movie/MovieSoundTrack.h"
#include "core/movie/MovieWriter.h"
#include "core/source/Geometry.h"
#include "core/source/SourceSound.h"
#include "platform/Error.h"
#include "platform/PictureEngine.h"
#include "platform/SerialQueue.h"
#include "platform/TaskGroup.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace quorva {

// Writes one QuickTime movie from pictures that arrive in real time, and its sound track from sound
// blocks. Each frame is paced onto the movie's frame-rate grid (a slot that no picture reaches in time
// shows the last one, or black before the first), then drawn by the picture engine
// straight into memory that the encoder reads, in the encoder's pixel format: one picture fitted
// (letterboxed, flipped if need be), or the placements of an assembled picture. It is encoded on the
// recorder's own serial queue with a time stamp in 1/60000 s. At most three frames are in
// flight: a fourth is dropped at once and counted, so a slow encoder costs frames, never memory or
// latency. A take owns one recorder per movie and reuses it from take to take.
//
// Frames and sound may arrive on any thread. Completion and failure handlers run on the main queue.
class MovieRecorder : public std::enable_shared_from_this<MovieRecorder> {
public:
    // Called with nothing when the movie was written, else with why not.
    using CompletionHandler = std::function<void(std::optional<Error> error)>;
    using FailureHandler = std::function<void(const Error& error)>;

    static constexpr uint64_t MaximumFramesInFlight = 3;
    // How much lower than the rest of the program a recorder's queue and its encoder threads run (nice
    // values, which anyone may raise for their own threads): a late encoder has three pictures of
    // slack, a late source has none. A movie that may lose pictures first runs lower still.
    static constexpr int SourceNiceness = 5;
    static constexpr int AssembledNiceness = 10;

    // Fails, with the engine's reason (also logged), when the engine cannot convert pictures.
    static Result<std::shared_ptr<MovieRecorder>> make(const std::shared_ptr<PictureEngine>& engine,
                                                       int niceness = SourceNiceness);

    ~MovieRecorder();
    MovieRecorder(const MovieRecorder&) = delete;
    MovieRecorder& operator=(const MovieRecorder&) = delete;

    // Starts a movie at `url`, which must not exist yet, in an existing folder that can be written to.
    // `startTime` (host seconds) is the movie's time 0 and the origin of its frame-rate grid; NaN makes it
    // the first kept frame's time. Answers at once: with a size in the settings the movie file is created
    // on the recorder's queue right away (a codec's refusal of that size reaches the failure handler, and
    // outputSize() stays 0 × 0); without one, at the first frame, at that frame's size. Frames are
    // accepted from now on.
    Result<> startWritingToURL(const std::filesystem::path& url, const MovieRecorderSettings& settings,
                               double startTime = std::numeric_limits<double>::quiet_NaN());

    // Whether a frame at host time `time` would be kept: ask before spending work on one. A frame that
    // would be a fourth in flight answers false and is counted as dropped here.
    bool wantsFrameAtTime(double time);
    // A frame at `time` that will not come after all: counted as dropped where the movie would keep it.
    void dropFrameAtTime(double time);
    // Hands a frame in and returns at once; the picture is held until it is converted. `flipped`: the
    // picture is stored bottom-up.
    void appendPicture(const std::shared_ptr<Picture>& picture, bool flipped, double time);
    // Hands in an assembled frame, for a movie whose settings give its size: the placements drawn into
    // it over black (clear for ProRes 4444). Paced, held and counted as a picture is.
    void appendPlacements(std::vector<PicturePlacement> placements, double time);
    // Hands a sound block in, stamped with the host time it arrived at (a block ends at its arrival), and
    // returns at once. Ignored unless the movie records sound.
    void appendSound(const std::shared_ptr<SourceSound>& sound, double time);

    // Ends the movie at host time `time` once the frames in flight are written: the last picture is held
    // until then, or, in a movie with a frame rate, for one frame. The handler runs on the main queue.
    void finishAtTime(double time, CompletionHandler completionHandler);
    // Ends the recording as failed: the file keeps what its complete fragments hold (and goes if they
    // hold nothing), and the failure handler gets `error` on the main queue. Does nothing when not
    // recording.
    void failWithError(const Error& error);

    // Called on the main queue when the recording fails on its own (the encoder or the disk gave up).
    FailureHandler failureHandler() const;
    void setFailureHandler(FailureHandler handler);

    bool isRecording() const;
    // Frames handed to the encoder; once the movie has ended, finished or failed, the frames its file
    // holds.
    uint64_t framesWritten() const;
    // Slots of the grid that show the picture before them (black before the first), as no picture came
    // in time; once the movie has ended, those its file holds.
    uint64_t framesHeld() const;
    // Frames that were not written: a second one for a slot, a fourth in flight, a failed conversion, a
    // slot already filled, and those that a failure kept from reaching the file.
    uint64_t framesDropped() const;
    uint64_t framesPending() const;
    // The pictures held and dropped in each second of the movie, from its time 0: where the movie
    // stalled or lost pictures, for the take's report. They add up to framesHeld() and framesDropped().
    std::vector<uint32_t> framesHeldEachSecond() const;
    std::vector<uint32_t> framesDroppedEachSecond() const;
    // The rate of the movie's grid.
    double framesPerSecond() const;
    // The encoder that writes the movie, with its speed preset where it has one ("libx264 ultrafast",
    // "prores_ks"); empty until the movie file exists.
    std::string encoderName() const;
    // Seconds of sound track written, silence included; once the movie has ended, what its file holds.
    double soundWritten() const;
    // Seconds of received sound that will never be written (queue overflow, trimmed blocks, what was
    // left at the finish).
    double soundLeftOut() const;
    // The size of the movie's pictures; 0 × 0 until the movie file exists.
    Size outputSize() const;

private:
    // What one frame is drawn from: a picture to fit, or an assembled picture's placements.
    struct FittedPicture {
        std::shared_ptr<Picture> picture;
        bool flipped;
    };
    using FrameContent = std::variant<FittedPicture, std::vector<PicturePlacement>>;

    MovieRecorder(std::unique_ptr<FrameConverter> converter, int niceness);

    // The one way in for frames: paced, counted and queued for convertFrame().
    void append(FrameContent content, double time);

    // On _queue.
    // Fills, every so often, the slots that no picture can reach any more: a source that stalls still has
    // its movie go on, and cut into fragments, in step with the others.
    void scheduleHold(uint64_t recording);
    void countHeld();
    // With _lock held: counts drops, and held or dropped pictures (fewer, when `count` is negative) in
    // the second of the movie at `at` seconds from its time 0.
    void countDropped(uint64_t count, double at);
    // With _lock held: `count` more held slots, the first ones after those already counted.
    void countHeldSlots(uint64_t count);
    // With _lock held: where a picture at host time `time` lies in the movie.
    double secondsInto(double time) const;
    static void countInSecond(std::vector<uint32_t>& seconds, double at, int64_t count);
    Result<> createWriterForFrameOfWidth(uint64_t width, uint64_t height);
    void convertFrame(const FrameContent& content, int64_t slot);
    void appendPixelBuffer(std::shared_ptr<FrameMemory> memory, int64_t slot);
    void frameDoneWritten(bool written, int64_t slot);
    // Brings the counts down to what the file of `writer`, now ended, holds.
    void countWhatTheFileHolds(const MovieWriter& writer);
    void forgetPool();
    Error writerError(const char* otherwise) const;

    // A pass of the sound track on _queue, `seconds` from now.
    void scheduleSoundWrite(double seconds);
    // On _queue: a pass of the sound track into the writer, if there is one; `scheduled`: the pass
    // that the track asked for.
    void writeSound(bool scheduled);
    // The host time of the movie's time 0, once known.
    std::optional<double> firstFrameTime() const;

    std::unique_ptr<FrameConverter> _converter;
    std::shared_ptr<SerialQueue> _queue;
    TaskGroup _framesInFlight;

    // Belong to _queue.
    std::filesystem::path _url;
    MovieRecorderSettings _settings;
    std::unique_ptr<MovieWriter> _writer;
    FrameFormat _frameFormat;

    // Its waiting side is used from any thread under its own lock, which may be taken while _lock is
    // held but never the other way round; its writing side belongs to _queue.
    MovieSoundTrack _sound;

    mutable std::mutex _lock; // guards everything below
    bool _recording = false;
    uint64_t _recordingNumber = 0; // which recording a scheduled hold belongs to
    bool _finishing = false;
    FramePacer _pacer;
    double _rate = 60;
    // Where the grid stood (a slot, or a little before it) at a moment of the media clock, which the
    // filling of slots that get no picture counts on from: the start, then each kept picture's arrival.
    // Counting from arrivals rather than from time stamps keeps it right whatever clock those are on.
    double _gridPosition = 0;
    double _gridClock = 0; // 0 until known
    bool _hasFirstFrame = false;
    double _firstFrameTime = 0;
    uint64_t _framesWritten = 0;
    uint64_t _framesHeld = 0;
    uint64_t _framesDropped = 0;
    uint64_t _framesPending = 0;
    std::vector<uint32_t> _heldEachSecond;
    int64_t _heldCountedUpTo = 0; // the writer's next slot when held slots were last counted
    std::vector<uint32_t> _droppedEachSecond;
    std::string _encoderName;
    Size _outputSize;
    FailureHandler _failureHandler;
};

} // namespace quorva
