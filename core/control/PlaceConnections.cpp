#include "core/control/PlaceConnections.h"

#include "core/movie/Take.h"
#include "platform/MediaClock.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace quorva {

namespace {

// A place without a source is tried again this often; a silent one is checked at twice this, doubled
// with every silent check, up to the longest interval.
constexpr double CheckInterval = 2;
constexpr double LongestCheckInterval = 30;
constexpr uint64_t MostCheckDoublings = 8;

std::set<std::string> TitlesOf(const std::vector<SourceDescription>& sources) {
    std::set<std::string> titles;
    for (const auto& description : sources)
        titles.insert(description.title());
    return titles;
}

} // namespace

PlaceConnections::PlaceConnections(std::shared_ptr<SourceDirectory> directory,
                                   std::shared_ptr<PictureEngine> engine, std::shared_ptr<Take> take,
                                   PictureArrived pictureArrived)
    : _directory(std::move(directory)), _engine(std::move(engine)), _take(std::move(take)),
      _pictureArrived(std::move(pictureArrived)) {}

std::vector<SourceDescription> PlaceConnections::sourcesOf(SourceDirectory& directory) {
    std::vector<SourceDescription> sources;
    std::set<std::string> seen;
    for (auto& description : directory.availableSources()) {
        if (seen.insert(description.title()).second)
            sources.push_back(std::move(description));
    }
    return sources;
}

void PlaceConnections::connectPlaces(const Places& places,
                                     const std::vector<SourceDescription>& offered) const {
    const std::set<std::string> titles = TitlesOf(offered);
    for (const auto& place : places) {
        auto source = place->source();
        if (source && !titles.count(source->title()))
            place->letGoOfSource();
        else if (!source && titles.count(place->title()))
            connectPlace(place);
    }
}

void PlaceConnections::connectPlace(const std::shared_ptr<RecorderPlace>& place) const {
    place->setCheckTime(MediaClock::now());
    auto source = _directory->connectToSourceWithTitle(place->title(), _engine);
    if (!source)
        return;
    place->setKind(source->kind());
    place->setKindKnown(true);
    // Read once: a source does not turn over while connected.
    bool flipped = source->flipped();

    std::weak_ptr<RecorderPlace> weakPlace = place;
    source->output().setFrameHandler([weakPlace, take = _take, flipped,
                                      arrived = _pictureArrived](const std::shared_ptr<Picture>& picture) {
        double time = MediaClock::now();
        auto place = weakPlace.lock();
        if (!place)
            return;
        // While a take runs, the index names this place among its sources; between takes it is NoIndex,
        // which the take ignores.
        take->appendPicture(picture, flipped, place->receivedFrame(picture, flipped, time), time);
        arrived(place, time);
    });
    source->output().setSoundHandler([weakPlace, take = _take](const std::shared_ptr<SourceSound>& sound) {
        double time = MediaClock::now();
        auto place = weakPlace.lock();
        if (!place)
            return;
        place->soundLevels().measure(*sound, time);
        take->appendSound(sound, place->receivedSoundAtTime(time), time);
    });
    place->setSource(std::move(source));
}

void PlaceConnections::checkPlaces(const Places& places, double now) const {
    for (const auto& place : places) {
        place->measureAtTime(now);
        const double lastFrame = place->lastFrameTime();
        if (lastFrame > place->checkTime())
            place->setSilentChecks(0);
        const auto source = place->source();
        const double interval =
            source ? std::min(CheckInterval *
                                  std::exp2(double(std::min(place->silentChecks(), MostCheckDoublings))),
                              LongestCheckInterval)
                   : CheckInterval;
        if (now - std::max(place->checkTime(), lastFrame) <= interval)
            continue;
        if (!source) {
            connectPlace(place);
        } else if (source->isAlive()) {
            place->setCheckTime(now);
            place->setSilentChecks(place->silentChecks() + 1);
        } else {
            place->letGoOfSource();
            connectPlace(place);
            if (place->source())
                place->setSilentChecks(place->silentChecks() + 1);
        }
    }
}

} // namespace quorva
