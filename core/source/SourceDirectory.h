#pragma once

#include "core/source/ChangeNotifier.h"
#include "core/source/FrameSource.h"
#include "core/source/SourceDescription.h"
#include "platform/PictureEngine.h"

#include <memory>
#include <string>
#include <vector>

namespace quorva {

// Lists the sources that can be connected to now and connects to one by its title.
//
// Threads: listing and connecting happen on one thread at a time, never on a thread of the directory's
// own (where PipeWire's callbacks run, say), and they block: a listing may wait for a daemon's first
// answer (up to two seconds), a connection until the source is linked (up to a second per attempt). The
// program does both on its main thread. The change handler runs on whichever thread the directory learns
// of a change: a handler that touches the places posts to the main thread.
class SourceDirectory {
public:
    virtual ~SourceDirectory() = default;

    virtual std::vector<SourceDescription> availableSources() = 0;
    // The source with exactly this title, its pictures handed over to `engine`; nothing when there is no such
    // source or the connection fails.
    virtual std::shared_ptr<FrameSource>
    connectToSourceWithTitle(const std::string& title, const std::shared_ptr<PictureEngine>& engine) = 0;

    // Notified whenever the list may have changed; the same for the directory's whole life.
    virtual ChangeNotifier& changes() = 0;
};

} // namespace quorva
