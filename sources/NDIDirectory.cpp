#include "sources/NDIDirectory.h"

#include "platform/JoinThread.h"
#include "platform/Log.h"
#include "platform/UTF8.h"
#include "sources/NDISource.h"

#include <pthread.h>

namespace quorva {

namespace {

// How long the finder waits for news before it reads the list again.
constexpr uint32_t PollMilliseconds = 250;

} // namespace

struct NDIFinder::State {
    std::shared_ptr<const NDILibrary> library;
    std::shared_ptr<const ChangeNotifier> changes;
    void* find = nullptr; // the thread's alone, which destroys it on leaving

    mutable std::mutex lock; // guards what follows
    bool stopping = false;
    std::vector<std::string> names;
    std::vector<std::optional<std::string>> urls;

    void run() {
        pthread_setname_np(pthread_self(), "NDIFinder");
        const ndi::Functions& functions = *library->functions();
        for (;;) {
            {
                std::lock_guard guard(lock);
                if (stopping)
                    break;
            }
            // The list is read every turn whatever the wait says, so a missed wake-up costs one poll.
            functions.findWaitForSources(find, PollMilliseconds);
            uint32_t count = 0;
            const ndi::Source* sources = functions.findGetCurrentSources(find, &count);
            std::vector<std::string> newNames;
            std::vector<std::optional<std::string>> newUrls;
            for (uint32_t i = 0; sources && i < count; ++i) {
                std::string name;
                std::optional<std::string> url;
                if (!copyName(name, url, sources[i].name, sources[i].urlAddress))
                    continue;
                newNames.push_back(std::move(name));
                newUrls.push_back(std::move(url));
            }
            bool changed = false;
            {
                std::lock_guard guard(lock);
                if (stopping)
                    break;
                changed = newNames != names;
                names = std::move(newNames);
                urls = std::move(newUrls);
            }
            if (changed)
                changes->notify();
        }
        functions.findDestroy(find);
    }
};

std::unique_ptr<NDIFinder> NDIFinder::make(std::shared_ptr<const NDILibrary> library,
                                           std::shared_ptr<const ChangeNotifier> changes) {
    const ndi::Functions* functions = library->functions();
    if (!functions)
        return nullptr;
    const ndi::FindCreate settings;
    void* find = functions->findCreateV2(&settings);
    if (!find) {
        Log("NDI: ", "the runtime made no finder: no NDI sources are listed");
        return nullptr;
    }
    auto state = std::make_shared<State>();
    state->library = std::move(library);
    state->changes = std::move(changes);
    state->find = find;
    return std::unique_ptr<NDIFinder>(new NDIFinder(std::move(state)));
}

NDIFinder::NDIFinder(std::shared_ptr<State> state)
    : _state(std::move(state)), _thread([state = _state] { state->run(); }) {}

NDIFinder::~NDIFinder() {
    stop();
}

std::vector<std::string> NDIFinder::sourceNames() const {
    std::lock_guard guard(_state->lock);
    return _state->names;
}

bool NDIFinder::getName(std::string& name, std::optional<std::string>& url,
                        const std::string& requested) const {
    std::lock_guard guard(_state->lock);
    for (size_t i = 0; i < _state->names.size(); ++i) {
        if (_state->names[i] == requested) {
            name = _state->names[i];
            url = _state->urls[i];
            return true;
        }
    }
    name.clear();
    url.reset();
    return false;
}

bool NDIFinder::copyName(std::string& name, std::optional<std::string>& url, const char* sourceName,
                         const char* sourceUrl) {
    url.reset();
    if (!sourceName || !IsValidUTF8(sourceName)) {
        name.clear();
        return false;
    }
    name = sourceName;
    if (sourceUrl && IsValidUTF8(sourceUrl))
        url = sourceUrl;
    return true;
}

void NDIFinder::stop() {
    {
        std::lock_guard guard(_state->lock);
        _state->stopping = true;
        _state->names.clear();
        _state->urls.clear();
    }
    JoinUnlessSelf(_thread); // within one wait
}

NDIDirectory::NDIDirectory(std::shared_ptr<const NDILibrary> library)
    : _library(std::move(library)), _finder(NDIFinder::make(_library, _changes)) {}

std::vector<SourceDescription> NDIDirectory::availableSources() {
    std::vector<SourceDescription> sources;
    if (_finder) {
        for (std::string& name : _finder->sourceNames())
            sources.emplace_back(std::move(name), "NDI", SourceKindNDI);
    }
    return sources;
}

std::shared_ptr<FrameSource>
NDIDirectory::connectToSourceWithTitle(const std::string& title,
                                       const std::shared_ptr<PictureEngine>& engine) {
    std::string name;
    std::optional<std::string> url;
    if (!_finder || !_finder->getName(name, url, title))
        return nullptr;
    auto source = NDISource::make(title, name, url.value_or(""), _library, engine);
    if (!source) {
        Log("NDISource: ", source.error().message());
        return nullptr;
    }
    return source.value();
}

} // namespace quorva
