#include "core/control/DiskSpace.h"

#include "core/movie/MovieWriter.h"

#include <algorithm>
#include <cmath>
#include <sys/statvfs.h>

namespace quorva {

namespace {

constexpr double DefaultWidth = 1920, DefaultHeight = 1080, DefaultRate = 30;
// Bits per pixel of Apple's ProRes 422 (147 Mb/s at 1080p29.97) and ProRes 4444 (330 Mb/s).
constexpr double ProRes422Bits = 2.37, ProRes4444Bits = 5.3;
// Sound: AAC at 256 kb/s beside H.264 and HEVC, 24-bit stereo PCM at 48 kHz beside ProRes.
constexpr double AACBytes = 256000 / 8.0, PCMBytes = 48000 * 2 * 3.0;
// The fragment being gathered (a second of pictures), what the encoders and the sound queue still hold,
// and a fragment that lands between two looks at the disk.
constexpr double SecondsHeldBack = 2;
// The standard header lists every sample: a few words each, at up to 60 pictures a second and 47 sound
// packets, rounded up.
constexpr double HeaderBytesPerSecond = 1024;
// The report beside the movies: a small picture of each and its text.
constexpr uint64_t ReportBytes = 256 * 1024;
constexpr uint64_t Margin = 1024 * 1024;

} // namespace

std::optional<uint64_t> FreeBytes(const std::filesystem::path& folder) {
    struct statvfs disk {};
    if (::statvfs(folder.c_str(), &disk) != 0)
        return std::nullopt;
    return uint64_t(disk.f_bavail) * uint64_t(disk.f_frsize);
}

double EstimatedBytesPerSecond(Codec codec, double width, double height, double framesPerSecond,
                               double megabitsPerSecond, bool recordsSound) {
    if (!(width >= 2 && height >= 2)) {
        width = DefaultWidth;
        height = DefaultHeight;
    }
    if (!(framesPerSecond > 0))
        framesPerSecond = DefaultRate;
    const bool proRes = codec == Codec::ProRes422 || codec == Codec::ProRes4444;
    double pictures = 0;
    if (proRes)
        pictures = width * height * framesPerSecond *
                   (codec == Codec::ProRes422 ? ProRes422Bits : ProRes4444Bits) / 8;
    else
        pictures =
            double(MovieBitRate(codec, int64_t(width), int64_t(height), framesPerSecond, megabitsPerSecond)) /
            8;
    return pictures + (recordsSound ? (proRes ? PCMBytes : AACBytes) : 0);
}

double EstimatedBytesPerSecond(const PlannedTake& planned) {
    const TakePlan& plan = planned.plan;
    const MovieRecorderSettings& settings = plan.settings;
    const Codec codec = settings.codec();
    double bytes = 0;
    if (plan.output != TakeOutput::Assembled) {
        for (size_t i = 0; i < plan.titles.size(); ++i) {
            // A size not known yet is 0 × 0, which the estimate counts as 1080p.
            const Size size = i < plan.sizes.size() ? plan.sizes[i].value_or(Size{}) : Size{};
            const double rate = i < plan.framesPerSecond.size() ? plan.framesPerSecond[i] : 0;
            const bool sound =
                plan.soundSources.count(i) > 0 || (plan.computerSound && plan.output == TakeOutput::Separate);
            bytes += EstimatedBytesPerSecond(codec, size.width, size.height,
                                             rate > 0 ? rate : settings.framesPerSecond(),
                                             settings.megabitsPerSecond(), sound);
        }
    }
    if (plan.output != TakeOutput::Separate && !plan.titles.empty())
        bytes += EstimatedBytesPerSecond(codec, plan.assembledSize.width, plan.assembledSize.height,
                                         planned.assembledRate, settings.megabitsPerSecond(),
                                         plan.computerSound || plan.assembledSoundIndex != NoIndex);
    if (bytes <= 0)
        bytes = EstimatedBytesPerSecond(codec, 0, 0, settings.framesPerSecond(), settings.megabitsPerSecond(),
                                        false);
    return bytes;
}

uint64_t BytesToFinish(double bytesPerSecond, double elapsed, size_t movies) {
    const double rate = std::max(bytesPerSecond, 0.0), seconds = std::max(elapsed, 0.0);
    const double count = double(std::max<size_t>(movies, 1));
    return uint64_t(rate * SecondsHeldBack + seconds * HeaderBytesPerSecond * count) +
           ReportBytes * uint64_t(count) + Margin;
}

double MinutesLeft(uint64_t freeBytes, double bytesPerSecond, double elapsed, size_t movies) {
    const uint64_t reserved = BytesToFinish(bytesPerSecond, elapsed, movies);
    if (freeBytes <= reserved || !(bytesPerSecond > 0))
        return 0;
    return double(freeBytes - reserved) / bytesPerSecond / 60;
}

} // namespace quorva
