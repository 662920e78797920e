#include "core/movie/MovieRecorder.h"

#include "platform/EventLoop.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace quorva {

namespace {

// How often a recording looks for slots that no picture came to in time, and fills them with the last
// picture, and how long after its time a slot waits for one: a source that stalls still has its movie
// go on, and cut into fragments, at most this late, while a source that only hiccups fills its gap
// itself with its next picture.
constexpr double HoldInterval = 0.25;
constexpr double HoldLag = 0.5;

std::string Quoted(const std::string& text) {
    return "“" + text + "”";
}

} // namespace

Result<std::shared_ptr<MovieRecorder>> MovieRecorder::make(const std::shared_ptr<PictureEngine>& engine,
                                                           int niceness) {
    Result<std::unique_ptr<FrameConverter>> converter = engine->makeFrameConverter();
    if (!converter) {
        Log("MovieRecorder: ", "could not be created: " + converter.error().message());
        return converter.error();
    }
    return std::shared_ptr<MovieRecorder>(new MovieRecorder(std::move(converter.value()), niceness));
}

MovieRecorder::MovieRecorder(std::unique_ptr<FrameConverter> converter, int niceness)
    : _converter(std::move(converter)), _queue(std::make_shared<SerialQueue>("movie-recorder")) {
    // The encoder threads that the queue starts take its priority.
    _queue->post([niceness] { setpriority(PRIO_PROCESS, pid_t(syscall(SYS_gettid)), niceness); });
}

// Every task holds the recorder, so none is left but delayed ones that were dropped; the writer of a
// recording never finished closes its file as it stands.
MovieRecorder::~MovieRecorder() = default;

// --- Start -------------------------------------------------------------------------------------------

Result<> MovieRecorder::startWritingToURL(const std::filesystem::path& url,
                                          const MovieRecorderSettings& settings, double startTime) {
    {
        std::lock_guard guard(_lock);
        if (_recording)
            return RecorderError("A recording is already in progress");
        if (_finishing)
            return RecorderError("The previous movie is still being finished");
    }
    const std::filesystem::path folder = url.parent_path();
    std::error_code error;
    if (!std::filesystem::is_directory(folder, error))
        return RecorderError("The folder " + Quoted(folder.string()) + " does not exist");
    if (::access(folder.c_str(), W_OK) != 0)
        return RecorderError("The folder " + Quoted(folder.string()) + " cannot be written to");
    if (std::filesystem::exists(std::filesystem::symlink_status(url, error)))
        return RecorderError(Quoted(url.filename().string()) + " already exists");
    // Opening an encoder takes a good part of a second: the recorder's queue does it, beside the other
    // recorders of the take, while pictures are already accepted and wait behind it. A refusal reaches
    // the failure handler. Posted under the lock, so that the recording has begun before the queue can
    // fail it and no picture can be queued before its movie is set up.
    std::lock_guard guard(_lock);
    _queue->post([self = shared_from_this(), url, settings] {
        self->_url = url;
        self->_settings = settings;
        self->_writer.reset();
        self->forgetPool();
        // The last movie's sound was forgotten as it ended. Sound of this one may already be waiting,
        // accepted since the lock was let go: forgetting it here would lose it uncounted.
        if (settings.width() < 1 || settings.height() < 1)
            return;
        if (Result<> created =
                self->createWriterForFrameOfWidth(uint64_t(settings.width()), uint64_t(settings.height()));
            !created)
            self->failWithError(created.error());
    });
    _outputSize = {};
    _rate = av_q2d(GridRate(settings.framesPerSecond()));
    _pacer = FramePacer(_rate, startTime);
    // Time 0 is now, or (in a movie without a start time) the first picture's arrival.
    _gridPosition = 0;
    _gridClock = std::isnan(startTime) ? 0 : MediaClock::now();
    _hasFirstFrame = !std::isnan(startTime);
    _firstFrameTime = startTime;
    _framesWritten = _framesHeld = _framesDropped = _framesPending = 0;
    _heldEachSecond.clear();
    _droppedEachSecond.clear();
    _heldCountedUpTo = 0;
    _encoderName.clear();
    _sound.start(settings.recordsSound());
    _recording = true;
    scheduleHold(++_recordingNumber);
    return {};
}

void MovieRecorder::scheduleHold(uint64_t recording) {
    // Weak: a recorder let go of must not be kept, and then destroyed on its own queue, by its next look.
    _queue->postAfter(HoldInterval, [weak = weak_from_this(), recording] {
        const std::shared_ptr<MovieRecorder> self = weak.lock();
        if (!self)
            return;
        int64_t settled = 0;
        {
            std::lock_guard guard(self->_lock);
            if (!self->_recording || self->_recordingNumber != recording)
                return;
            // Pictures on their way fill the slots before them when they arrive. A picture arriving now
            // lies nearest a slot at least half a slot before where the grid stands now, less a quarter
            // of a slot for one that is still on its way here.
            if (self->_framesPending == 0 && self->_gridClock > 0)
                settled =
                    int64_t(std::ceil(self->_gridPosition +
                                      (MediaClock::now() - self->_gridClock - HoldLag) * self->_rate - 0.75));
        }
        if (self->_writer && settled > self->_writer->nextSlot()) {
            Result<> held = self->_writer->holdUntil(settled);
            self->countHeld();
            if (!held) {
                self->failWithError(held.error());
                return;
            }
        }
        self->scheduleHold(recording);
    });
}

void MovieRecorder::countHeld() {
    std::lock_guard guard(_lock);
    const uint64_t held = _writer->framesHeld();
    if (held > _framesHeld)
        countHeldSlots(held - _framesHeld);
    _heldCountedUpTo = _writer->nextSlot();
    _framesHeld = held;
}

void MovieRecorder::countHeldSlots(uint64_t count) {
    // The slots held since the last count are the first ones after it: a picture comes after the slots
    // that waited for it.
    int64_t slot = _heldCountedUpTo;
    for (uint64_t left = count; left > 0;) {
        const double second = std::floor(double(slot) / _rate);
        const int64_t next = std::max(slot + 1, int64_t(std::ceil((second + 1) * _rate)));
        const uint64_t inSecond = std::min<uint64_t>(left, uint64_t(next - slot));
        countInSecond(_heldEachSecond, second, int64_t(inSecond));
        left -= inSecond;
        slot += int64_t(inSecond);
    }
    _heldCountedUpTo = slot;
}

void MovieRecorder::countDropped(uint64_t count, double at) {
    _framesDropped += count;
    countInSecond(_droppedEachSecond, at, int64_t(count));
}

double MovieRecorder::secondsInto(double time) const {
    return _hasFirstFrame ? time - _firstFrameTime : 0;
}

void MovieRecorder::countInSecond(std::vector<uint32_t>& seconds, double at, int64_t count) {
    if (count == 0 || !std::isfinite(at))
        return;
    // A second past a day is no take; the last one takes whatever lies beyond.
    const size_t second = size_t(std::clamp(at, 0.0, 86400.0));
    if (seconds.size() <= second)
        seconds.resize(second + 1, 0);
    if (count > 0) {
        seconds[second] += uint32_t(std::min<int64_t>(count, UINT32_MAX - seconds[second]));
        return;
    }
    // Fewer than counted: taken back from the latest seconds, which the file lost first.
    for (size_t i = seconds.size(); i-- > 0 && count < 0;) {
        const uint32_t taken = uint32_t(std::min<int64_t>(seconds[i], -count));
        seconds[i] -= taken;
        count += taken;
    }
}

Result<> MovieRecorder::createWriterForFrameOfWidth(uint64_t width, uint64_t height) {
    int64_t w = int64_t(std::min<uint64_t>(width, INT64_MAX)),
            h = int64_t(std::min<uint64_t>(height, INT64_MAX));
    if (_settings.width() >= 1 && _settings.height() >= 1) {
        w = _settings.width();
        h = _settings.height();
    }
    // Encoders want whole 2 × 2 blocks: the odd pixel goes.
    w = std::max<int64_t>(w - w % 2, 2);
    h = std::max<int64_t>(h - h % 2, 2);

    MovieWriter::Format format;
    format.codec = _settings.codec();
    format.width = w;
    format.height = h;
    format.framesPerSecond = _settings.framesPerSecond();
    format.timeOfDay = _settings.timeOfDay();
    format.megabitsPerSecond = _settings.megabitsPerSecond();
    format.recordsSound = _settings.recordsSound();
    format.preset = _settings.encoderPreset();
    format.threads = _settings.encoderThreads();
    Result<std::unique_ptr<MovieWriter>> made = MovieWriter::make(_url, format);
    if (!made)
        return made.error();
    std::unique_ptr<MovieWriter> writer = std::move(made.value());
    FrameFormat frameFormat = writer->frameFormat();
    Result<> prepared = _converter->prepare(frameFormat);
    if (!prepared) {
        Log("MovieRecorder: ", prepared.error().message());
        writer->cancel();
        return RecorderError("A movie of " + std::to_string(w) + " × " + std::to_string(h) +
                             " cannot be written");
    }
    // The processor's encoders run at a speed preset, which says as much about the movie as their name.
    std::string encoder = writer->encoderName();
    if (!writer->encoderPreset().empty())
        encoder += " " + writer->encoderPreset();
    _writer = std::move(writer);
    _frameFormat = std::move(frameFormat);
    std::lock_guard guard(_lock);
    _outputSize = {double(w), double(h)};
    _encoderName = std::move(encoder);
    return {};
}

// --- Pictures ----------------------------------------------------------------------------------------

bool MovieRecorder::wantsFrameAtTime(double time) {
    std::lock_guard guard(_lock);
    if (!_recording || !_pacer.wouldKeepFrameAtTime(time))
        return false;
    if (_framesPending >= MaximumFramesInFlight) {
        // The slot is spent on this drop, so that a later picture for the same slot is not counted again.
        (void)_pacer.decisionForFrameAtTime(time);
        countDropped(1, secondsInto(time));
        return false;
    }
    return true;
}

void MovieRecorder::dropFrameAtTime(double time) {
    std::lock_guard guard(_lock);
    if (_recording && _pacer.decisionForFrameAtTime(time).keep)
        countDropped(1, secondsInto(time));
}

void MovieRecorder::appendPicture(const std::shared_ptr<Picture>& picture, bool flipped, double time) {
    append(FittedPicture{picture, flipped}, time);
}

void MovieRecorder::appendPlacements(std::vector<PicturePlacement> placements, double time) {
    append(std::move(placements), time);
}

void MovieRecorder::append(FrameContent content, double time) {
    int64_t slot = 0;
    {
        std::lock_guard guard(_lock);
        if (!_recording)
            return;
        FramePacerDecision decision = _pacer.decisionForFrameAtTime(time);
        if (decision.refused)
            countDropped(1, secondsInto(time));
        if (!decision.keep)
            return;
        // The picture arrived between half a slot before its slot and half a slot after: where the grid
        // stands now, on the safe side.
        _gridPosition = double(decision.slot) - 0.5;
        _gridClock = MediaClock::now();
        if (!_hasFirstFrame) {
            _hasFirstFrame = true;
            _firstFrameTime = time;
        }
        if (_framesPending >= MaximumFramesInFlight) {
            countDropped(1, secondsInto(time));
            return;
        }
        ++_framesPending;
        // Entered before the lock goes, so that a finish cannot slip in between and miss this frame.
        _framesInFlight.enter();
        slot = decision.slot;
    }
    _queue->post([self = shared_from_this(), content = std::move(content), slot] {
        self->convertFrame(content, slot);
    });
}

void MovieRecorder::convertFrame(const FrameContent& content, int64_t slot) {
    const auto* fitted = std::get_if<FittedPicture>(&content);
    if (!_writer) {
        bool recording;
        {
            std::lock_guard guard(_lock);
            recording = _recording;
        }
        if (!recording) {
            frameDoneWritten(false, slot);
            return;
        }
        const std::shared_ptr<Picture> picture = fitted ? fitted->picture : nullptr;
        Result<> created =
            createWriterForFrameOfWidth(picture ? picture->width() : 0, picture ? picture->height() : 0);
        if (!created) {
            frameDoneWritten(false, slot);
            failWithError(created.error());
            return;
        }
    }
    if (_writer->hasFailed()) {
        frameDoneWritten(false, slot);
        failWithError(writerError("The movie could not be written"));
        return;
    }
    const bool transparent = _settings.codec() == Codec::ProRes4444;
    auto converted = [self = shared_from_this(), slot](std::shared_ptr<FrameMemory> memory) {
        self->_queue->post([self, memory = std::move(memory), slot]() mutable {
            self->appendPixelBuffer(std::move(memory), slot);
        });
    };
    Result<> converting =
        fitted ? _converter->convert(fitted->picture, fitted->flipped, transparent, _frameFormat, converted)
               : _converter->compose(std::get<std::vector<PicturePlacement>>(content), transparent,
                                     _frameFormat, converted);
    if (!converting) {
        Log("MovieRecorder: ", "a frame could not be converted: " + converting.error().message());
        frameDoneWritten(false, slot);
    }
}

void MovieRecorder::appendPixelBuffer(std::shared_ptr<FrameMemory> memory, int64_t slot) {
    bool written = false;
    // Slots strictly increase; a writer dropped by a failure meanwhile takes nothing more.
    if (memory && _writer && memory->size() == _frameFormat.bytes && slot >= _writer->nextSlot()) {
        writeSound(false);
        uint8_t* bytes = memory->data();
        MovieFrame frame =
            _writer->wrapFrame(bytes, [memory = std::move(memory)]() mutable { memory.reset(); });
        Result<> appended =
            frame ? _writer->appendFrame(std::move(frame), slot) : Result<>(RecorderError(""));
        countHeld();
        written = bool(appended);
    }
    frameDoneWritten(written, slot);
    writeSound(false);
    if (_writer && _writer->hasFailed() && isRecording())
        failWithError(writerError("The movie could not be written"));
}

void MovieRecorder::frameDoneWritten(bool written, int64_t slot) {
    {
        std::lock_guard guard(_lock);
        --_framesPending;
        if (written)
            ++_framesWritten;
        else
            countDropped(1, double(slot) / _rate);
    }
    _framesInFlight.leave();
}

void MovieRecorder::forgetPool() {
    _converter->forgetPool();
    _frameFormat = {};
}

void MovieRecorder::countWhatTheFileHolds(const MovieWriter& writer) {
    std::lock_guard guard(_lock);
    // The slots that the file holds are its pictures first, then the held ones.
    const uint64_t kept = std::min(_framesWritten, writer.framesInFile());
    countDropped(_framesWritten - kept, double(writer.framesInFile()) / _rate);
    _framesWritten = kept;
    const uint64_t held = writer.framesInFile() - kept;
    // The finish holds the last picture until the end, after the slots counted so far; a file that lost
    // its last fragments holds fewer, which the latest seconds give back.
    if (held > _framesHeld)
        countHeldSlots(held - _framesHeld);
    else
        countInSecond(_heldEachSecond, 0, int64_t(held) - int64_t(_framesHeld));
    _framesHeld = held;
    _sound.keepWhatTheFileHolds(writer);
}

Error MovieRecorder::writerError(const char* otherwise) const {
    return _writer && _writer->failure() ? *_writer->failure() : RecorderError(otherwise);
}

// --- Finish and failure ------------------------------------------------------------------------------

void MovieRecorder::finishAtTime(double time, CompletionHandler completionHandler) {
    bool wasRecording;
    int64_t endSlot = 0;
    {
        std::lock_guard guard(_lock);
        wasRecording = _recording;
        _recording = false;
        _sound.stop();
        if (wasRecording)
            _finishing = true;
        endSlot = _pacer.slotAtTime(time);
    }
    if (!wasRecording) {
        EventLoop::postToMain([completionHandler] {
            if (completionHandler)
                completionHandler(RecorderError("There is no recording in progress"));
        });
        return;
    }
    auto done = [self = shared_from_this(), completionHandler](std::optional<Error> error) {
        {
            std::lock_guard guard(self->_lock);
            self->_finishing = false;
        }
        EventLoop::postToMain([completionHandler, error] {
            if (completionHandler)
                completionHandler(error);
        });
    };
    _framesInFlight.notify(_queue, [self = shared_from_this(), endSlot, done] {
        const bool wroteFrame = self->_writer && self->_writer->framesWritten() > 0;
        // A frame written has set the movie's time 0.
        if (wroteFrame)
            self->_sound.finish(*self->_writer, *self->firstFrameTime());
        self->_sound.forget();
        std::unique_ptr<MovieWriter> writer = std::move(self->_writer);
        self->forgetPool();
        if (!wroteFrame) {
            if (writer)
                writer->cancel();
            done(RecorderError("No frame was received, so no movie was written"));
            return;
        }
        // Every movie of a take ends on the slot of the finish, holding its last picture until then.
        Result<> finished = writer->finish(endSlot);
        self->countWhatTheFileHolds(*writer);
        if (finished)
            done(std::nullopt);
        else
            done(finished.error().message().empty() ? RecorderError("The movie could not be finished")
                                                    : finished.error());
    });
}

void MovieRecorder::failWithError(const Error& error) {
    {
        std::lock_guard guard(_lock);
        if (!_recording)
            return;
        _recording = false;
        _sound.stop();
        _finishing = true;
    }
    auto fail = [self = shared_from_this(), error] {
        if (self->_writer) {
            // The file keeps what its complete fragments hold, and goes if they hold nothing.
            self->countWhatTheFileHolds(*self->_writer);
            self->_writer.reset();
        }
        self->forgetPool();
        self->_sound.forget();
        self->_framesInFlight.notify(self->_queue, [self] {
            std::lock_guard guard(self->_lock);
            self->_finishing = false;
        });
        FailureHandler handler = self->failureHandler();
        if (handler)
            EventLoop::postToMain([handler, error] { handler(error); });
    };
    if (_queue->isCurrent())
        fail();
    else
        _queue->post(fail);
}

// --- Properties --------------------------------------------------------------------------------------

MovieRecorder::FailureHandler MovieRecorder::failureHandler() const {
    std::lock_guard guard(_lock);
    return _failureHandler;
}

void MovieRecorder::setFailureHandler(FailureHandler handler) {
    std::lock_guard guard(_lock);
    _failureHandler = std::move(handler);
}

bool MovieRecorder::isRecording() const {
    std::lock_guard guard(_lock);
    return _recording;
}

uint64_t MovieRecorder::framesWritten() const {
    std::lock_guard guard(_lock);
    return _framesWritten;
}

uint64_t MovieRecorder::framesHeld() const {
    std::lock_guard guard(_lock);
    return _framesHeld;
}

uint64_t MovieRecorder::framesDropped() const {
    std::lock_guard guard(_lock);
    return _framesDropped;
}

std::vector<uint32_t> MovieRecorder::framesHeldEachSecond() const {
    std::lock_guard guard(_lock);
    return _heldEachSecond;
}

std::vector<uint32_t> MovieRecorder::framesDroppedEachSecond() const {
    std::lock_guard guard(_lock);
    return _droppedEachSecond;
}

double MovieRecorder::framesPerSecond() const {
    std::lock_guard guard(_lock);
    return _rate;
}

std::string MovieRecorder::encoderName() const {
    std::lock_guard guard(_lock);
    return _encoderName;
}

uint64_t MovieRecorder::framesPending() const {
    std::lock_guard guard(_lock);
    return _framesPending;
}

double MovieRecorder::soundWritten() const {
    return _sound.written();
}

double MovieRecorder::soundLeftOut() const {
    return _sound.leftOut();
}

Size MovieRecorder::outputSize() const {
    std::lock_guard guard(_lock);
    return _outputSize;
}

// --- Sound -------------------------------------------------------------------------------------------

void MovieRecorder::appendSound(const std::shared_ptr<SourceSound>& sound, double time) {
    if (_sound.append(sound, time))
        scheduleSoundWrite(0);
}

void MovieRecorder::scheduleSoundWrite(double seconds) {
    _queue->postAfter(seconds, [self = shared_from_this()] { self->writeSound(true); });
}

void MovieRecorder::writeSound(bool scheduled) {
    if (std::optional<double> next = _sound.write(_writer.get(), firstFrameTime(), scheduled))
        scheduleSoundWrite(*next);
}

std::optional<double> MovieRecorder::firstFrameTime() const {
    std::lock_guard guard(_lock);
    return _hasFirstFrame ? std::optional<double>(_firstFrameTime) : std::nullopt;
}

} // namespace quorva
