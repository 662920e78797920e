#pragma once

#include "core/composition/RecorderPlace.h"
#include "core/source/SourceDescription.h"
#include "core/source/SourceDirectory.h"

#include <functional>
#include <memory>
#include <vector>

namespace quorva {

class PictureEngine;
class Take;

// Keeps the places connected to their sources. A place connects as soon as the directory offers its
// title and lets go of its source when the title leaves the list. A place is also checked from time to
// time: one without a source every 2 seconds; one whose source stays silent at 2, 4, 8 and 16 seconds,
// then every 30, as long as it stays silent; and one whose source died is connected again.
//
// Main thread only. The handlers that it installs run on each source's own thread: they keep the
// place's latest picture, hand pictures and sound to the take when the place records, and tell
// `pictureArrived` of every picture.
class PlaceConnections {
public:
    using PictureArrived = std::function<void(const std::shared_ptr<RecorderPlace>& place, double time)>;

    // The take is the one that every recording reuses, so that handlers installed before a recording
    // route into it without being installed again.
    PlaceConnections(std::shared_ptr<SourceDirectory> directory, std::shared_ptr<PictureEngine> engine,
                     std::shared_ptr<Take> take, PictureArrived pictureArrived);

    // The directory's list, each title once (its first description wins), in its order.
    static std::vector<SourceDescription> sourcesOf(SourceDirectory& directory);
    // Lets go of the sources whose titles `offered` no longer lists, and connects the places without a
    // source whose titles it does.
    void connectPlaces(const Places& places, const std::vector<SourceDescription>& offered) const;
    // Connects one place to the source of its title, if the directory has one. The attempt counts as a
    // check, whether or not it succeeds.
    void connectPlace(const std::shared_ptr<RecorderPlace>& place) const;
    // Measures every place at `now`, then checks those whose time has come.
    void checkPlaces(const Places& places, double now) const;

private:
    const std::shared_ptr<SourceDirectory> _directory;
    const std::shared_ptr<PictureEngine> _engine;
    const std::shared_ptr<Take> _take;
    const PictureArrived _pictureArrived;
};

} // namespace quorva
