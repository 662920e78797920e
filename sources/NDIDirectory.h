#pragma once

#include "core/source/SourceDirectory.h"
#include "sources/NDILibrary.h"

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quorva {

// Keeps the list of NDI sources on the network current: a thread of its own asks the runtime's finder at
// least four times a second and notifies `changes`, on that thread, when the names or their order
// change. A change of address alone is kept without a notification.
class NDIFinder {
public:
    // Nothing when the runtime is not available or makes no finder. `changes` is kept as long as the
    // thread runs, so that a handler may let go of the finder's owner.
    static std::unique_ptr<NDIFinder> make(std::shared_ptr<const NDILibrary> library,
                                           std::shared_ptr<const ChangeNotifier> changes);
    ~NDIFinder();
    NDIFinder(const NDIFinder&) = delete;
    NDIFinder& operator=(const NDIFinder&) = delete;

    // The names in the runtime's order.
    std::vector<std::string> sourceNames() const;
    // The first source called `requested`, with its address (nothing when it has none).
    bool getName(std::string& name, std::optional<std::string>& url, const std::string& requested) const;
    // A source as the runtime reports it, as text: false when the name is missing or is not UTF-8, which
    // could not be shown, matched or sent over OSC. An address that is missing or not UTF-8 is none.
    static bool copyName(std::string& name, std::optional<std::string>& url, const char* sourceName,
                         const char* sourceUrl);

    // Ends the thread, which lets go of the runtime's finder; nothing is notified once it has returned.
    // From the change handler itself it returns at once and the thread ends after the handler.
    void stop();

    struct State;

private:
    NDIFinder(std::shared_ptr<State> state);

    const std::shared_ptr<State> _state;
    std::thread _thread;
};

// The NDI sources visible from this computer, each listed under its full network name, "HOST (Name)".
// Lists nothing, and starts no thread, where the runtime is not available.
class NDIDirectory final : public SourceDirectory {
public:
    explicit NDIDirectory(std::shared_ptr<const NDILibrary> library = NDILibrary::sharedLibrary());

    // Detail "NDI", kind NDI, in the runtime's order.
    std::vector<SourceDescription> availableSources() override;
    // A receiver for the source of this name, as listed now; nothing when it has gone or no receiver can
    // be made.
    std::shared_ptr<FrameSource>
    connectToSourceWithTitle(const std::string& title, const std::shared_ptr<PictureEngine>& engine) override;
    // Notified on the finder's thread.
    ChangeNotifier& changes() override { return *_changes; }

private:
    const std::shared_ptr<const NDILibrary> _library;
    const std::shared_ptr<ChangeNotifier> _changes = std::make_shared<ChangeNotifier>();
    // Last, so that it stops, and notifies no more, before the rest goes.
    const std::unique_ptr<NDIFinder> _finder;
};

} // namespace quorva
