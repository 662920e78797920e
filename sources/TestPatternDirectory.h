#pragma once

#include "core/source/SourceDirectory.h"
#include "sources/TestPatternSource.h"

#include <vector>

namespace quorva {

// The built-in test sources, so that a new user can record something at once and the tests and
// benchmarks have live sources that need no other program: "Test Pattern 1080p60", "Test Pattern
// 720p30" and "Test Pattern Alpha 1080p30" (clear background). The list never changes. With
// QUORVA_TEST_PATTERNS=small (for tests) they are a quarter of the size either way, and named after it
// ("Test Pattern 270p60", "Test Pattern 180p30", "Test Pattern Alpha 270p30").
class TestPatternDirectory final : public SourceDirectory {
public:
    static constexpr const char* SizeVariable = "QUORVA_TEST_PATTERNS";

    static const std::vector<TestPatternFormat>& formats();

    std::vector<SourceDescription> availableSources() override;
    // A new source on every call, each with its own thread; nothing (and the reason logged) when the
    // title is not one of the patterns or the pattern cannot be drawn.
    std::shared_ptr<FrameSource>
    connectToSourceWithTitle(const std::string& title, const std::shared_ptr<PictureEngine>& engine) override;
    // Never notified.
    ChangeNotifier& changes() override { return _changes; }

private:
    ChangeNotifier _changes;
};

} // namespace quorva
