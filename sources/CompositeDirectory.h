#pragma once

#include "core/source/SourceDirectory.h"

#include <memory>
#include <vector>

namespace quorva {

// Several directories offered as one. The members' order is their precedence: the list is theirs one
// after the other, with nothing merged or sorted, and a title is connected by the first member that lists
// it and manages to connect. A member's change is passed on as this directory's.
class CompositeDirectory final : public SourceDirectory {
public:
    // Takes over the members' change handlers. Their handlers hold this directory's notifier only weakly,
    // so that a member outliving it notifies no one.
    explicit CompositeDirectory(std::vector<std::shared_ptr<SourceDirectory>> members);

    std::vector<SourceDescription> availableSources() override;
    std::shared_ptr<FrameSource>
    connectToSourceWithTitle(const std::string& title, const std::shared_ptr<PictureEngine>& engine) override;
    // Notified on the thread of whichever member noticed the change.
    ChangeNotifier& changes() override { return *_changes; }

private:
    const std::vector<std::shared_ptr<SourceDirectory>> _members;
    const std::shared_ptr<ChangeNotifier> _changes = std::make_shared<ChangeNotifier>();
};

} // namespace quorva
