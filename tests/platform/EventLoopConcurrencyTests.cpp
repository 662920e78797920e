#include "platform/HeadlessEventLoop.h"

#include "platform/SerialQueue.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace quorva {
namespace {

// A loop run on a thread of its own and stopped from another is how the network tests run their main
// loop (tests/remote/NetworkTesting.h), with the handlers they check on it.
TEST(EventLoopConcurrency, TasksPostedToMainFromManyQueuesAllRunOnTheLoopInEachQueuesOrder) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    constexpr int producers = 4, each = 1000;
    std::vector<std::vector<int>> seen(producers); // touched only on the loop, so no lock
    bool allOnLoop = true;
    size_t delivered = 0;
    {
        std::vector<std::unique_ptr<SerialQueue>> queues;
        for (int p = 0; p < producers; ++p) {
            queues.push_back(std::make_unique<SerialQueue>("worker"));
            for (int i = 0; i < each; ++i)
                queues.back()->post([&, p, i] {
                    EventLoop::postToMain([&, p, i] {
                        allOnLoop = allOnLoop && loop->isCurrent();
                        seen[p].push_back(i);
                        ++delivered;
                    });
                });
        }
        EXPECT_TRUE(loop->runUntil([&] { return delivered == producers * each; }, 60));
    }
    EventLoop::setMainLoop(nullptr);
    EXPECT_TRUE(allOnLoop);
    for (int p = 0; p < producers; ++p) {
        ASSERT_EQ(seen[p].size(), size_t(each));
        for (int i = 0; i < each; ++i)
            ASSERT_EQ(seen[p][i], i);
    }
}

TEST(EventLoopConcurrency, TimersCancelledFromAnotherThreadStopTicking) {
    HeadlessEventLoop loop;
    std::atomic<int> ticks = 0;
    TimerId timer = loop.scheduleTimer(0.001, [&] { ++ticks; });
    std::atomic<int> ticksAtCancel = -1;
    std::thread canceller([&] {
        while (ticks < 5)
            std::this_thread::yield();
        loop.cancelTimer(timer);
        ticksAtCancel = ticks.load();
        // Long enough for a stray tick to show.
        loop.postAfter(0.05, [&] { loop.stop(); });
    });
    loop.run();
    canceller.join();
    // A tick the loop had already begun may still land; nothing after it.
    EXPECT_LE(ticks, ticksAtCancel + 1);
}

} // namespace
} // namespace quorva
