#include "platform/SerialQueue.h"

#include "platform/MediaClock.h"
#include "platform/Semaphore.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace quorva {
namespace {

TEST(SerialQueue, LabelAndThreadNameComeFromTheSuffix) {
    SerialQueue queue("oscquery.connections");
    std::string name;
    queue.sync([&] {
        char buffer[16] = {};
        pthread_getname_np(pthread_self(), buffer, sizeof buffer);
        name = buffer;
    });
    EXPECT_EQ(name, "oscquery.connec"); // the kernel keeps 15 characters

    EXPECT_EQ(SerialQueue::ThreadName("org.quorva.QuorvaRecorder."), "queue");
    EXPECT_EQ(SerialQueue::ThreadName("elsewhere.long-label-here"), "elsewhere.long-");
}

TEST(SerialQueue, RunsTasksFromManyThreadsOnItsOwnThreadOneAtATimeInEachOnesOrder) {
    SerialQueue queue("test");
    constexpr int producers = 4, each = 1000;
    std::vector<std::vector<int>> seen(producers);
    std::atomic<int> inside = 0, mostInside = 0;
    std::atomic<bool> allOnQueue = true;
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < each; ++i)
                queue.post([&, p, i] {
                    mostInside = std::max(mostInside.load(), ++inside);
                    allOnQueue = allOnQueue && queue.isCurrent();
                    seen[p].push_back(i);
                    --inside;
                });
        });
    for (auto& thread : threads)
        thread.join();
    queue.sync([] {});
    for (int p = 0; p < producers; ++p) {
        ASSERT_EQ(seen[p].size(), size_t(each));
        for (int i = 0; i < each; ++i)
            ASSERT_EQ(seen[p][i], i);
    }
    EXPECT_EQ(mostInside, 1);
    EXPECT_TRUE(allOnQueue);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(SerialQueue, SyncWaitsForItsTaskAndRunsInPlaceOnTheQueueItself) {
    SerialQueue queue("test");
    int value = 0;
    queue.post([&] { value = 1; });
    queue.sync([&] {
        value *= 10;                     // after the task posted before it
        queue.sync([&] { value += 2; }); // from one of its own tasks: in place, not waiting for itself
        value *= 10;
    });
    EXPECT_EQ(value, 120);
}

TEST(SerialQueue, DelayedTasksWaitForTheirTimeWhileOthersGoOn) {
    std::vector<std::string> order; // touched on the queue only, read once the semaphore says so
    Semaphore done;
    double start = MediaClock::now(), lateAt = 0;
    SerialQueue queue("test");
    queue.postAfter(3600, [&] { order.push_back("far"); }); // holds nothing up
    queue.postAfter(0.2, [&] {
        lateAt = MediaClock::now();
        order.push_back("late");
        done.signal();
    });
    queue.postAfter(0.05, [&] { order.push_back("early"); });
    queue.post([&] { order.push_back("now"); });
    ASSERT_TRUE(done.wait(60));
    EXPECT_GE(lateAt - start, 0.2);
    EXPECT_EQ(order, (std::vector<std::string>{"now", "early", "late"}));
}

TEST(SerialQueue, DestructionRunsWhatWasPostedAndDropsWhatIsNotDue) {
    std::atomic<int> ran = 0;
    auto captured = std::make_shared<int>(0);
    Semaphore started, release;
    std::thread releaser;
    {
        SerialQueue queue("test");
        // Hold the queue so that what follows is most likely still pending when destruction begins
        // (if not, the outcome is the same).
        queue.post([&] {
            started.signal();
            release.wait();
        });
        ASSERT_TRUE(started.wait(60));
        for (int i = 0; i < 10; ++i)
            queue.post([&] {
                if (++ran == 1)
                    queue.post([&] { ++ran; }); // posted while draining: runs too
            });
        queue.postAfter(3600, [&ran, captured] { ran += 1000; });
        releaser = std::thread([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            release.signal();
        });
    }
    releaser.join();
    EXPECT_EQ(ran, 11);
    EXPECT_EQ(captured.use_count(), 1); // the dropped task was destroyed, not leaked
}

TEST(SerialQueue, MayBeDestroyedFromOneOfItsOwnTasks) {
    Semaphore laterRan;
    auto queue = std::make_shared<SerialQueue>("test");
    SerialQueue& raw = *queue;
    raw.post([held = std::move(queue), &laterRan]() mutable {
        held->post([&laterRan] { laterRan.signal(); });
        held.reset(); // the last reference: the queue is destroyed on its own thread
    });
    // The queue finishes on its own; the task posted before the destruction still ran.
    EXPECT_TRUE(laterRan.wait(60));
}

} // namespace
} // namespace quorva
