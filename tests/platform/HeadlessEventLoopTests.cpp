#include "platform/HeadlessEventLoop.h"

#include "platform/Log.h"
#include "platform/MediaClock.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace quorva {
namespace {

TEST(HeadlessEventLoop, RunsTasksInOrderOnItsThreadUntilStoppedAndDropsWhatIsLeftWithItself) {
    auto captured = std::make_shared<int>(0);
    bool dropped = false;
    {
        HeadlessEventLoop loop;
        EXPECT_TRUE(loop.isCurrent()); // made here, not yet run elsewhere
        std::vector<int> order;
        bool onLoop = false, fromOtherThread = true;
        for (int i = 0; i < 5; ++i)
            loop.post([&, i] { order.push_back(i); });
        loop.post([&] {
            onLoop = loop.isCurrent();
            loop.stop();
        });
        loop.post([&] { order.push_back(99); }); // after the stop: waits for the next run
        loop.run();
        EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
        EXPECT_TRUE(onLoop);
        std::thread([&] { fromOtherThread = loop.isCurrent(); }).join();
        EXPECT_FALSE(fromOtherThread);

        loop.stop();
        loop.run();
        EXPECT_EQ(order.size(), 5u) << "a stop before the run ends it before any task";
        // The stop was used up: the next run goes on normally.
        EXPECT_TRUE(loop.runUntil([&] { return order.size() == 6; }, 10));
        EXPECT_EQ(order.back(), 99);

        loop.post([&dropped, captured] { dropped = true; });
        loop.postAfter(10, [&dropped, captured] { dropped = true; });
    }
    EXPECT_FALSE(dropped);
    EXPECT_EQ(captured.use_count(), 1); // nothing leaked
}

TEST(HeadlessEventLoop, DelayedTasksAndTimersShareOneTimeline) {
    HeadlessEventLoop loop;
    std::vector<std::string> order;
    // Immediate tasks go before delayed ones posted earlier; a far one holds nothing up.
    loop.postAfter(3600, [&] { order.push_back("far"); });
    loop.post([&] { order.push_back("now"); });
    loop.postAfter(-1, [&] { order.push_back("negative delay"); });
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 2; }, 10));

    // Scheduled in this order, the outcome does not depend on how fast these lines run.
    double start = MediaClock::now(), afterRanAt = 0;
    loop.postAfter(0.15, [&] {
        order.push_back("after");
        afterRanAt = MediaClock::now();
    });
    loop.postAfter(0.02, [&] { order.push_back("before"); });
    TimerId timer = loop.scheduleTimer(0.1, [&] { order.push_back("tick"); });
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 5; }, 10));
    loop.cancelTimer(timer);
    EXPECT_EQ(order, (std::vector<std::string>{"now", "negative delay", "before", "tick", "after"}));
    EXPECT_GE(afterRanAt - start, 0.15);
}

TEST(HeadlessEventLoop, TimersTickUntilCancelledEvenFromTheirOwnTickAndUnknownOnesAreIgnored) {
    HeadlessEventLoop loop;
    int ticks = 0, cancelledTicks = 0;
    double start = MediaClock::now(), thirdTickAt = 0;
    TimerId timer = loop.scheduleTimer(0.01, [&] {
        if (++ticks == 3) {
            thirdTickAt = MediaClock::now();
            loop.cancelTimer(timer);
        }
    });
    TimerId cancelled = loop.scheduleTimer(0.01, [&] { ++cancelledTicks; });
    // Had the first timer the id 0 or the second one's, these would stop it too.
    loop.cancelTimer(cancelled);
    loop.cancelTimer(cancelled); // twice
    loop.cancelTimer(12345);     // never made
    loop.cancelTimer(0);         // never a timer
    // Give a cancelled timer every chance to tick again.
    loop.postAfter(0.2, [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(ticks, 3);
    EXPECT_EQ(cancelledTicks, 0);
    EXPECT_GE(thirdTickAt - start, 0.03) << "three intervals at least";
}

TEST(HeadlessEventLoop, PostToMainReachesTheLoopThatWasSetAndWithoutOneDropsAndSaysSo) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    bool ran = false;
    EXPECT_TRUE(EventLoop::postToMain([&] { ran = true; }));
    EXPECT_TRUE(loop->runUntil([&] { return ran; }, 10));

    EventLoop::setMainLoop(nullptr);
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) { lines.push_back(line); });
    ran = false;
    EXPECT_FALSE(EventLoop::postToMain([&] { ran = true; }));
    SetLogSink({});
    double start = MediaClock::now();
    EXPECT_FALSE(loop->runUntil([&] { return ran; }, 0.05)) << "dropped";
    EXPECT_GE(MediaClock::now() - start, 0.05) << "run until the time runs out";
    EXPECT_TRUE(loop->runUntil([] { return true; }, 0)) << "a condition already true needs no task";
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("EventLoop: ", 0), 0u);
}

} // namespace
} // namespace quorva
