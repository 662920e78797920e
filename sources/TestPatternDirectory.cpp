#include "sources/TestPatternDirectory.h"

#include "platform/Log.h"

#include <cmath>
#include <cstdlib>
#include <string_view>

namespace quorva {

namespace {

// "Test Pattern 1080p60", "Test Pattern Alpha 1080p30".
TestPatternFormat Format(uint32_t width, uint32_t height, double rate, bool transparent) {
    return {std::string("Test Pattern ") + (transparent ? "Alpha " : "") + std::to_string(height) + "p" +
                std::to_string(std::lround(rate)),
            width, height, rate, transparent};
}

std::vector<TestPatternFormat> Formats() {
    // A quarter of the size each way for the tests, whose takes must keep every picture on any machine
    // however slow or busy, so that what they count does not depend on its speed.
    const char* size = std::getenv(TestPatternDirectory::SizeVariable);
    const uint32_t divisor = size && std::string_view(size) == "small" ? 4 : 1;
    return {Format(1920 / divisor, 1080 / divisor, 60, false),
            Format(1280 / divisor, 720 / divisor, 30, false),
            Format(1920 / divisor, 1080 / divisor, 30, true)};
}

} // namespace

const std::vector<TestPatternFormat>& TestPatternDirectory::formats() {
    static const std::vector<TestPatternFormat> Formats = quorva::Formats();
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

} // namespace quorva
