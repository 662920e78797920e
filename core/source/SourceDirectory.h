#pragma once

#include "core/source/FrameSource.h"
#include "core/source/SourceDescription.h"
#include "platform/PictureEngine.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quorva {

// Lists the sources that can be connected to now and connects to one by its title.
class SourceDirectory {
public:
    using ChangeHandler = std::function<void()>;

    virtual ~SourceDirectory() = default;

    virtual std::vector<SourceDescription> availableSources() = 0;
    // The source with exactly this title, its pictures handed over to `engine`; nothing when there is no such
    // source or the connection fails.
    virtual std::shared_ptr<FrameSource>
    connectToSourceWithTitle(const std::string& title, const std::shared_ptr<PictureEngine>& engine) = 0;

    // Called, on whichever thread the directory learns it, whenever the list may have changed. Stored
    // as a copy.
    virtual ChangeHandler changeHandler() const = 0;
    virtual void setChangeHandler(ChangeHandler handler) = 0;
};

} // namespace quorva
