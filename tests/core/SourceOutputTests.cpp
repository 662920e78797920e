#include "core/source/SourceOutput.h"
#include "platform/Semaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace quorva {
namespace {

// The promise that the controller relies on when it lets go of a source: once a handler is replaced on
// another thread, its call under way has ended and no later picture reaches it.
TEST(SourceOutputTest, AHandlerReplacedOnAnotherThreadIsNotRunningOnceTheSetterReturns) {
    SourceOutput output;
    Semaphore entered;
    std::atomic<bool> finished = false;
    std::atomic<int> calls = 0;
    output.setFrameHandler([&](const std::shared_ptr<Picture>&) {
        if (++calls == 1) {
            entered.signal();
            // Long enough that the setter, if it did not wait, would return first.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            finished = true;
        }
    });
    std::thread source([&] { output.deliverFrame(nullptr); });
    ASSERT_TRUE(entered.wait(10));
    output.setFrameHandler(nullptr);
    EXPECT_TRUE(finished);
    EXPECT_FALSE(output.wantsFrames());
    source.join();
    output.deliverFrame(nullptr);
    EXPECT_EQ(calls, 1);
}

// A handler may close its own output from inside its call: it finishes, and nothing is taken after.
TEST(SourceOutputTest, AHandlerThatClosesItsOutputFinishesAndLaterHandlersAreRefused) {
    SourceOutput output;
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> watch = held;
    int sounds = 0;
    output.setSoundHandler([&, held = std::move(held)](const std::shared_ptr<SourceSound>&) {
        output.close();
        ++*held; // still there: the call keeps its handler until it returns
        ++sounds;
    });
    output.deliverSound(nullptr);
    EXPECT_TRUE(watch.expired());
    output.setSoundHandler([&](const std::shared_ptr<SourceSound>&) { ++sounds; });
    output.deliverSound(nullptr);
    EXPECT_EQ(sounds, 1);
}

} // namespace
} // namespace quorva
