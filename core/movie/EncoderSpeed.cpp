#include "core/movie/EncoderSpeed.h"

#include "core/movie/EncoderSetup.h"
#include "core/movie/MovieWriter.h"
#include "platform/Log.h"
#include "platform/ProcessorTime.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <link.h>
#include <set>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace quorva {

namespace {

using json = nlohmann::json;

constexpr const char* LogPrefix = "EncoderSpeed: ";
// How much lower than the rest of the program a measurement in the background runs (a nice value).
constexpr int BackgroundNiceness = 10;

// Pictures big enough that the encoders work as they do on a movie's (whole macroblock and CTU rows,
// motion searched over some distance), small enough that every preset is measured in a second or so.
constexpr int Width = 640;
constexpr int Height = 360;
constexpr double Rate = 30;
// x265 is about five times slower than x264 at the same preset, so it gets fewer pictures. Both counts
// include the key frame every movie starts with and the few slow pictures after it, which weigh more
// here than in a movie (a key frame in 60): the cost comes out higher than a long movie's, by about a
// third for x265's fastest presets, the safe side. More pictures would cost seconds.
constexpr int H264Pictures = 30;
constexpr int HEVCPictures = 12;

// Changing how the speeds are measured (the pictures, the counts, the options) makes remembered speeds
// incomparable: bump this so that they are measured again.
constexpr int MeasurementVersion = 2;

// What presetFor() and speeds() read for `codec`: 0 for H.264, 1 for HEVC (their codec numbers),
// nothing for ProRes.
std::optional<size_t> SpeedIndex(Codec codec) {
    if (IsProRes(codec))
        return std::nullopt;
    return size_t(codec);
}

// --- The pictures --------------------------------------------------------------------------------------

uint32_t Hash(uint32_t x, uint32_t y, uint32_t seed) {
    uint32_t h = x * 0x8da6b343u ^ y * 0xd8163841u ^ seed * 0xcb1ab31fu;
    h ^= h >> 13;
    h *= 0x5bd1e995u;
    return h ^ (h >> 15);
}

// Smooth noise: random values on a grid of `cell` pixels, interpolated between.
double ValueNoise(double x, double y, int cell, uint32_t seed) {
    const double fx = x / cell, fy = y / cell;
    const auto ix = uint32_t(std::floor(fx)), iy = uint32_t(std::floor(fy));
    const double tx = fx - std::floor(fx), ty = fy - std::floor(fy);
    auto at = [&](uint32_t dx, uint32_t dy) {
        return double(Hash(ix + dx, iy + dy, seed) & 0xff) / 255 - 0.5;
    };
    const double top = at(0, 0) + (at(1, 0) - at(0, 0)) * tx;
    const double bottom = at(0, 1) + (at(1, 1) - at(0, 1)) * tx;
    return top + (bottom - top) * ty;
}

uint8_t Clip(int value) {
    return uint8_t(std::clamp(value, 0, 255));
}

// How far the scene moves each picture, in quarters of a pixel (of luma): a fraction of a pixel, so
// that the encoders interpolate as they must for a camera's pan. Even, so that the chroma planes, of
// half the size, move exactly with it.
constexpr int PanX = 10, PanY = 2;

// One plane of the scene, big enough for the pan: detail at two scales and, on the luma plane, blocks
// of hard edges like text or a window's frame.
std::vector<uint8_t> Scene(int width, int height, bool luma, uint32_t seed) {
    std::vector<uint8_t> scene(size_t(width) * size_t(height));
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            double value = luma ? 128 + 140 * ValueNoise(x, y, 32, seed) + 60 * ValueNoise(x, y, 6, seed + 1)
                                : 128 + 90 * ValueNoise(x, y, 20, seed);
            if (luma && (Hash(uint32_t(x) / 24, uint32_t(y) / 16, seed + 2) & 7) == 0)
                value = (Hash(uint32_t(x) / 3, uint32_t(y) / 4, seed + 3) & 1) ? 230 : 30;
            scene[size_t(y) * size_t(width) + size_t(x)] = Clip(int(std::lround(value)));
        }
    }
    return scene;
}

// A scene of detail that pans by a fraction of a pixel a picture, with fresh grain on every picture as
// a camera's sensor gives. Encoders predict a flat or still picture almost for free; a camera's pictures
// are never that easy, so neither are these.
std::vector<MovieFrame> MovingPictures(int count) {
    std::vector<MovieFrame> pictures;
    for (int plane = 0; plane < 3; ++plane) {
        const int shift = plane == 0 ? 0 : 1;
        const int width = Width >> shift, height = Height >> shift;
        // In quarters of this plane's pixels.
        const int panX = PanX >> shift, panY = PanY >> shift;
        const int sceneWidth = width + panX * count / 4 + 2, sceneHeight = height + panY * count / 4 + 2;
        const std::vector<uint8_t> scene = Scene(sceneWidth, sceneHeight, plane == 0, 10 * uint32_t(plane));
        for (int n = 0; n < count; ++n) {
            if (plane == 0) {
                MovieFrame frame(av_frame_alloc());
                if (!frame)
                    return {};
                frame->format = AV_PIX_FMT_YUV420P;
                frame->width = Width;
                frame->height = Height;
                if (av_frame_get_buffer(frame.get(), 0) < 0)
                    return {};
                pictures.push_back(std::move(frame));
            }
            AVFrame* frame = pictures[size_t(n)].get();
            const int left = panX * n / 4, top = panY * n / 4, fx = panX * n % 4, fy = panY * n % 4;
            for (int y = 0; y < height; ++y) {
                const uint8_t* above = scene.data() + size_t(top + y) * size_t(sceneWidth) + size_t(left);
                const uint8_t* below = above + sceneWidth;
                uint8_t* row = frame->data[plane] + y * frame->linesize[plane];
                for (int x = 0; x < width; ++x) {
                    const int value = ((4 - fx) * (4 - fy) * above[x] + fx * (4 - fy) * above[x + 1] +
                                       (4 - fx) * fy * below[x] + fx * fy * below[x + 1] + 8) /
                                      16;
                    const int grain =
                        plane == 0 ? int(Hash(uint32_t(x), uint32_t(y), 100 + uint32_t(n)) & 7) - 3 : 0;
                    row[x] = Clip(value + grain);
                }
            }
        }
    }
    return pictures;
}

// --- One preset ---------------------------------------------------------------------------------------

// Pixels a second that one thread encodes `pictures` with `preset`, with the encoder set up as a movie's
// is (see EncoderUse::SpeedMeasurement for the difference); 0 when the encoder does not open or fails.
double MeasurePreset(Codec codec, const char* preset, const std::vector<MovieFrame>& pictures) {
    Packet packet(av_packet_alloc());
    if (!packet)
        return 0;
    const MovieWriter::Format format{
        .codec = codec, .width = Width, .height = Height, .framesPerSecond = Rate, .preset = preset};
    const std::set<pid_t> before = ProcessThreads();
    Result<VideoEncoder> encoder = OpenVideoEncoder(format, EncoderUse::SpeedMeasurement);
    if (!encoder) {
        Log(LogPrefix, std::string(codec == Codec::HEVC ? "libx265" : "libx264") +
                           " did not open with the preset " + preset + ": " + encoder.error().message());
        return 0;
    }
    AVCodecContext* c = encoder.value().context.get();
    // A thread that another part of the process started meanwhile counts too: the safe side.
    std::vector<pid_t> workers = {gettid()};
    for (pid_t thread : ProcessThreads()) {
        if (!before.contains(thread))
            workers.push_back(thread);
    }

    Stopwatch stopwatch(std::move(workers));
    for (size_t n = 0; n <= pictures.size(); ++n) {
        AVFrame* picture = n < pictures.size() ? pictures[n].get() : nullptr;
        if (picture) {
            picture->pts = int64_t(n);
            picture->pict_type = AV_PICTURE_TYPE_NONE;
        }
        if (avcodec_send_frame(c, picture) < 0)
            return 0;
        int received;
        while ((received = avcodec_receive_packet(c, packet.get())) >= 0)
            av_packet_unref(packet.get());
        if (received != AVERROR(EAGAIN) && received != AVERROR_EOF)
            return 0;
    }
    const double seconds = stopwatch.seconds();
    // Whole pixels: the settings file reads better, and nothing finer is measured.
    return seconds > 0 ? std::floor(double(pictures.size()) * Width * Height / seconds) : 0;
}

// The pixels a second of each preset, or nothing when `cancelled` was set before the last was measured.
std::optional<PresetSpeeds> MeasurePresetSpeeds(Codec codec, const std::atomic<bool>& cancelled) {
    PresetSpeeds speeds{};
    const std::vector<MovieFrame> pictures =
        MovingPictures(codec == Codec::HEVC ? HEVCPictures : H264Pictures);
    for (size_t i = 0; i < EncoderPresets.size() && !pictures.empty(); ++i) {
        if (cancelled)
            return std::nullopt;
        speeds[i] = MeasurePreset(codec, EncoderPresets[i], pictures);
    }
    return speeds;
}

// --- Remembering --------------------------------------------------------------------------------------

// Whether more is waiting to run than `processors` can run: a measurement then comes out slower than
// the machine is (every switch between programs costs the encoder its caches), by a third at a load of
// five a processor, and is not worth remembering.
bool IsBusy(double processors) {
    double load = 0;
    return getloadavg(&load, 1) == 1 && load > processors;
}

std::string CPUModel() {
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line, implementer, part;
    auto value = [&] {
        const size_t start = line.find_first_not_of(" \t", std::min(line.find(':') + 1, line.size()));
        return start == std::string::npos ? std::string() : line.substr(start);
    };
    while (std::getline(cpuinfo, line)) {
        if (line.starts_with("model name"))
            return value();
        // ARM names its cores by number instead.
        if (line.starts_with("CPU implementer") && implementer.empty())
            implementer = value();
        if (line.starts_with("CPU part") && part.empty())
            part = value();
    }
    return implementer.empty() && part.empty() ? "unknown processor" : "ARM " + implementer + " " + part;
}

// The file names of the loaded encoder libraries: their sonames carry their build numbers.
std::string EncoderLibraries() {
    std::vector<std::string> names;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            const std::string name = std::filesystem::path(info->dlpi_name ? info->dlpi_name : "").filename();
            if (name.starts_with("libx264.so") || name.starts_with("libx265.so"))
                static_cast<std::vector<std::string>*>(data)->push_back(name);
            return 0;
        },
        &names);
    std::sort(names.begin(), names.end());
    std::string text;
    for (const std::string& name : names)
        text += "; " + name;
    return text;
}

std::optional<PresetSpeeds> SpeedsFromJSON(const json& object) {
    if (!object.is_object())
        return std::nullopt;
    PresetSpeeds speeds{};
    for (size_t i = 0; i < EncoderPresets.size(); ++i) {
        auto found = object.find(EncoderPresets[i]);
        if (found == object.end() || !found->is_number() || !(found->get<double>() >= 0))
            return std::nullopt;
        speeds[i] = found->get<double>();
    }
    return speeds;
}

std::string Describe(const PresetSpeeds& speeds) {
    std::string text;
    for (size_t i = 0; i < speeds.size(); ++i) {
        char number[32];
        std::snprintf(number, sizeof number, "%.1f", speeds[i] / 1e6);
        text += std::string(i ? ", " : "") + EncoderPresets[i] + " " + number;
    }
    return text + " Mpx/s";
}

} // namespace

PresetChoice ChoosePreset(const PresetSpeeds& speeds, double processors, double pixelsPerSecond) {
    const double capacity = std::max(processors, 1.0) * EncodingShare;
    // Measurements are noisy, so the fastest is whichever measured fastest.
    const double fastestCovers =
        *std::max_element(speeds.begin(), speeds.end()) * std::max(processors, 1.0) * FastestShare;
    for (size_t i = speeds.size(); i-- > 0;) {
        if (speeds[i] > 0 && speeds[i] * capacity >= pixelsPerSecond)
            return {EncoderPresets[i], true, fastestCovers};
    }
    return {EncoderPresets[0], fastestCovers >= pixelsPerSecond, fastestCovers};
}

std::string MachineSignature() {
    const unsigned version = avcodec_version();
    return CPUModel() + "; " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " processors; libavcodec " +
           std::to_string(AV_VERSION_MAJOR(version)) + "." + std::to_string(AV_VERSION_MINOR(version)) + "." +
           std::to_string(AV_VERSION_MICRO(version)) + EncoderLibraries() + "; measurement " +
           std::to_string(MeasurementVersion);
}

// The speeds this process measured, as they are remembered: another settings store of the same process
// (a command-line take, a test) takes them rather than measuring the same machine again.
namespace {
std::mutex MeasuredLock;
json Measured;
} // namespace

EncoderSpeed::EncoderSpeed(std::shared_ptr<SettingsStore> settings)
    : _settings(std::move(settings)), _processors(ProcessorCapacity()), _signature(MachineSignature()) {}

std::shared_ptr<EncoderSpeed> EncoderSpeed::make(std::shared_ptr<SettingsStore> settings) {
    std::shared_ptr<EncoderSpeed> speed(new EncoderSpeed(std::move(settings)));
    json measured;
    {
        std::lock_guard guard(MeasuredLock);
        measured = Measured;
    }
    // Takes the codecs that `remembered` has for this machine and the speed does not yet; answers
    // whether it took any.
    const auto take = [&speed](const json& remembered) {
        bool took = false;
        if (!remembered.is_object() || remembered.value("signature", json()) != speed->_signature)
            return took;
        for (size_t codec = 0; codec < speed->_speeds.size(); ++codec) {
            if (!speed->_speeds[codec]) {
                speed->_speeds[codec] = SpeedsFromJSON(remembered.value(NameOf(Codec(codec)), json()));
                speed->_remembered[codec] = speed->_speeds[codec].has_value();
                took = took || speed->_speeds[codec];
            }
        }
        return took;
    };
    if (std::optional<std::string> text = speed->_settings->stringForKey(SettingsKey))
        take(json::parse(*text, nullptr, /*allow_exceptions=*/false));
    // What this process measured is remembered in this store too.
    if (take(measured))
        (void)speed->_settings->setString(measured.dump(), SettingsKey);
    return speed;
}

EncoderSpeed::~EncoderSpeed() {
    _cancelled = true;
    if (_measurer.joinable())
        _measurer.join();
}

void EncoderSpeed::measureInBackground(std::vector<Codec> codecs) {
    std::lock_guard guard(_lock);
    if (_measurer.joinable())
        return;
    _measurer = std::thread([this, codecs = std::move(codecs)] {
        // Measured in processor time, which a lower priority does not change: the program's own work
        // (a window opening, a take starting) goes first.
        setpriority(PRIO_PROCESS, pid_t(gettid()), BackgroundNiceness);
        for (Codec codec : codecs) {
            if (!measuredSpeeds(codec))
                return;
        }
    });
}

PresetSpeeds EncoderSpeed::speeds(Codec codec) {
    return measuredSpeeds(codec).value_or(PresetSpeeds{});
}

std::optional<PresetSpeeds> EncoderSpeed::measuredSpeeds(Codec codec) {
    const size_t index = SpeedIndex(codec).value_or(0);
    // One measurement at a time: a second caller waits for the first's speeds rather than measuring
    // beside it, which would halve both.
    std::lock_guard measuring(_measuring);
    {
        std::lock_guard guard(_lock);
        if (_speeds[index])
            return *_speeds[index];
    }
    Log(LogPrefix, std::string("measuring ") + (index == 0 ? "libx264" : "libx265") + " on " + _signature);
    bool busy = IsBusy(_processors);
    const std::optional<PresetSpeeds> measured = MeasurePresetSpeeds(Codec(index), _cancelled);
    if (!measured)
        return std::nullopt;
    busy = busy || IsBusy(_processors);
    Log(LogPrefix, std::string(index == 0 ? "libx264" : "libx265") +
                       ", one processor: " + Describe(*measured) +
                       (busy ? " (on a busy machine: used now, measured again next time)" : ""));
    json remembered = {{"signature", _signature}};
    {
        std::lock_guard guard(_lock);
        _speeds[index] = measured;
        _remembered[index] = !busy;
        for (size_t other = 0; other < _speeds.size(); ++other) {
            if (!_speeds[other] || !_remembered[other])
                continue;
            json& entry = remembered[NameOf(Codec(other))];
            for (size_t i = 0; i < EncoderPresets.size(); ++i)
                entry[EncoderPresets[i]] = (*_speeds[other])[i];
        }
    }
    {
        std::lock_guard guard(MeasuredLock);
        Measured = remembered;
    }
    (void)_settings->setString(remembered.dump(), SettingsKey);
    return measured;
}

PresetChoice EncoderSpeed::presetFor(Codec codec, double pixelsPerSecond) {
    const std::optional<size_t> index = SpeedIndex(codec);
    if (!index)
        return {"", true};
    std::optional<PresetSpeeds> known;
    {
        std::lock_guard guard(_lock);
        known = _speeds[*index];
    }
    if (!known)
        return {EncoderPresets[0], true};
    return ChoosePreset(*known, _processors, pixelsPerSecond);
}

} // namespace quorva
