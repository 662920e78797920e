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

TEST(HeadlessEventLoop, RunsPostedTasksInOrderUntilStopped) {
    HeadlessEventLoop loop;
    std::vector<int> order;
    for (int i = 0; i < 5; ++i)
        loop.post([&, i] { order.push_back(i); });
    loop.post([&] { loop.stop(); });
    loop.post([&] { order.push_back(99); }); // after the stop: waits for the next run
    loop.run();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));

    loop.post([&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(order.back(), 99);
}

TEST(HeadlessEventLoop, AStopBeforeRunMakesTheNextRunReturnAtOnce) {
    HeadlessEventLoop loop;
    bool ran = false;
    loop.post([&] { ran = true; });
    loop.stop();
    loop.run();
    EXPECT_FALSE(ran);
    // The stop was used up: the next run goes on normally.
    EXPECT_TRUE(loop.runUntil([&] { return ran; }, 10));
}

TEST(HeadlessEventLoop, DelayedTasksWaitForTheirTimeAndRunInTimeOrder) {
    HeadlessEventLoop loop;
    std::vector<std::string> order;
    // Immediate tasks go before delayed ones posted earlier.
    loop.postAfter(3600, [&] { order.push_back("far"); });
    loop.post([&] { order.push_back("now"); });
    loop.postAfter(-1, [&] { order.push_back("negative delay"); });
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 2; }, 10));

    double start = MediaClock::now();
    double lateRanAt = 0;
    loop.postAfter(0.03, [&] { order.push_back("early"); });
    loop.postAfter(0.2, [&] {
        order.push_back("late");
        lateRanAt = MediaClock::now();
    });
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 4; }, 10));
    EXPECT_EQ(order, (std::vector<std::string>{"now", "negative delay", "early", "late"}));
    EXPECT_GE(lateRanAt - start, 0.2);
}

TEST(HeadlessEventLoop, RepeatingTimerTicksUntilCancelledFromItsOwnTick) {
    HeadlessEventLoop loop;
    int ticks = 0;
    TimerId timer = 0;
    double start = MediaClock::now();
    double thirdTickAt = 0;
    timer = loop.scheduleTimer(0.01, [&] {
        if (++ticks == 3) {
            thirdTickAt = MediaClock::now();
            loop.cancelTimer(timer);
        }
    });
    EXPECT_NE(timer, 0u);
    // Give a cancelled timer every chance to tick again.
    loop.postAfter(0.2, [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(ticks, 3);
    // Three intervals at least.
    EXPECT_GE(thirdTickAt - start, 0.03);
}

TEST(HeadlessEventLoop, CancelledOrUnknownTimersNeverTick) {
    HeadlessEventLoop loop;
    int ticks = 0;
    TimerId timer = loop.scheduleTimer(0.01, [&] { ++ticks; });
    TimerId other = loop.scheduleTimer(0.01, [&] { ++ticks; });
    EXPECT_NE(timer, other);
    loop.cancelTimer(timer);
    loop.cancelTimer(other);
    loop.cancelTimer(other); // twice
    loop.cancelTimer(12345); // never made
    loop.cancelTimer(0);     // never a timer
    loop.postAfter(0.1, [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(ticks, 0);
}

TEST(HeadlessEventLoop, TimersAndTasksShareOneTimeline) {
    HeadlessEventLoop loop;
    std::vector<std::string> order;
    // Scheduled in this order, the outcome does not depend on how fast these lines run.
    loop.postAfter(0.15, [&] { order.push_back("after"); });
    loop.postAfter(0.02, [&] { order.push_back("before"); });
    TimerId timer = loop.scheduleTimer(0.1, [&] { order.push_back("tick"); });
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 3; }, 10));
    loop.cancelTimer(timer);
    EXPECT_EQ(order, (std::vector<std::string>{"before", "tick", "after"}));
}

TEST(HeadlessEventLoop, RunUntilAnswersFalseWhenTimeRunsOut) {
    HeadlessEventLoop loop;
    double start = MediaClock::now();
    EXPECT_FALSE(loop.runUntil([] { return false; }, 0.05));
    EXPECT_GE(MediaClock::now() - start, 0.05);
    // A condition already true needs no task.
    EXPECT_TRUE(loop.runUntil([] { return true; }, 0));
}

TEST(HeadlessEventLoop, IsCurrentOnTheThreadThatRunsIt) {
    HeadlessEventLoop loop;
    EXPECT_TRUE(loop.isCurrent()); // made here, not yet run elsewhere
    bool fromTask = false;
    loop.post([&] { fromTask = loop.isCurrent(); });
    ASSERT_TRUE(loop.runUntil([&] { return fromTask; }, 10));

    bool fromOtherThread = true;
    std::thread([&] { fromOtherThread = loop.isCurrent(); }).join();
    EXPECT_FALSE(fromOtherThread);
}

TEST(HeadlessEventLoop, PendingTasksAreDroppedWithTheLoop) {
    auto captured = std::make_shared<int>(0);
    bool ran = false;
    {
        HeadlessEventLoop loop;
        loop.post([&ran, captured] { ran = true; });
        loop.postAfter(10, [&ran, captured] { ran = true; });
        EXPECT_EQ(captured.use_count(), 3);
    }
    EXPECT_FALSE(ran);
    EXPECT_EQ(captured.use_count(), 1); // nothing leaked
}

class MainLoopTest : public ::testing::Test {
protected:
    void TearDown() override {
        EventLoop::setMainLoop(nullptr);
        SetLogSink({});
    }
};

TEST_F(MainLoopTest, PostToMainReachesTheLoopThatWasSet) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    EXPECT_EQ(EventLoop::mainLoop(), loop);
    bool ran = false;
    EXPECT_TRUE(EventLoop::postToMain([&] { ran = true; }));
    EXPECT_TRUE(loop->runUntil([&] { return ran; }, 10));

    EventLoop::setMainLoop(nullptr);
    EXPECT_EQ(EventLoop::mainLoop(), nullptr);
}

TEST_F(MainLoopTest, PostToMainWithoutALoopDropsAndSaysSo) {
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) { lines.push_back(line); });
    bool ran = false;
    EXPECT_FALSE(EventLoop::postToMain([&] { ran = true; }));
    EXPECT_FALSE(ran);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("EventLoop: ", 0), 0u);
}

} // namespace
} // namespace quorva
