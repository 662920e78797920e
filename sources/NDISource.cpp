#include "sources/NDISource.h"

#include "core/source/SourceDescription.h"
#include "platform/JoinThread.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"
#include "platform/MemoryPicture.h"
#include "platform/PicturePool.h"
#include "platform/cpu/PixelImport.h"

#include <algorithm>
#include <mutex>
#include <pthread.h>

namespace quorva {

namespace {

const char* const LogPrefix = "NDISource: ";
// How long a capture waits for a frame: also how long stop waits for the thread at most, beyond the frame
// under way.
constexpr uint32_t CaptureMilliseconds = 100;
constexpr uint32_t LargestSide = 16384;

std::string FourCCText(int fourcc) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8)
        text += char(uint32_t(fourcc) >> shift & 0xFF);
    return text;
}

} // namespace

// The pictures that a source hands over: twelve kept for reuse, each written only while nobody else holds
// it, so a picture still being encoded or shown is never overwritten.
class NDITextureRing {
public:
    explicit NDITextureRing(std::shared_ptr<PictureEngine> engine) : _engine(std::move(engine)) {}

    // Whether a picture of this size and rows is one of BGRA pixels that the engine can hold.
    bool accepts(int width, int height, int bytesPerRow) const {
        const int64_t largest = std::min(LargestSide, _engine->maximumPictureSize());
        return width >= 1 && height >= 1 && width <= largest && height <= largest && bytesPerRow % 4 == 0 &&
               bytesPerRow >= int64_t(width) * 4;
    }

    // A copy of the picture at `bytes`, which it accepts, made opaque unless `hasAlpha`; nothing when
    // memory runs out.
    std::shared_ptr<Picture> textureWithBytes(const uint8_t* bytes, int width, int height, int bytesPerRow,
                                              bool hasAlpha) {
        Result<std::shared_ptr<MemoryPicture>> picture =
            _pool.take(uint32_t(width), uint32_t(height), MemoryPicture::make);
        if (!picture)
            return nullptr;
        cpu::PixelPlanes planes;
        planes.data[0] = bytes;
        planes.stride[0] = bytesPerRow;
        cpu::ImportPixels(hasAlpha ? cpu::PixelLayout::BGRA : cpu::PixelLayout::BGRx, planes, false, false,
                          *picture.value());
        Result<std::shared_ptr<Picture>> adopted = _engine->adopt(picture.value());
        return adopted ? adopted.value() : nullptr;
    }

private:
    const std::shared_ptr<PictureEngine> _engine;
    PicturePool<MemoryPicture> _pool{12};
};

struct NDISource::State {
    std::shared_ptr<const NDILibrary> library;
    std::string title;
    double madeTime = 0;
    // The thread's alone.
    std::unique_ptr<NDITextureRing> ring;
    bool picturesLogged = false, soundLogged = false, unreadableLogged = false;

    mutable std::mutex lock; // guards what follows
    bool stopping = false;
    void* receiver = nullptr; // let go of by the thread as it leaves
    double lastSoundTime = 0;
    double rate = 0;

    SourceOutput output;

    void run() {
        pthread_setname_np(pthread_self(), "NDISource");
        const ndi::Functions& functions = *library->functions();
        void* recv = nullptr;
        {
            std::lock_guard guard(lock);
            recv = receiver;
        }
        for (;;) {
            {
                std::lock_guard guard(lock);
                if (stopping)
                    break;
            }
            ndi::VideoFrameV2 video;
            ndi::AudioFrameV3 audio;
            switch (functions.recvCaptureV3(recv, &video, &audio, CaptureMilliseconds)) {
            case ndi::FrameVideo:
                receivePicture(video);
                functions.recvFreeVideoV2(recv, &video);
                break;
            case ndi::FrameAudio:
                receiveSound(audio);
                functions.recvFreeAudioV3(recv, &audio);
                break;
            default: // nothing yet, metadata, a change of status, an error: ask again
                break;
            }
        }
        {
            std::lock_guard guard(lock);
            receiver = nullptr;
        }
        functions.recvDestroy(recv);
    }

    void receivePicture(const ndi::VideoFrameV2& video) {
        const bool hasAlpha = video.fourcc == ndi::FourCC("BGRA");
        if (!hasAlpha && video.fourcc != ndi::FourCC("BGRX")) {
            if (!picturesLogged)
                Log(LogPrefix,
                    title + " sends pictures as " + FourCCText(video.fourcc) + ", which are dropped");
            picturesLogged = true;
            return;
        }
        if (!video.data || !ring->accepts(video.xres, video.yres, video.lineStrideInBytes)) {
            if (!unreadableLogged)
                Log(LogPrefix, title + " sends pictures of " + std::to_string(video.xres) + " × " +
                                   std::to_string(video.yres) + " with rows of " +
                                   std::to_string(video.lineStrideInBytes) + " bytes, which are dropped");
            unreadableLogged = true;
            return;
        }
        // A picture for which there is no memory now is dropped without a word: the next one may fit.
        std::shared_ptr<Picture> picture =
            ring->textureWithBytes(video.data, video.xres, video.yres, video.lineStrideInBytes, hasAlpha);
        if (!picture)
            return;
        {
            std::lock_guard guard(lock);
            rate = video.frameRateN > 0 && video.frameRateD > 0 ? double(video.frameRateN) / video.frameRateD
                                                                : 0;
        }
        output.deliverFrame(picture);
    }

    void receiveSound(const ndi::AudioFrameV3& audio) {
        if (audio.fourcc != ndi::FourCC("FLTp")) {
            if (!soundLogged)
                Log(LogPrefix, title + " sends sound as " + FourCCText(audio.fourcc) + ", which is left out");
            soundLogged = true;
            return;
        }
        if (audio.channelCount < 1 || audio.sampleCount < 1 || audio.channelStrideInBytes < 1 ||
            audio.sampleRate < 1 || !audio.data)
            return;
        auto sound = SourceSound::soundWithPlanarSamples(
            reinterpret_cast<const float*>(audio.data), uint64_t(audio.channelCount),
            uint64_t(audio.sampleCount), uint64_t(audio.channelStrideInBytes), double(audio.sampleRate));
        if (!sound)
            return;
        {
            std::lock_guard guard(lock);
            lastSoundTime = MediaClock::now();
        }
        output.deliverSound(sound);
    }
};

Result<std::shared_ptr<NDISource>> NDISource::make(const std::string& title, const std::string& name,
                                                   const std::string& url,
                                                   std::shared_ptr<const NDILibrary> library,
                                                   std::shared_ptr<PictureEngine> engine) {
    const ndi::Functions* functions = library->functions();
    if (!functions)
        return Error(std::string(ApplicationIdentifier) + ".NDISource", -1, "NDI is not available");
    ndi::RecvCreateV3 settings;
    settings.sourceToConnectTo.name = name.c_str();
    settings.sourceToConnectTo.urlAddress = url.empty() ? nullptr : url.c_str();
    settings.receiverName = "QuorvaRecorder";
    void* receiver = functions->recvCreateV3(&settings);
    if (!receiver)
        return Error(std::string(ApplicationIdentifier) + ".NDISource", -1,
                     "NDI made no receiver for " + title);
    auto state = std::make_shared<State>();
    state->library = std::move(library);
    state->title = title;
    state->madeTime = MediaClock::now();
    state->receiver = receiver;
    state->ring = std::make_unique<NDITextureRing>(std::move(engine));
    return std::shared_ptr<NDISource>(new NDISource(std::move(state)));
}

NDISource::NDISource(std::shared_ptr<State> state)
    : _state(std::move(state)), _thread([state = _state] { state->run(); }) {}

NDISource::~NDISource() {
    stop();
}

std::string NDISource::title() const {
    return _state->title;
}

int64_t NDISource::kind() const {
    return SourceKindNDI;
}

double NDISource::framesPerSecond() const {
    std::lock_guard guard(_state->lock);
    return _state->rate;
}

SourceOutput& NDISource::output() {
    return _state->output;
}

bool NDISource::hasSound() const {
    std::lock_guard guard(_state->lock);
    return _state->lastSoundTime > 0 && MediaClock::now() - _state->lastSoundTime < SoundInterval;
}

bool NDISource::isAlive() const {
    std::lock_guard guard(_state->lock);
    if (!_state->receiver || _state->stopping)
        return false;
    if (MediaClock::now() - _state->madeTime < ConnectionGrace)
        return true;
    return _state->library->functions()->recvGetNoConnections(_state->receiver) > 0;
}

void NDISource::stop() {
    _state->output.close();
    {
        std::lock_guard guard(_state->lock);
        _state->stopping = true;
    }
    JoinUnlessSelf(_thread); // the receiver goes as the thread ends
}

} // namespace quorva
