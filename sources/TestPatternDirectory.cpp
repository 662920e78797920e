#include "sources/TestPatternDirectory.h"

#include "platform/Log.h"

#include <cmath>

namespace quorva {

const std::vector<TestPatternFormat>& TestPatternDirectory::formats() {
    static const std::vector<TestPatternFormat> Formats = {
        {"Test Pattern 1080p60", 1920, 1080, 60, false},
        {"Test Pattern 720p30", 1280, 720, 30, false},
        {"Test Pattern Alpha 1080p30", 1920, 1080, 30, true},
    };
    return Formats;
}

std::vector<SourceDescription> TestPatternDirectory::availableSources() {
    std::vector<SourceDescription> sources;
    for (const auto& format : formats()) {
        std::string detail = std::to_string(format.width) + " \u00D7 " + std::to_string(format.height) +
                             ", " + std::to_string(std::lround(format.rate)) + " frames a second" +
                             (format.transparent ? ", transparent" : "") + ", 1 kHz tone";
        sources.emplace_back(format.title, std::move(detail), SourceKindPattern);
    }
    return sources;
}

std::shared_ptr<FrameSource>
TestPatternDirectory::connectToSourceWithTitle(const std::string& title,
                                               const std::shared_ptr<PictureEngine>& engine) {
    for (const auto& format : formats()) {
        if (format.title != title)
            continue;
        auto source = TestPatternSource::make(format, engine);
        if (!source) {
            Log("TestPattern: ", "could not connect to " + title + ": " + source.error().message());
            return nullptr;
        }
        return source.value();
    }
    return nullptr;
}

SourceDirectory::ChangeHandler TestPatternDirectory::changeHandler() const {
    std::lock_guard guard(_lock);
    return _changeHandler;
}

void TestPatternDirectory::setChangeHandler(ChangeHandler handler) {
    std::lock_guard guard(_lock);
    _changeHandler = std::move(handler);
}

} // namespace quorva
