#include "sources/CompositeDirectory.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace quorva {

CompositeDirectory::CompositeDirectory(std::vector<std::shared_ptr<SourceDirectory>> members)
    : _members(std::move(members)) {
    for (const auto& member : _members) {
        member->changes().setHandler([weak = std::weak_ptr<const ChangeNotifier>(_changes)] {
            if (auto changes = weak.lock())
                changes->notify();
        });
    }
}

std::vector<SourceDescription> CompositeDirectory::availableSources() {
    std::vector<SourceDescription> sources;
    for (const auto& member : _members) {
        auto offered = member->availableSources();
        sources.insert(sources.end(), std::make_move_iterator(offered.begin()),
                       std::make_move_iterator(offered.end()));
    }
    return sources;
}

std::shared_ptr<FrameSource>
CompositeDirectory::connectToSourceWithTitle(const std::string& title,
                                             const std::shared_ptr<PictureEngine>& engine) {
    for (const auto& member : _members) {
        // A member is asked only for a title it lists at this moment, so it never tries a connection
        // that belongs to another member.
        auto offered = member->availableSources();
        bool lists = std::any_of(offered.begin(), offered.end(),
                                 [&](const SourceDescription& source) { return source.title() == title; });
        if (!lists)
            continue;
        if (auto source = member->connectToSourceWithTitle(title, engine))
            return source;
    }
    return nullptr;
}

} // namespace quorva
