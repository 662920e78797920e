#pragma once

#include "core/source/SourceDirectory.h"

#include <memory>
#include <mutex>
#include <vector>

namespace quorva {

// Several directories offered as one. The members' order is their precedence: the list is theirs one
// after the other, with nothing merged or sorted, and a title is connected by the first member that lists
// it and manages to connect. Must be made with std::make_shared: the callbacks it gives its members hold
// it only weakly, so that a member outliving it notifies no one.
class CompositeDirectory final : public SourceDirectory,
                                 public std::enable_shared_from_this<CompositeDirectory> {
public:
    // The members are kept as given; no handler is put on them until one is set here.
    explicit CompositeDirectory(std::vector<std::shared_ptr<SourceDirectory>> members);

    std::vector<SourceDescription> availableSources() override;
    std::shared_ptr<FrameSource>
    connectToSourceWithTitle(const std::string& title, const std::shared_ptr<PictureEngine>& engine) override;
    ChangeHandler changeHandler() const override;
    // Called on the thread of whichever member noticed the change.
    void setChangeHandler(ChangeHandler handler) override;

private:
    const std::vector<std::shared_ptr<SourceDirectory>> _members;
    mutable std::mutex _lock; // guards _changeHandler
    ChangeHandler _changeHandler;
};

} // namespace quorva
