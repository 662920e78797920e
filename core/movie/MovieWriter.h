#pragma once

#include "core/movie/MovieRecorderSettings.h"
#include "platform/Error.h"
#include "platform/FrameFormat.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct AVCodecContext;
struct AVStream;

namespace quorva {

// The error domain of movie writing: the application identifier followed by ".MovieRecorder".
inline const std::string MovieRecorderErrorDomain = std::string(ApplicationIdentifier) + ".MovieRecorder";

// An error of movie writing: code -1 and the sentence the user reads.
Error RecorderError(std::string message);

// The average bit rate, in bits a second, of an H.264 or HEVC movie: the megabits asked for when above 0,
// otherwise 0.1 (H.264) or 0.06 (HEVC) bits per pixel of every frame at the expected frame rate (60 when
// unset), never below 1,000,000.
int64_t MovieBitRate(Codec codec, int64_t width, int64_t height, double framesPerSecond,
                     double megabitsPerSecond);

struct AVFrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
// A picture or sound frame that the writer hands out or takes in.
using MovieFrame = std::unique_ptr<AVFrame, AVFrameFree>;

// The exact rate of a movie's frame-rate grid: whole rates as they are, the NTSC rates (29.97, 59.94,
// 23.976…) as their thousand-and-first fractions, anything else to within a millionth; 0 or less (or not
// a number) counts as 60.
AVRational GridRate(double framesPerSecond);

// One QuickTime movie written with FFmpeg: a picture track at a constant frame rate, a timecode track
// and, if asked for, a 48 kHz stereo sound track. It is what the movie recorder drives from its serial
// queue; it is not safe to call from two threads at once. Pictures and sound are encoded and handed to
// the muxer as they come, and the movie is cut into fragments (of a second of pictures unless the format
// says otherwise), so a movie whose writer dies is still readable up to its last complete fragment. The
// movie's header goes out with the first fragment (so that it can say where each track starts): until then
// the file is empty. Nothing reaches the file but whole fragments, so a full disk shows as a failure of
// appendFrame() ("The movie could not be written: No space left on device"), and the file then keeps its
// complete fragments only. A clean finish turns the fragments into a standard movie, with one header for the
// whole.
//
// Pictures lie on slots of the frame-rate grid, counted from the movie's time 0; a slot that gets no
// picture shows the one before it (black before the first), so that every slot holds a picture and
// editors read a constant rate. Such a held slot costs no encoding where the encoder allows: ProRes
// repeats the picture's packet, H.264 and HEVC write a skip picture (see SkipPictures); otherwise the
// picture is encoded again. Positions of sound are in frames at 48000 a second from time 0.
class MovieWriter {
public:
    static constexpr int SoundRate = 48000;

    // What one movie is to be. The size is the movie's own (even, at least 2): the caller has already
    // decided it, from the settings or from the first frame.
    struct Format {
        Codec codec = Codec::H264;
        int64_t width = 0;
        int64_t height = 0;
        double framesPerSecond = 0;   // the rate of the grid, as GridRate() reads it
        double megabitsPerSecond = 0; // H.264 and HEVC only; 0 chooses from size and rate
        bool recordsSound = false;
        // The speed preset of libx264 and libx265 ("ultrafast" … "medium"), which the take chooses for
        // what this machine keeps up with; empty: veryfast for H.264, ultrafast for HEVC.
        std::string preset{};
        // Threads of libx264 and libx265; 0 lets the encoder take as many as there are processors.
        int64_t threads = 0;
        // The local time of day at the movie's time 0, in seconds since midnight, which its timecode
        // starts at; negative: no timecode track.
        double timeOfDay = -1;
        // Seconds of pictures in each fragment: what a writer that dies loses at most, less what the
        // encoder still held.
        double fragmentSeconds = 1;
    };

    // Creates the file (never replacing one: "“name” already exists"), opens the encoders and writes the
    // movie's header. Errors, in the domain above: "The movie file could not be created", "A %@ movie of
    // %ld × %ld cannot be written" (no encoder takes that size), "The movie file could not be set up",
    // "The movie's sound track could not be set up", "The movie file could not be written" (the muxer
    // refused the header). A failed creation leaves no file behind. The chosen encoder, and the preset
    // of a processor's encoder, is logged.
    static Result<std::unique_ptr<MovieWriter>> make(const std::filesystem::path& path, const Format& format);

    // Without finish() or cancel() first, the file keeps its complete fragments, readable (and is removed
    // if it has none). That is what a recording that failed half-way keeps.
    ~MovieWriter();
    MovieWriter(const MovieWriter&) = delete;
    MovieWriter& operator=(const MovieWriter&) = delete;

    const std::filesystem::path& path() const { return _path; }
    const Format& format() const { return _format; }
    // The encoder chosen, such as "libx264", "h264_nvenc" or "prores_ks".
    const std::string& encoderName() const { return _encoderName; }
    // The speed preset of libx264 and libx265 ("veryfast"); empty for the other encoders.
    const std::string& encoderPreset() const { return _encoderPreset; }
    // What the pictures must hold: yuv420p for H.264 and HEVC, yuv422p10le for ProRes 422, yuva444p10le
    // for ProRes 4444. Tags: BT.709 primaries, transfer and matrix, limited range.
    AVPixelFormat pixelFormat() const { return _pixelFormat; }
    int64_t width() const { return _format.width; }
    int64_t height() const { return _format.height; }
    // How a picture lies in memory: the layout that makeFrame() uses and that wrapFrame() expects, so
    // that a conversion can write straight into it.
    const FrameFormat& frameFormat() const { return _frameFormat; }
    size_t frameBytes() const { return _frameFormat.bytes; }

    // A picture to fill, from a small pool of buffers that come back once the encoder is done with them.
    // Nothing when memory runs out.
    MovieFrame makeFrame();
    // A picture over memory that the caller owns (a mapped GPU buffer, say), laid out as frameFormat() says
    // over frameBytes() bytes. `release` is called, on whichever thread lets go last, once neither the
    // frame nor the encoder needs the memory any more. Nothing when memory runs out (and then `release`
    // has already been called).
    MovieFrame wrapFrame(uint8_t* memory, std::function<void()> release);

    // Encodes a picture for `slot`, which must be later than the last slot written; the slots between
    // show the picture before (black before the first). Whatever the encoder has ready goes on to the
    // muxer, and to the file when a fragment is due.
    Result<> appendFrame(MovieFrame frame, int64_t slot);
    // Fills the slots before `slot` that have no picture yet with the last one (or black).
    Result<> holdUntil(int64_t slot);
    // The first slot without a picture.
    int64_t nextSlot() const { return _nextSlot; }
    // Appends interleaved float stereo sound (or silence when `samples` is null) at `position` (48 kHz
    // frames). A position past the end of what was appended is reached with silence; frames before that
    // end are left out, as they cannot be written twice. Without a sound track, refused.
    // A sound track still without a packet when the first fragment is due gets 2048 frames of silence
    // then: the first fragment carries the header, which waits for every track to have begun.
    Result<> appendSound(const float* samples, int64_t frameCount, int64_t position);

    // Ends the movie before slot `endSlot` (or after its last picture, if that is later): the last picture
    // is held until then; sound is cut there or made up to it with silence (at most one piece of 1024
    // frames already encoded may outlast the pictures); the encoders are drained, the file completed as a
    // standard movie and synced. After a failure, the file keeps its complete
    // fragments (it is removed if it has none) and the failure is the answer. A movie without a picture
    // is not kept: the file is removed and the answer is "No frame was received, so no movie was written".
    Result<> finish(int64_t endSlot);
    // Closes the movie and removes its file.
    void cancel();
    // After finish() or cancel(), every call but the getters answers "The movie is already closed".

    // Pictures appended, and slots filled by holding the one before.
    uint64_t framesWritten() const { return _framesWritten; }
    uint64_t framesHeld() const { return _framesHeld; }
    // What the file holds for certain: the slots, and the sound in 48 kHz frames, of the fragments
    // that reached it (all that was appended once finish() succeeded).
    uint64_t framesInFile() const { return _framesInFile; }
    int64_t soundInFile() const { return _soundInFile; }
    // Sound frames handed to the sound encoder (silence included), at 48000 a second.
    int64_t soundPosition() const { return _soundPosition; }
    // The first failure of writing, which every later call answers with; null until one comes.
    const Error* failure() const { return _failure.get(); }
    bool hasFailed() const { return _failure != nullptr; }

private:
    struct State;

    MovieWriter(std::filesystem::path path, Format format);

    Result<> openFile();
    Result<> openVideo();
    Result<> setUpSkipPictures();
    Result<> openAudio();
    Result<> writeHeader();
    // A picture over `buffer` (taken over), laid out as frameFormat() says.
    MovieFrame frameOver(AVBufferRef* buffer);
    // Sends `frame` to the encoder for `slot`; nothing drains it.
    Result<> encodeVideo(AVFrame* frame, int64_t slot);
    Result<> receiveVideoPackets();
    // Whether a held slot repeats the last picture without encoding (ProRes, and H.264 and HEVC where skip
    // pictures can be made), and muxes that repeat for `slot`.
    bool repeatsPictures() const;
    Result<> muxRepeat(int64_t slot);
    // Hands a picture's packet (which it takes) to the muxer for `slot`, and cuts a fragment when one is due.
    Result<> muxVideoPacket(AVPacket* packet, int64_t slot);
    // Hands a packet from `encoder` (its time stamps in the encoder's time base) to the muxer, in `stream`.
    Result<> muxPacket(AVPacket* packet, AVCodecContext* encoder, AVStream* stream);
    Result<> encodeSound(bool draining);
    Result<> writeSoundPackets();
    // Sends what the muxer holds to the file as one fragment.
    Result<> cutFragment();
    int64_t fragmentSlots() const;
    // Reads what the file gained up to its last complete fragment, for the standard movie.
    void followFragments();
    void makeStandard();
    // A black picture (clear in ProRes 4444), for the slots before the first picture.
    MovieFrame blackFrame();
    // Notes the first failure of writing, which every later call answers with.
    Result<> fail(const std::string& what, int code);
    void close(bool remove);

    std::filesystem::path _path;
    Format _format;
    std::string _encoderName;
    std::string _encoderPreset;
    AVPixelFormat _pixelFormat = AV_PIX_FMT_NONE;
    FrameFormat _frameFormat;
    std::unique_ptr<State> _state;
    AVRational _rate{60, 1};
    int64_t _nextSlot = 0;
    uint64_t _framesWritten = 0;
    uint64_t _framesHeld = 0;
    uint64_t _framesInFile = 0;
    int64_t _soundInFile = 0;
    int64_t _soundPosition = 0;
    std::unique_ptr<Error> _failure;
};

} // namespace quorva
