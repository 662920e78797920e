#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorva {

// The parts of the NDI runtime's binary interface that the recorder uses, declared from the published
// layout: the runtime is loaded at run time and never linked, so its headers are not needed to build.
namespace ndi {

struct Source {
    const char* name = nullptr; // UTF-8, "HOST (Camera 1)"
    const char* urlAddress = nullptr;
};

struct FindCreate {
    bool showLocalSources = true;
    const char* groups = nullptr;
    const char* extraIPs = nullptr;
};

struct RecvCreateV3 {
    Source sourceToConnectTo;
    int colorFormat = 0; // BGRX or BGRA
    int bandwidth = 100; // highest
    bool allowVideoFields = false;
    const char* receiverName = nullptr;
};

struct VideoFrameV2 {
    int xres = 0, yres = 0;
    int fourcc = 0;
    int frameRateN = 0, frameRateD = 0;
    float pictureAspectRatio = 0;
    int frameFormatType = 0;
    int64_t timecode = 0; // 100 ns
    uint8_t* data = nullptr;
    int lineStrideInBytes = 0;
    const char* metadata = nullptr;
    int64_t timestamp = 0;
};

struct AudioFrameV3 {
    int sampleRate = 0;
    int channelCount = 0;
    int sampleCount = 0; // per channel
    int64_t timecode = 0;
    int fourcc = 0;
    uint8_t* data = nullptr;
    int channelStrideInBytes = 0; // planar: from one channel's first sample to the next channel's
    const char* metadata = nullptr;
    int64_t timestamp = 0;
};

// The layouts are the runtime's, fixed by its binary interface on 64-bit Linux.
static_assert(sizeof(void*) != 8 || (sizeof(FindCreate) == 24 && sizeof(RecvCreateV3) == 40 &&
                                     offsetof(RecvCreateV3, receiverName) == 32 &&
                                     sizeof(VideoFrameV2) == 72 && offsetof(VideoFrameV2, data) == 40 &&
                                     sizeof(AudioFrameV3) == 64 && offsetof(AudioFrameV3, data) == 32));

enum FrameType : int { FrameNone = 0, FrameVideo = 1, FrameAudio = 2 };

// Four characters packed as NDI packs them, the first in the lowest byte.
constexpr int FourCC(const char (&text)[5]) {
    return int(uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 |
               uint32_t(uint8_t(text[2])) << 16 | uint32_t(uint8_t(text[3])) << 24);
}

// The function table that NDIlib_v5_load answers: an array of function pointers, called through these.
class Functions {
public:
    explicit Functions(const void* table) : _slots(static_cast<const Slot*>(table)) {}

    bool initialize() const { return slot<bool (*)()>(0)(); }
    const char* version() const { return slot<const char* (*)()>(2)(); }
    bool isSupportedCPU() const { return slot<bool (*)()>(3)(); }
    void* findCreateV2(const FindCreate* settings) const {
        return slot<void* (*)(const FindCreate*)>(5)(settings);
    }
    void findDestroy(void* find) const { slot<void (*)(void*)>(6)(find); }
    void recvDestroy(void* recv) const { slot<void (*)(void*)>(23)(recv); }
    int recvGetNoConnections(void* recv) const { return slot<int (*)(void*)>(34)(recv); }
    bool findWaitForSources(void* find, uint32_t timeoutMs) const {
        return slot<bool (*)(void*, uint32_t)>(42)(find, timeoutMs);
    }
    const Source* findGetCurrentSources(void* find, uint32_t* count) const {
        return slot<const Source* (*)(void*, uint32_t*)>(43)(find, count);
    }
    void recvFreeVideoV2(void* recv, const VideoFrameV2* frame) const {
        slot<void (*)(void*, const VideoFrameV2*)>(47)(recv, frame);
    }
    void* recvCreateV3(const RecvCreateV3* settings) const {
        return slot<void* (*)(const RecvCreateV3*)>(84)(settings);
    }
    int recvCaptureV3(void* recv, VideoFrameV2* video, AudioFrameV3* audio, uint32_t timeoutMs) const {
        return slot<int (*)(void*, VideoFrameV2*, AudioFrameV3*, void*, uint32_t)>(101)(recv, video, audio,
                                                                                        nullptr, timeoutMs);
    }
    void recvFreeAudioV3(void* recv, const AudioFrameV3* frame) const {
        slot<void (*)(void*, const AudioFrameV3*)>(102)(recv, frame);
    }

private:
    using Slot = void (*)();
    template <class Function>
    Function slot(size_t index) const {
        return reinterpret_cast<Function>(_slots[index]);
    }
    const Slot* _slots;
};

} // namespace ndi

// The NDI runtime, found and opened at run time: NDI sources exist only where it is installed, and the
// program runs without it. One shared instance serves the whole process; it says whether NDI can be used,
// which version it is and where it was found, or, when it cannot be used, why, in one line for the user.
class NDILibrary {
public:
    // The runtime's file name, and what a reason names it by.
    static constexpr const char* FileName = "libndi.so.6";

    // The one library of the process, searched for once, on the first call, from the environment and the
    // program's folder. Safe to call from any thread. Never unloaded: a runtime installed while the
    // program runs is seen at its next start.
    static std::shared_ptr<const NDILibrary> sharedLibrary();

    // Where to look, in order: QUORVA_NDI_LIBRARY alone when it is set and not empty; otherwise beside the
    // program, in NDI_RUNTIME_DIR_V6 when it is set and not empty, then the standard library folders.
    static std::vector<std::string> candidatePaths(const std::map<std::string, std::string>& environment,
                                                   const std::string& programFolder);
    // The first candidate that exists and can be used; else the first one that exists, with its reason;
    // else an unavailable library that names the folders searched.
    static std::shared_ptr<const NDILibrary> chooseFrom(const std::vector<std::string>& candidates);
    // Opens one file: available, or not with the reason.
    static std::shared_ptr<const NDILibrary> makeWithPath(const std::string& path);
    static std::shared_ptr<const NDILibrary> makeWithReason(std::string reason);

    NDILibrary(const NDILibrary&) = delete;
    NDILibrary& operator=(const NDILibrary&) = delete;

    // The runtime's functions; nothing when it is not available.
    const ndi::Functions* functions() const { return _functions ? &*_functions : nullptr; }
    bool isAvailable() const { return _available; }
    // The runtime's own version text; empty when it is not available.
    const std::string& version() const { return _version; }
    // Where the available runtime was opened from.
    const std::optional<std::string>& path() const { return _path; }
    // Empty when available.
    const std::string& reason() const { return _reason; }

private:
    NDILibrary() = default;

    std::optional<ndi::Functions> _functions;
    bool _available = false;
    std::string _version;
    std::optional<std::string> _path;
    std::string _reason;
};

} // namespace quorva
