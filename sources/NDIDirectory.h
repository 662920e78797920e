#pragma once

#include "core/source/SourceDirectory.h"
#include "sources/NDILibrary.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quorva {

// Keeps the list of NDI sources on the network current: a thread of its own asks the runtime's finder at
// least four times a second and calls the change handler, on that thread, when the names or their order
// change. A change of address alone is kept without a call.
class NDIFinder {
public:
    using ChangeHandler = std::function<void()>;

    // Nothing when the runtime is not available or makes no finder.
    static std::unique_ptr<NDIFinder> make(std::shared_ptr<const NDILibrary> library);
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

    ChangeHandler changeHandler() const;
    void setChangeHandler(ChangeHandler handler);
    // Ends the thread, which lets go of the runtime's finder; no handler is called once it has returned.
    // From the handler itself it returns at once and the thread ends after the handler.
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
    // Called on the finder's thread.
    ChangeHandler changeHandler() const override;
    void setChangeHandler(ChangeHandler handler) override;

private:
    const std::shared_ptr<const NDILibrary> _library;
    mutable std::mutex _lock; // guards _changeHandler
    ChangeHandler _changeHandler;
    // Last, so that it stops, and calls the handler no more, before the rest goes.
    const std::unique_ptr<NDIFinder> _finder;
};

} // namespace quorva
