#include "platform/HeadlessEventLoop.h"

#include "platform/SerialQueue.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace quorva {
namespace {

TEST(EventLoopConcurrency, TasksPostedFromManyThreadsAllRunOnTheLoopInEachThreadsOrder) {
    HeadlessEventLoop loop;
    constexpr int producers = 4, each = 1000;
    std::vector<std::vector<int>> seen(producers);
    std::atomic<bool> allOnLoop = true;
    std::atomic<int> finishedProducers = 0;
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < each; ++i)
                loop.post([&, p, i] {
                    allOnLoop = allOnLoop && loop.isCurrent();
                    seen[p].push_back(i);
                });
            if (++finishedProducers == producers)
                loop.post([&] { loop.stop(); });
        });
    loop.run();
    for (auto& thread : threads)
        thread.join();
    EXPECT_TRUE(allOnLoop);
    for (int p = 0; p < producers; ++p) {
        ASSERT_EQ(seen[p].size(), size_t(each));
        for (int i = 0; i < each; ++i)
            ASSERT_EQ(seen[p][i], i);
    }
}

TEST(EventLoopConcurrency, StopFromAnotherThreadEndsRunEvenWhenIdle) {
    HeadlessEventLoop loop;
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        loop.stop();
    });
    loop.run(); // returns whether the stop came before or during the run
    stopper.join();
}

TEST(EventLoopConcurrency, ALoopMayRunOnAThreadOfItsOwn) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    std::thread runner([loop] { loop->run(); });
    std::atomic<bool> onRunner = false;
    SerialQueue queue("poster");
    queue.sync([&] {
        loop->post([&] {
            onRunner = loop->isCurrent();
            loop->stop();
        });
    });
    runner.join();
    EXPECT_TRUE(onRunner);
    EXPECT_FALSE(loop->isCurrent());
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

TEST(EventLoopConcurrency, CompletionsFromQueuesArriveOnTheMainLoop) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    std::vector<std::unique_ptr<SerialQueue>> queues;
    for (int i = 0; i < 3; ++i)
        queues.push_back(std::make_unique<SerialQueue>("worker"));
    int delivered = 0; // touched only on the main loop, so no lock
    std::atomic<bool> allOnLoop = true;
    for (auto& queue : queues)
        for (int i = 0; i < 100; ++i)
            queue->post([&] {
                EventLoop::postToMain([&] {
                    allOnLoop = allOnLoop && loop->isCurrent();
                    ++delivered;
                });
            });
    EXPECT_TRUE(loop->runUntil([&] { return delivered == 300; }, 60));
    EXPECT_TRUE(allOnLoop);
    queues.clear();
    EventLoop::setMainLoop(nullptr);
}

} // namespace
} // namespace quorva
