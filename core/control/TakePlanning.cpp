#include "core/control/TakePlanning.h"

#include "core/source/SourceDescription.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <thread>

namespace quorva {

namespace {

// Whether places of this kind may bring sound: network and test sources do, desktop video streams
// (PipeWire, and any kind this program does not know) never do.
bool KindCarriesSound(int64_t kind) {
    return kind == SourceKindNDI || kind == SourceKindPattern;
}

// "QuorvaRecorder 2025-03-03 21.05.09", in local time. The numeric conversions of strftime ignore the
// user's locale, so the digits and the 24-hour clock are the same everywhere.
std::string TakeNameAt(std::time_t time) {
    std::tm parts{};
    localtime_r(&time, &parts);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H.%M.%S", &parts);
    return std::string("QuorvaRecorder ") + stamp;
}

// The pixels a second that one movie's encoder must keep up with. A source whose size is not known yet
// is taken to be 1080p, the common case.
double PixelsPerSecond(std::optional<Size> size, double rate) {
    const Size known = size.value_or(Size{1920, 1080});
    return known.width * known.height * rate;
}

// The rate of a movie whose source has said nothing of its own and sent nothing to measure, nor has the
// take a clock to follow.
constexpr double FallbackRate = 30;

} // namespace

double CommonRate(double measured) {
    static constexpr double Rates[] = {
        24000.0 / 1001, 24, 25, 30000.0 / 1001, 30, 48, 50, 60000.0 / 1001, 60, 90, 100, 120, 144, 240};
    if (!(measured > 0.5))
        return 0;
    double nearest = Rates[0];
    for (double rate : Rates)
        if (std::fabs(rate - measured) < std::fabs(nearest - measured))
            nearest = rate;
    return std::fabs(nearest - measured) <= 0.02 * nearest ? nearest : std::round(measured);
}

SoundRouting RouteSound(const Places& places, TakeOutput output, std::string_view sound) {
    const bool computerSound = sound == RecorderComputerSound;
    SoundRouting routing;
    for (size_t i = 0; i < places.size(); ++i) {
        const RecorderPlace& place = *places[i];
        const bool carries = place.kindKnown() && KindCarriesSound(place.kind());
        if (computerSound && output == TakeOutput::Separate ? carries : !place.kindKnown() || carries)
            routing.sources.insert(i);
    }
    if (!computerSound && !sound.empty()) {
        for (size_t i = 0; i < places.size(); ++i) {
            if (places[i]->title() == sound) {
                if (routing.sources.count(i))
                    routing.assembledIndex = i;
                break;
            }
        }
    }
    return routing;
}

double AssembledRateThatFits(double clockRate, double assembledPixels, double separatePixelsPerSecond,
                             double capacity) {
    double rate = clockRate;
    for (double divisor = 1; clockRate / divisor >= 1; ++divisor) {
        rate = clockRate / divisor;
        if (separatePixelsPerSecond + assembledPixels * rate <= capacity)
            break;
    }
    return rate;
}

PlannedTake PlanTake(const RecorderSettings& settings, const Places& places,
                     const std::shared_ptr<RecorderPlace>& clockPlace, EncoderSpeed* encoderSpeed) {
    PlannedTake planned;
    TakePlan& plan = planned.plan;
    for (const auto& place : places)
        plan.titles.push_back(place->title());
    plan.sizes = SizesOfPlaces(places);
    plan.output = settings.output();
    const int64_t gap = settings.integer(Setting::Gap);
    if (plan.output != TakeOutput::Separate) {
        planned.layout = std::make_shared<const Layout>(settings.layoutKind(), LayoutSizes(plan.sizes), gap,
                                                        settings.fittingSize());
        plan.assembledSize = planned.layout->size();
    }
    const std::string& sound = settings.text(Setting::Sound);
    const SoundRouting routing = RouteSound(places, plan.output, sound);
    plan.soundSources = routing.sources;
    plan.assembledSoundIndex = routing.assembledIndex;
    plan.computerSound = sound == RecorderComputerSound;
    const std::string& name = settings.text(Setting::Name);
    plan.name = name.empty() ? TakeNameAt(std::time(nullptr)) : name;
    plan.folder = settings.text(Setting::Folder);

    const double fps = settings.number(Setting::FPS);
    const auto rateOf = [fps](const std::shared_ptr<RecorderPlace>& place) {
        if (fps > 0)
            return fps;
        const auto source = place ? place->source() : nullptr;
        const double announced = source ? source->framesPerSecond() : 0;
        return announced > 0 ? announced : place ? CommonRate(place->fps()) : 0;
    };
    planned.clockRate = rateOf(clockPlace);
    if (planned.clockRate <= 0)
        planned.clockRate = FallbackRate;
    // A source that is not there yet follows the take's clock.
    for (const auto& place : places) {
        const double rate = rateOf(place);
        plan.framesPerSecond.push_back(rate > 0 ? rate : planned.clockRate);
    }

    MovieRecorderSettings& movie = plan.settings;
    movie.setCodec(settings.codec());
    movie.setFramesPerSecond(fps);
    movie.setMegabitsPerSecond(settings.number(Setting::Bitrate));
    const bool separate = plan.output != TakeOutput::Assembled;
    std::vector<double> pixels;
    double separateTotal = 0;
    if (separate) {
        for (size_t i = 0; i < places.size(); ++i) {
            pixels.push_back(PixelsPerSecond(plan.sizes[i], plan.framesPerSecond[i]));
            separateTotal += pixels.back();
        }
    }
    planned.assembledRate = planned.clockRate;
    const auto assembledPixelsAt = [&](double rate) {
        return planned.layout ? PixelsPerSecond(plan.assembledSize, rate) : 0;
    };
    if (encoderSpeed) {
        planned.preset =
            encoderSpeed->presetFor(movie.codec(), separateTotal + assembledPixelsAt(planned.clockRate));
        if (!planned.preset.keepsUp && fps <= 0 && planned.layout && planned.preset.fastestCovers > 0) {
            planned.assembledRate = AssembledRateThatFits(planned.clockRate, assembledPixelsAt(1),
                                                          separateTotal, planned.preset.fastestCovers);
            planned.preset = encoderSpeed->presetFor(
                movie.codec(), separateTotal + assembledPixelsAt(planned.assembledRate));
        }
    }
    // The assembled movie keeps to the rate planned for it, whichever place drives it later.
    plan.assembledFramesPerSecond = planned.assembledRate;
    movie.setEncoderPreset(planned.preset.preset);
    const double assembledPixels = assembledPixelsAt(planned.assembledRate);
    const double total = separateTotal + assembledPixels;
    // The take's encoders run side by side: each gets the share of the processors that its pixels are
    // of the take's, rounded up. More threads than that cost memory (a picture each) and time spent
    // waiting on one another, and fewer leave a large assembled movie to one processor that cannot
    // keep up with it alone while the small movies' encoders idle.
    const double processors = std::max(1u, std::thread::hardware_concurrency());
    const auto threadsFor = [&](double moviePixels) {
        // Less than a millionth over a whole processor is rounding, not a reason for another thread.
        return std::max<int64_t>(1, int64_t(std::ceil(processors * moviePixels / total - 1e-6)));
    };
    for (double p : pixels)
        plan.encoderThreads.push_back(threadsFor(p));
    if (planned.layout)
        plan.assembledEncoderThreads = threadsFor(assembledPixels);
    return planned;
}

} // namespace quorva
