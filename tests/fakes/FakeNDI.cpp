#include "tests/fakes/FakeNDI.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

namespace {

// The runtime's structures, member for member as its C headers declare them, so that a program built
// against those headers reads and writes them unchanged.
struct Source {
    const char* name;
    const char* urlAddress;
};

struct FindCreate {
    bool showLocalSources;
    const char* groups;
    const char* extraIps;
};

struct RecvCreateV3 {
    Source sourceToConnectTo;
    int colorFormat;
    int bandwidth;
    bool allowVideoFields;
    const char* receiverName;
};

struct VideoFrameV2 {
    int xres;
    int yres;
    int fourcc;
    int frameRateN;
    int frameRateD;
    float pictureAspectRatio;
    int frameFormatType;
    int64_t timecode;
    uint8_t* data;
    int lineStrideInBytes;
    const char* metadata;
    int64_t timestamp;
};

struct AudioFrameV3 {
    int sampleRate;
    int channelCount;
    int sampleCount;
    int64_t timecode;
    int fourcc;
    uint8_t* data;
    int channelStrideInBytes;
    const char* metadata;
    int64_t timestamp;
};

#if defined(__LP64__)
static_assert(sizeof(Source) == 16 && offsetof(Source, urlAddress) == 8);
static_assert(sizeof(FindCreate) == 24 && offsetof(FindCreate, groups) == 8 &&
              offsetof(FindCreate, extraIps) == 16);
static_assert(offsetof(RecvCreateV3, colorFormat) == 16 && offsetof(RecvCreateV3, bandwidth) == 20 &&
              offsetof(RecvCreateV3, allowVideoFields) == 24 && offsetof(RecvCreateV3, receiverName) == 32 &&
              sizeof(RecvCreateV3) == 40);
static_assert(offsetof(VideoFrameV2, pictureAspectRatio) == 20 &&
              offsetof(VideoFrameV2, frameFormatType) == 24 && offsetof(VideoFrameV2, timecode) == 32 &&
              offsetof(VideoFrameV2, data) == 40 && offsetof(VideoFrameV2, lineStrideInBytes) == 48 &&
              offsetof(VideoFrameV2, metadata) == 56 && offsetof(VideoFrameV2, timestamp) == 64 &&
              sizeof(VideoFrameV2) == 72);
static_assert(offsetof(AudioFrameV3, sampleCount) == 8 && offsetof(AudioFrameV3, timecode) == 16 &&
              offsetof(AudioFrameV3, fourcc) == 24 && offsetof(AudioFrameV3, data) == 32 &&
              offsetof(AudioFrameV3, channelStrideInBytes) == 40 && offsetof(AudioFrameV3, metadata) == 48 &&
              offsetof(AudioFrameV3, timestamp) == 56 && sizeof(AudioFrameV3) == 64);
#endif

// What capture answers.
constexpr int FrameTypeNone = 0;
constexpr int FrameTypeVideo = 1;
constexpr int FrameTypeAudio = 2;

constexpr int FormatProgressive = 1;
constexpr int FourCCBGRX = FakeNDIFourCC("BGRX");
constexpr int FourCCUYVY = FakeNDIFourCC("UYVY");
constexpr uint32_t Black = 0xFF000000;
constexpr int64_t NanosecondsPerSecond = 1'000'000'000;
constexpr int64_t TimecodeUnitsPerSecond = 10'000'000; // the runtime counts time in 100 ns units
// A receiver further behind its sender than this is moved up to the present, as a real sender's queue
// would have dropped what it could not deliver.
constexpr int64_t MostBehindNs = NanosecondsPerSecond;

// Misuse of the fake, or of the runtime through it, is a bug in the program or the test: stop there
// with a message rather than carry on with nonsense.
[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
    std::fputs("fake NDI: ", stderr);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
    std::abort();
}

bool environmentSays(const char* name) {
    const char* value = std::getenv(name);
    return value && std::strcmp(value, "1") == 0;
}

using Clock = std::chrono::steady_clock; // CLOCK_MONOTONIC

int64_t nanosecondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(to - from).count();
}

// a * b / c for non-negative a and positive b and c, rounded down or up, exact however long a take runs.
int64_t scaleDown(int64_t a, int64_t b, int64_t c) {
    return int64_t(static_cast<__int128>(a) * b / c);
}
int64_t scaleUp(int64_t a, int64_t b, int64_t c) {
    return int64_t((static_cast<__int128>(a) * b + c - 1) / c);
}

struct Sender {
    int id = 0;
    std::string name;
    std::optional<std::string> url;
    FakeNDISender settings; // its name and url are the copies above
    Clock::time_point start;
    int blockSamples = 0; // in each 10 ms block of sound
};

// Picture `index` is sent at this many nanoseconds of its sender's clock.
int64_t pictureNs(const Sender& sender, int64_t index) {
    return scaleDown(index, sender.settings.frameRateD * NanosecondsPerSecond, sender.settings.frameRateN);
}
// The first picture sent at or after `elapsedNs`, and the last one sent by then.
int64_t firstPictureFrom(const Sender& sender, int64_t elapsedNs) {
    return scaleUp(elapsedNs, sender.settings.frameRateN, sender.settings.frameRateD * NanosecondsPerSecond);
}
int64_t lastPictureBy(const Sender& sender, int64_t elapsedNs) {
    return scaleDown(elapsedNs, sender.settings.frameRateN,
                     sender.settings.frameRateD * NanosecondsPerSecond);
}

int64_t blockNs(const Sender& sender, int64_t block) {
    return scaleDown(block * sender.blockSamples, NanosecondsPerSecond, sender.settings.sampleRate);
}
int64_t firstBlockFrom(const Sender& sender, int64_t elapsedNs) {
    return scaleUp(elapsedNs, sender.settings.sampleRate, sender.blockSamples * NanosecondsPerSecond);
}
int64_t lastBlockBy(const Sender& sender, int64_t elapsedNs) {
    return scaleDown(elapsedNs, sender.settings.sampleRate, sender.blockSamples * NanosecondsPerSecond);
}

// Whether the sender is in the dark half of its blinking at `seconds` of its clock. A time on the edge
// between halves, up to rounding (picture 9 at 30/s is 0.3 s, the edge of the second half of 0.2 s),
// belongs to the half it begins, as it would in exact arithmetic.
bool darkAt(const FakeNDISender& settings, double seconds) {
    if (settings.blinkInterval <= 0)
        return false;
    double halves = 2 * seconds / settings.blinkInterval;
    const double edge = std::round(halves);
    if (std::fabs(halves - edge) <= 1e-9 * std::max(1.0, edge))
        halves = edge;
    return int64_t(std::floor(halves)) % 2 == 1;
}

float sampleAt(const FakeNDISender& settings, int64_t index) {
    if (darkAt(settings, double(index) / settings.sampleRate))
        return 0;
    // Only the fraction of a cycle goes to sin, so the tone keeps its precision deep into a long take.
    const double cycles = std::fmod(settings.toneFrequency * double(index) / settings.sampleRate, 1.0);
    return settings.toneLevel * float(std::sin(2 * std::numbers::pi * cycles));
}

int bytesPerPixel(int fourcc) {
    return fourcc == FourCCUYVY ? 2 : 4;
}

int lineStride(const FakeNDISender& settings) {
    return settings.stride ? settings.stride : settings.width * bytesPerPixel(settings.fourcc);
}

// A whole picture of the sender's colour, or black, padding included. A stride narrower than the pixels
// cuts the rows short: the program should refuse such a picture, not the fake.
std::shared_ptr<uint8_t[]> paintPicture(const FakeNDISender& settings, bool dark) {
    const size_t stride = size_t(lineStride(settings));
    const size_t size = stride * size_t(settings.height);
    if (size == 0)
        return nullptr;
    std::shared_ptr<uint8_t[]> picture(new uint8_t[size]);
    uint8_t* const firstRow = picture.get();
    const size_t pixelBytes =
        std::min(size_t(settings.width) * size_t(bytesPerPixel(settings.fourcc)), stride);
    if (settings.fourcc == FourCCUYVY) {
        // U Y V Y: no colour, mid grey or video-range black.
        const uint8_t luma = dark ? 16 : 128;
        for (size_t i = 0; i < pixelBytes; ++i)
            firstRow[i] = i % 2 ? luma : 128;
    } else {
        uint32_t pixel = dark ? Black : settings.colour;
        if (settings.fourcc == FourCCBGRX)
            pixel &= 0x00FFFFFF;
        const uint8_t bytes[4] = {uint8_t(pixel), uint8_t(pixel >> 8), uint8_t(pixel >> 16),
                                  uint8_t(pixel >> 24)};
        for (size_t i = 0; i < pixelBytes; ++i)
            firstRow[i] = bytes[i % 4];
    }
    std::memset(firstRow + pixelBytes, 0xEE, stride - pixelBytes);
    for (size_t row = 1; row < size_t(settings.height); ++row)
        std::memcpy(firstRow + row * stride, firstRow, stride);
    return picture;
}

// What a receiver's pictures were painted for; a sender of another format paints them anew.
struct PictureFormat {
    int fourcc = 0, width = 0, height = 0, stride = 0;
    uint32_t colour = 0;
    bool operator==(const PictureFormat&) const = default;
};

struct Receiver {
    std::string name;
    // The first listed sender of that name, or none; kept up to date whenever the list changes.
    const Sender* connected = nullptr;
    int64_t nextPicture = 0;
    int64_t nextBlock = 0;
    // Painted once, so that handing over a picture costs the fake nothing and a benchmark of the
    // program measures the program.
    std::optional<PictureFormat> paintedFor;
    std::shared_ptr<uint8_t[]> bright, dark;
    // Pictures handed over and not yet freed: they outlive a repainting until the program is done.
    std::vector<std::shared_ptr<uint8_t[]>> lent;
};

struct Listing {
    std::string name;
    std::optional<std::string> url;
};

struct Finder {
    std::vector<Listing> listed; // as find_get_current_sources last answered
    std::vector<Source> sources; // pointing into `listed`
};

struct State {
    std::mutex mutex;
    // Notified whenever the list of senders changes; captures also wait on it for their next frame.
    std::condition_variable changed;
    std::vector<std::unique_ptr<Sender>> senders;
    int lastId = 0;
    std::vector<std::unique_ptr<Finder>> finders;
    std::vector<std::unique_ptr<Receiver>> receivers;
};

// Never destroyed: a test's threads may still be waiting in a capture as the process exits, and tearing
// the mutex down under them would be worse than leaving it. It stays reachable, so it is no leak: the
// library is linked -z nodelete, so not even a dlclose unmaps the pointer to it.
State& state() {
    static State* const instance = new State;
    return *instance;
}

Sender* listedSender(State& st, int id) {
    for (auto& sender : st.senders)
        if (sender->id == id)
            return sender.get();
    return nullptr;
}

const Sender* firstNamed(State& st, const std::string& name) {
    for (auto& sender : st.senders)
        if (sender->name == name)
            return sender.get();
    return nullptr;
}

Finder& liveFinder(State& st, void* instance, const char* entry) {
    for (auto& finder : st.finders)
        if (finder.get() == instance)
            return *finder;
    fail("%s was given a finder that does not exist", entry);
}

Receiver& liveReceiver(State& st, void* instance, const char* entry) {
    for (auto& receiver : st.receivers)
        if (receiver.get() == instance)
            return *receiver;
    fail("%s was given a receiver that does not exist", entry);
}

// A receiver joins its sender at the sender's present: what was sent before is not received.
void connect(Receiver& receiver, const Sender* sender, Clock::time_point now) {
    receiver.connected = sender;
    if (!sender)
        return;
    const int64_t elapsedNs = std::max<int64_t>(0, nanosecondsBetween(sender->start, now));
    receiver.nextPicture = firstPictureFrom(*sender, elapsedNs);
    receiver.nextBlock = firstBlockFrom(*sender, elapsedNs);
}

// After any change of the list: each receiver follows the first sender of its name, and whoever waits
// looks again.
void senderListChanged(State& st, Clock::time_point now) {
    for (auto& receiver : st.receivers) {
        const Sender* sender = firstNamed(st, receiver->name);
        if (sender != receiver->connected)
            connect(*receiver, sender, now);
    }
    st.changed.notify_all();
}

bool listedAsNow(const State& st, const Finder& finder) {
    if (finder.listed.size() != st.senders.size())
        return false;
    for (size_t i = 0; i < st.senders.size(); ++i)
        if (finder.listed[i].name != st.senders[i]->name || finder.listed[i].url != st.senders[i]->url)
            return false;
    return true;
}

void handPicture(Receiver& receiver, const Sender& sender, VideoFrameV2& frame) {
    const FakeNDISender& settings = sender.settings;
    const PictureFormat format{settings.fourcc, settings.width, settings.height, settings.stride,
                               settings.colour};
    if (receiver.paintedFor != format) {
        receiver.bright.reset();
        receiver.dark.reset();
        receiver.paintedFor = format;
    }
    const int64_t index = receiver.nextPicture++;
    // A picture is dark or bright by the half of the blink that its own time falls in.
    const bool dark = darkAt(settings, double(index * settings.frameRateD) / settings.frameRateN);
    std::shared_ptr<uint8_t[]>& picture = dark ? receiver.dark : receiver.bright;
    if (!picture)
        picture = paintPicture(settings, dark);
    receiver.lent.push_back(picture);
    const int64_t timecode =
        scaleDown(index, settings.frameRateD * TimecodeUnitsPerSecond, settings.frameRateN);
    frame = VideoFrameV2{
        .xres = settings.width,
        .yres = settings.height,
        .fourcc = settings.fourcc,
        .frameRateN = settings.frameRateN,
        .frameRateD = settings.frameRateD,
        .pictureAspectRatio = settings.height ? float(settings.width) / float(settings.height) : 0.0f,
        .frameFormatType = FormatProgressive,
        .timecode = timecode,
        .data = picture.get(),
        .lineStrideInBytes = lineStride(settings),
        .metadata = nullptr,
        .timestamp = timecode,
    };
}

void handSound(Receiver& receiver, const Sender& sender, AudioFrameV3& frame) {
    const FakeNDISender& settings = sender.settings;
    const int count = sender.blockSamples;
    const int64_t first = receiver.nextBlock++ * count;
    const size_t stride = size_t(count) * sizeof(float) + size_t(settings.channelPadding);
    auto* data = static_cast<uint8_t*>(std::malloc(stride * size_t(settings.channelCount)));
    if (!data)
        fail("no memory for a block of sound");
    // Written bytewise: a padding that is not a multiple of 4 leaves the later channels unaligned.
    for (int i = 0; i < count; ++i) {
        const float sample = sampleAt(settings, first + i);
        std::memcpy(data + size_t(i) * sizeof(float), &sample, sizeof sample);
    }
    std::memset(data + size_t(count) * sizeof(float), 0xEE, size_t(settings.channelPadding));
    for (int channel = 1; channel < settings.channelCount; ++channel)
        std::memcpy(data + size_t(channel) * stride, data, stride);
    const int64_t timecode = scaleDown(first, TimecodeUnitsPerSecond, settings.sampleRate);
    frame = AudioFrameV3{
        .sampleRate = settings.sampleRate,
        .channelCount = settings.channelCount,
        .sampleCount = count,
        .timecode = timecode,
        .fourcc = settings.soundFourcc,
        .data = data,
        .channelStrideInBytes = int(stride),
        .metadata = nullptr,
        .timestamp = timecode,
    };
}

// The entries of the table.

bool initialize() {
    return !environmentSays("FAKE_NDI_INITIALIZE_FAILS");
}

const char* version() {
    return "NDI SDK LINUX fake 6.0";
}

bool isSupportedCpu() {
    return !environmentSays("FAKE_NDI_UNSUPPORTED_CPU");
}

// The settings (groups, extra addresses, local sources) make no difference: every sender is local.
void* findCreateV2(const FindCreate*) {
    State& st = state();
    auto finder = std::make_unique<Finder>();
    std::lock_guard lock(st.mutex);
    st.finders.push_back(std::move(finder));
    return st.finders.back().get();
}

void findDestroy(void* instance) {
    if (!instance)
        return;
    State& st = state();
    std::unique_ptr<Finder> finder;
    std::lock_guard lock(st.mutex);
    auto found = std::find_if(st.finders.begin(), st.finders.end(),
                              [&](const auto& candidate) { return candidate.get() == instance; });
    if (found == st.finders.end())
        fail("find_destroy was given a finder that does not exist");
    finder = std::move(*found);
    st.finders.erase(found);
}

bool findWaitForSources(void* instance, uint32_t timeoutMs) {
    State& st = state();
    std::unique_lock lock(st.mutex);
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (!listedAsNow(st, liveFinder(st, instance, "find_wait_for_sources")))
            return true;
        if (Clock::now() >= deadline)
            return false;
        st.changed.wait_until(lock, deadline);
    }
}

const Source* findGetCurrentSources(void* instance, uint32_t* count) {
    State& st = state();
    std::lock_guard lock(st.mutex);
    Finder& finder = liveFinder(st, instance, "find_get_current_sources");
    finder.listed.clear();
    for (auto& sender : st.senders)
        finder.listed.push_back(Listing{sender->name, sender->url});
    finder.sources.clear();
    for (auto& listing : finder.listed)
        finder.sources.push_back(Source{listing.name.c_str(), listing.url ? listing.url->c_str() : nullptr});
    if (count)
        *count = uint32_t(finder.sources.size());
    return finder.sources.empty() ? nullptr : finder.sources.data();
}

void* recvCreateV3(const RecvCreateV3* settings) {
    if (!settings || !settings->sourceToConnectTo.name || !*settings->sourceToConnectTo.name)
        return nullptr;
    State& st = state();
    auto receiver = std::make_unique<Receiver>();
    receiver->name = settings->sourceToConnectTo.name;
    std::lock_guard lock(st.mutex);
    connect(*receiver, firstNamed(st, receiver->name), Clock::now());
    st.receivers.push_back(std::move(receiver));
    return st.receivers.back().get();
}

void recvDestroy(void* instance) {
    if (!instance)
        return;
    State& st = state();
    std::unique_ptr<Receiver> receiver; // freed after the lock is let go
    std::lock_guard lock(st.mutex);
    auto found = std::find_if(st.receivers.begin(), st.receivers.end(),
                              [&](const auto& candidate) { return candidate.get() == instance; });
    if (found == st.receivers.end())
        fail("recv_destroy was given a receiver that does not exist");
    receiver = std::move(*found);
    st.receivers.erase(found);
}

int recvGetNoConnections(void* instance) {
    State& st = state();
    std::lock_guard lock(st.mutex);
    return liveReceiver(st, instance, "recv_get_no_connections").connected ? 1 : 0;
}

int recvCaptureV3(void* instance, VideoFrameV2* video, AudioFrameV3* audio, void*, uint32_t timeoutMs) {
    State& st = state();
    std::unique_lock lock(st.mutex);
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        Receiver& receiver = liveReceiver(st, instance, "recv_capture_v3");
        const Clock::time_point now = Clock::now();
        Clock::time_point wake = deadline;
        if (const Sender* sender = receiver.connected) {
            const int64_t elapsedNs = nanosecondsBetween(sender->start, now);
            if (video && sender->settings.fourcc) {
                if (elapsedNs - pictureNs(*sender, receiver.nextPicture) > MostBehindNs)
                    receiver.nextPicture = lastPictureBy(*sender, elapsedNs);
                const int64_t dueNs = pictureNs(*sender, receiver.nextPicture);
                if (dueNs <= elapsedNs) {
                    handPicture(receiver, *sender, *video);
                    return FrameTypeVideo;
                }
                wake = std::min(wake, sender->start + std::chrono::nanoseconds(dueNs));
            }
            if (audio && sender->settings.soundFourcc) {
                if (elapsedNs - blockNs(*sender, receiver.nextBlock) > MostBehindNs)
                    receiver.nextBlock = lastBlockBy(*sender, elapsedNs);
                const int64_t dueNs = blockNs(*sender, receiver.nextBlock);
                if (dueNs <= elapsedNs) {
                    handSound(receiver, *sender, *audio);
                    return FrameTypeAudio;
                }
                wake = std::min(wake, sender->start + std::chrono::nanoseconds(dueNs));
            }
        }
        if (now >= deadline)
            return FrameTypeNone;
        st.changed.wait_until(lock, wake);
    }
}

void recvFreeVideoV2(void* instance, const VideoFrameV2* frame) {
    if (!frame)
        return;
    State& st = state();
    std::shared_ptr<uint8_t[]> picture; // let go of after the lock
    std::lock_guard lock(st.mutex);
    Receiver& receiver = liveReceiver(st, instance, "recv_free_video_v2");
    auto found = std::find_if(receiver.lent.begin(), receiver.lent.end(),
                              [&](const auto& lent) { return lent.get() == frame->data; });
    if (found == receiver.lent.end())
        fail("recv_free_video_v2 was given a picture that the receiver did not hand over");
    picture = std::move(*found);
    *found = std::move(receiver.lent.back());
    receiver.lent.pop_back();
}

void recvFreeAudioV3(void*, const AudioFrameV3* frame) {
    if (frame)
        std::free(frame->data);
}

// Every entry that the fake leaves out: the program has called something it was not expected to.
[[noreturn]] void notProvided() {
    std::fputs("fake NDI: an entry the fake does not provide was called\n", stderr);
    std::abort();
}

// The runtime's table: one pointer-sized slot per entry, at the slots the runtime gives them.
const void* const* Table() {
    using Entry = void (*)();
    static const auto table = [] {
        std::array<Entry, 107> entries;
        entries.fill(&notProvided);
        auto place = [&](size_t slot, auto function) { entries[slot] = reinterpret_cast<Entry>(function); };
        place(0, &initialize);
        place(2, &version);
        place(3, &isSupportedCpu);
        place(5, &findCreateV2);
        place(6, &findDestroy);
        place(23, &recvDestroy);
        place(34, &recvGetNoConnections);
        place(42, &findWaitForSources);
        place(43, &findGetCurrentSources);
        place(47, &recvFreeVideoV2);
        place(84, &recvCreateV3);
        place(101, &recvCaptureV3);
        place(102, &recvFreeAudioV3);
        return entries;
    }();
    return reinterpret_cast<const void* const*>(table.data());
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) const void* NDIlib_v5_load(void) {
    return Table();
}

int FakeNDI_AddSender(const FakeNDISender* settings) {
    if (!settings || !settings->name)
        fail("FakeNDI_AddSender needs a sender with a name");
    if (settings->fourcc && (settings->width < 0 || settings->height < 0 || settings->stride < 0 ||
                             settings->frameRateN <= 0 || settings->frameRateD <= 0))
        fail("FakeNDI_AddSender was given a picture size or rate that cannot be sent");
    if (settings->soundFourcc && (settings->sampleRate <= 0 || settings->channelCount <= 0 ||
                                  settings->channelPadding < 0 || !std::isfinite(settings->toneFrequency)))
        fail("FakeNDI_AddSender was given a sound that cannot be sent");
    if (!(settings->blinkInterval >= 0) || !std::isfinite(settings->blinkInterval))
        fail("FakeNDI_AddSender was given a blink interval that is not a length of time");

    auto sender = std::make_unique<Sender>();
    sender->name = settings->name;
    if (settings->url)
        sender->url = settings->url;
    sender->settings = *settings;
    sender->settings.name = sender->name.c_str();
    sender->settings.url = sender->url ? sender->url->c_str() : nullptr;
    sender->blockSamples = std::max(1, int(std::lround(settings->sampleRate / 100.0)));

    State& st = state();
    std::lock_guard lock(st.mutex);
    sender->start = Clock::now();
    sender->id = ++st.lastId;
    st.senders.push_back(std::move(sender));
    // Receivers waiting for this name connect at the sender's very start.
    senderListChanged(st, st.senders.back()->start);
    return st.lastId;
}

void FakeNDI_RemoveSender(int id) {
    State& st = state();
    std::unique_ptr<Sender> removed; // freed once no receiver points at it any more
    std::lock_guard lock(st.mutex);
    auto found = std::find_if(st.senders.begin(), st.senders.end(),
                              [&](const auto& sender) { return sender->id == id; });
    if (found == st.senders.end())
        return;
    removed = std::move(*found);
    st.senders.erase(found);
    senderListChanged(st, Clock::now());
}

void FakeNDI_MoveSenderFirst(int id) {
    State& st = state();
    std::lock_guard lock(st.mutex);
    auto found = std::find_if(st.senders.begin(), st.senders.end(),
                              [&](const auto& sender) { return sender->id == id; });
    if (found == st.senders.end())
        return;
    std::rotate(st.senders.begin(), found, found + 1);
    senderListChanged(st, Clock::now());
}

int FakeNDI_ReceiverCount(int id) {
    State& st = state();
    std::lock_guard lock(st.mutex);
    const Sender* sender = listedSender(st, id);
    if (!sender)
        return 0;
    return int(std::count_if(st.receivers.begin(), st.receivers.end(),
                             [&](const auto& receiver) { return receiver->name == sender->name; }));
}

int FakeNDI_FinderCount() {
    State& st = state();
    std::lock_guard lock(st.mutex);
    return int(st.finders.size());
}

void FakeNDI_Reset() {
    State& st = state();
    std::vector<std::unique_ptr<Sender>> removed;
    std::lock_guard lock(st.mutex);
    removed.swap(st.senders);
    senderListChanged(st, Clock::now());
}

} // extern "C"
