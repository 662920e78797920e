#include "tests/fakes/FakeNDI.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <numbers>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

// The runtime's structures, member for member as its C headers declare them, so that a program built
// against those headers reads and writes them unchanged. Of the settings a finder and a receiver are made
// with, the fake reads only the source to connect to, which comes first.
struct Source {
    const char* name;
    const char* urlAddress;
};

struct FindCreate;

struct RecvCreateV3 {
    Source sourceToConnectTo; // then the colour format, the bandwidth, fields allowed, the receiver's name
};

struct VideoFrameV2 {
    int xres, yres, fourcc, frameRateN, frameRateD;
    float pictureAspectRatio;
    int frameFormatType;
    int64_t timecode;
    uint8_t* data;
    int lineStrideInBytes;
    const char* metadata;
    int64_t timestamp;
};

struct AudioFrameV3 {
    int sampleRate, channelCount, sampleCount;
    int64_t timecode;
    int fourcc;
    uint8_t* data;
    int channelStrideInBytes;
    const char* metadata;
    int64_t timestamp;
};

constexpr int FrameTypeNone = 0, FrameTypeVideo = 1, FrameTypeAudio = 2;
// A receiver further behind its sender than this many seconds is moved up to the present, as a real
// sender drops what it could not deliver.
constexpr double MostBehind = 1;

bool EnvironmentSays(const char* name) {
    const char* value = std::getenv(name);
    return value && std::strcmp(value, "1") == 0;
}

using Clock = std::chrono::steady_clock; // CLOCK_MONOTONIC

// Pictures, or 10 ms blocks of sound: `n` of them every `d` seconds, as NDI gives a frame rate.
struct Rate {
    int n = 1, d = 1;
    double timeOf(int64_t index) const { return double(index) * d / n; }
    // The first one at or after `time` (`up`), or the last one by then.
    int64_t indexAt(double time, bool up) const {
        const double index = time * n / d;
        return int64_t(up ? std::ceil(index) : std::floor(index));
    }
};

struct Sender {
    int id = 0;
    std::string name;
    FakeNDISender settings; // its name points at the copy above
    Clock::time_point start;
    Rate rates[2]; // pictures, then blocks of sound
    // In the dark half of its blinking; a time on the edge of a half, up to rounding, is in the half it
    // begins.
    bool darkAt(double seconds) const {
        return settings.blinkInterval > 0 &&
               int64_t(std::floor(2 * seconds / settings.blinkInterval + 1e-9)) % 2 == 1;
    }
};

// A whole picture of the sender's colour, or black, rows padded with 0xEE. A stride narrower than the
// pixels cuts the rows short: the program should refuse such a picture, not the fake.
std::vector<uint8_t> Paint(const FakeNDISender& settings, bool dark) {
    const size_t pixelBytes = size_t(settings.width) * 4;
    const size_t stride = settings.stride ? size_t(settings.stride) : pixelBytes;
    std::vector<uint8_t> picture(stride * size_t(settings.height), 0xEE);
    uint32_t pixel = dark ? 0xFF000000 : settings.colour;
    if (settings.fourcc == FakeNDIFourCC("BGRX"))
        pixel &= 0x00FFFFFF;
    for (size_t row = 0; row < size_t(settings.height); ++row)
        for (size_t i = 0; i < std::min(pixelBytes, stride); ++i)
            picture[row * stride + i] = uint8_t(pixel >> 8 * (i % 4));
    return picture;
}

struct Receiver {
    std::string name;
    const Sender* sender = nullptr; // the first listed sender of that name, kept up to date
    int64_t next[2] = {};           // picture, block of sound
    // Painted once for the sender `paintedFor`, so that handing a picture over costs the fake nothing and a
    // benchmark of the program measures the program. Painted again only in a capture, as the program frees
    // each frame before it captures the next.
    int paintedFor = 0;
    std::array<std::vector<uint8_t>, 2> painted; // bright, dark
    std::vector<float> sound;
};

struct Finder {
    std::vector<std::string> names; // as find_get_current_sources last answered
    std::vector<Source> sources;
};

struct State {
    std::mutex mutex;
    // FAKE_NDI_LATE_SENDER's, while it is still to come.
    std::optional<Clock::time_point> lateSenderDue;
    // Notified whenever the list of senders changes; captures also wait on it for their next frame.
    std::condition_variable changed;
    std::vector<std::unique_ptr<Sender>> senders;
    int lastId = 0;
    std::vector<std::unique_ptr<Finder>> finders;
    std::vector<std::unique_ptr<Receiver>> receivers;
};

// Never destroyed: a test's threads may still wait in a capture as the process exits.
State& state = *new State;

// A receiver joins its sender at the sender's present: what was sent before is not received.
void Connect(Receiver& receiver, const Sender* sender, Clock::time_point now) {
    receiver.sender = sender;
    if (!sender)
        return;
    const double elapsed = std::max(0.0, std::chrono::duration<double>(now - sender->start).count());
    for (int i : {0, 1})
        receiver.next[i] = sender->rates[i].indexAt(elapsed, true);
}

// After any change of the list: each receiver follows the first sender of its name, and whoever waits
// looks again.
void SendersChanged(Clock::time_point now) {
    for (auto& receiver : state.receivers) {
        auto found = std::ranges::find(state.senders, receiver->name, &Sender::name);
        const Sender* sender = found == state.senders.end() ? nullptr : found->get();
        if (sender != receiver->sender)
            Connect(*receiver, sender, now);
    }
    state.changed.notify_all();
}

void HandPicture(Receiver& receiver, VideoFrameV2& frame) {
    const FakeNDISender& settings = receiver.sender->settings;
    const double time = receiver.sender->rates[0].timeOf(receiver.next[0]++);
    const bool dark = receiver.sender->darkAt(time);
    if (std::exchange(receiver.paintedFor, receiver.sender->id) != receiver.sender->id)
        receiver.painted = {};
    std::vector<uint8_t>& picture = receiver.painted[dark];
    if (picture.empty())
        picture = Paint(settings, dark);
    const int stride = settings.stride ? settings.stride : int(picture.size()) / std::max(1, settings.height);
    const float aspect = settings.height ? float(settings.width) / float(settings.height) : 0.0f;
    const auto timecode = int64_t(time * 1e7);
    frame = VideoFrameV2(settings.width, settings.height, settings.fourcc, settings.frameRateN,
                         settings.frameRateD, aspect, /* progressive */ 1, timecode, picture.data(), stride,
                         nullptr, timecode);
}

void HandSound(Receiver& receiver, AudioFrameV3& frame) {
    const Sender& sender = *receiver.sender;
    const FakeNDISender& settings = sender.settings;
    const int count = sender.rates[1].d; // the samples of a block: its rate is the sample rate over them
    const int64_t first = receiver.next[1]++ * count;
    receiver.sound.resize(size_t(count) * size_t(settings.channelCount));
    for (int i = 0; i < count; ++i) {
        const int64_t index = first + i;
        // Only the fraction of a cycle goes to sin, so the tone keeps its precision deep into a long take.
        const double cycles = std::fmod(settings.toneFrequency * double(index) / settings.sampleRate, 1.0);
        const float sample = sender.darkAt(double(index) / settings.sampleRate)
                                 ? 0.0f
                                 : settings.toneLevel * float(std::sin(2 * std::numbers::pi * cycles));
        for (int channel = 0; channel < settings.channelCount; ++channel)
            receiver.sound[size_t(channel) * size_t(count) + size_t(i)] = sample;
    }
    const auto timecode = int64_t(double(first) / settings.sampleRate * 1e7);
    // Planar: each channel's samples follow the one before.
    frame = AudioFrameV3(settings.sampleRate, settings.channelCount, count, timecode, settings.soundFourcc,
                         reinterpret_cast<uint8_t*>(receiver.sound.data()), int(sizeof(float)) * count,
                         nullptr, timecode);
}

// Lists a sender last and starts its clock, under the state's lock; answers its identifier.
int AddSender(const FakeNDISender& settings) {
    auto sender = std::make_unique<Sender>();
    sender->name = settings.name;
    sender->settings = settings;
    sender->settings.name = sender->name.c_str();
    sender->rates[0] = {settings.frameRateN, settings.frameRateD};
    sender->rates[1] = {settings.sampleRate, std::max(1, int(std::lround(settings.sampleRate / 100.0)))};
    sender->start = Clock::now();
    sender->id = ++state.lastId;
    state.senders.push_back(std::move(sender));
    SendersChanged(state.senders.back()->start);
    return state.lastId;
}

// Under the state's lock: the late sender joins once its time has come.
void AddLateSenderWhenDue() {
    if (!state.lateSenderDue || Clock::now() < *state.lateSenderDue)
        return;
    state.lateSenderDue.reset();
    if (const char* name = std::getenv("FAKE_NDI_LATE_SENDER")) // in blue
        AddSender({.name = name,
                   .fourcc = FakeNDIFourCC("BGRX"),
                   .width = 320,
                   .height = 180,
                   .colour = 0xFF2040C0});
}

// The entries of the table.

// The settings (groups, extra addresses, local sources) make no difference: every sender is local.
void* FindCreateV2(const FindCreate*) {
    std::lock_guard lock(state.mutex);
    static bool first = true;
    if (std::exchange(first, false) && std::getenv("FAKE_NDI_LATE_SENDER"))
        state.lateSenderDue = Clock::now() + std::chrono::seconds(1);
    state.finders.push_back(std::make_unique<Finder>());
    return state.finders.back().get();
}

void FindDestroy(void* find) {
    std::lock_guard lock(state.mutex);
    std::erase_if(state.finders, [&](const auto& finder) { return finder.get() == find; });
}

bool FindWaitForSources(void* find, uint32_t timeoutMs) {
    const auto& finder = *static_cast<Finder*>(find);
    std::unique_lock lock(state.mutex);
    return state.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return !std::ranges::equal(finder.names, state.senders, {}, {}, &Sender::name);
    });
}

const Source* FindGetCurrentSources(void* find, uint32_t* count) {
    auto& finder = *static_cast<Finder*>(find);
    std::lock_guard lock(state.mutex);
    AddLateSenderWhenDue();
    finder.names.clear();
    for (const auto& sender : state.senders)
        finder.names.push_back(sender->name);
    finder.sources.clear();
    for (const std::string& name : finder.names)
        finder.sources.push_back(Source{name.c_str(), nullptr});
    *count = uint32_t(finder.sources.size());
    return finder.sources.empty() ? nullptr : finder.sources.data();
}

void* RecvCreateV3(const RecvCreateV3* settings) {
    if (!settings || !settings->sourceToConnectTo.name || !*settings->sourceToConnectTo.name)
        return nullptr;
    std::lock_guard lock(state.mutex);
    state.receivers.push_back(std::make_unique<Receiver>());
    state.receivers.back()->name = settings->sourceToConnectTo.name;
    SendersChanged(Clock::now());
    return state.receivers.back().get();
}

void RecvDestroy(void* recv) {
    std::lock_guard lock(state.mutex);
    std::erase_if(state.receivers, [&](const auto& receiver) { return receiver.get() == recv; });
}

int RecvGetNoConnections(void* recv) {
    std::lock_guard lock(state.mutex);
    return static_cast<Receiver*>(recv)->sender ? 1 : 0;
}

int RecvCaptureV3(void* recv, VideoFrameV2* video, AudioFrameV3* audio, void*, uint32_t timeoutMs) {
    auto& receiver = *static_cast<Receiver*>(recv);
    std::unique_lock lock(state.mutex);
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const Clock::time_point now = Clock::now();
        Clock::time_point wake = deadline;
        if (const Sender* sender = receiver.sender) {
            const double elapsed = std::chrono::duration<double>(now - sender->start).count();
            // A picture first, then a block of sound, whichever is due.
            for (int i : {0, 1}) {
                if (i == 0 ? !video || !sender->settings.fourcc : !audio || !sender->settings.soundFourcc)
                    continue;
                const Rate& rate = sender->rates[i];
                int64_t& next = receiver.next[i];
                if (elapsed - rate.timeOf(next) > MostBehind)
                    next = rate.indexAt(elapsed, false);
                if (rate.timeOf(next) <= elapsed) {
                    if (i == 0)
                        HandPicture(receiver, *video);
                    else
                        HandSound(receiver, *audio);
                    return i == 0 ? FrameTypeVideo : FrameTypeAudio;
                }
                const std::chrono::duration<double> due(rate.timeOf(next));
                wake = std::min(wake, sender->start + std::chrono::duration_cast<Clock::duration>(due));
            }
        }
        if (now >= deadline)
            return FrameTypeNone;
        state.changed.wait_until(lock, wake);
    }
}

// Every entry that the fake leaves out: the program has called something it was not expected to.
[[noreturn]] void NotProvided() {
    std::fputs("fake NDI: an entry the fake does not provide was called\n", stderr);
    std::abort();
}

// The runtime's table: one pointer-sized slot per entry, at the slots the runtime gives them.
const void* const* Table() {
    using Entry = void (*)();
    static const auto table = [] {
        std::array<Entry, 107> entries;
        entries.fill(&NotProvided);
        auto place = [&](size_t slot, auto function) { entries[slot] = reinterpret_cast<Entry>(+function); };
        place(0, [] { return !EnvironmentSays("FAKE_NDI_INITIALIZE_FAILS"); });
        place(2, [] { return "NDI SDK LINUX fake 6.0"; });
        place(3, [] { return !EnvironmentSays("FAKE_NDI_UNSUPPORTED_CPU"); });
        place(5, &FindCreateV2);
        place(6, &FindDestroy);
        place(23, &RecvDestroy);
        place(34, &RecvGetNoConnections);
        place(42, &FindWaitForSources);
        place(43, &FindGetCurrentSources);
        // Frames stay the receiver's: they are written again only by its next capture.
        place(47, [](void*, const VideoFrameV2*) {});
        place(84, &RecvCreateV3);
        place(101, &RecvCaptureV3);
        place(102, [](void*, const AudioFrameV3*) {});
        return entries;
    }();
    return reinterpret_cast<const void* const*>(table.data());
}

// The sender of `id`, under the state's lock; the list's end when there is none.
auto SenderOf(int id) {
    return std::ranges::find(state.senders, id, &Sender::id);
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) const void* NDIlib_v5_load(void) {
    return Table();
}

int FakeNDI_AddSender(const FakeNDISender* settings) {
    std::lock_guard lock(state.mutex);
    return AddSender(*settings);
}

void FakeNDI_RemoveSender(int id) {
    std::unique_ptr<Sender> removed; // freed once no receiver points at it
    std::lock_guard lock(state.mutex);
    if (auto found = SenderOf(id); found != state.senders.end()) {
        removed = std::move(*found);
        state.senders.erase(found);
        SendersChanged(Clock::now());
    }
}

void FakeNDI_MoveSenderFirst(int id) {
    std::lock_guard lock(state.mutex);
    if (auto found = SenderOf(id); found != state.senders.end()) {
        std::rotate(state.senders.begin(), found, found + 1);
        SendersChanged(Clock::now());
    }
}

int FakeNDI_ReceiverCount(int id) {
    std::lock_guard lock(state.mutex);
    return int(std::ranges::count_if(state.receivers, [&](const auto& receiver) {
        return receiver->sender && receiver->sender->id == id;
    }));
}

int FakeNDI_FinderCount() {
    std::lock_guard lock(state.mutex);
    return int(state.finders.size());
}

void FakeNDI_Reset() {
    std::vector<std::unique_ptr<Sender>> removed;
    std::lock_guard lock(state.mutex);
    removed.swap(state.senders);
    SendersChanged(Clock::now());
}

} // extern "C"
