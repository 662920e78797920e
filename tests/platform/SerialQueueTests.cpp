#include "platform/SerialQueue.h"

#include "platform/MediaClock.h"
#include "platform/Semaphore.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace quorva {
namespace {

TEST(SerialQueue, LabelAndThreadNameComeFromTheSuffix) {
    SerialQueue queue("oscquery.connections");
    EXPECT_EQ(queue.label(), "org.quorva.QuorvaRecorder.oscquery.connections");
    std::string name;
    queue.sync([&] {
        char buffer[16] = {};
        pthread_getname_np(pthread_self(), buffer, sizeof buffer);
        name = buffer;
    });
    EXPECT_EQ(name, "oscquery.connec"); // the kernel keeps 15 characters

    EXPECT_EQ(SerialQueue::ThreadName("org.quorva.QuorvaRecorder.osc-receiver"), "osc-receiver");
    EXPECT_EQ(SerialQueue::ThreadName("org.quorva.QuorvaRecorder."), "queue");
    EXPECT_EQ(SerialQueue::ThreadName("elsewhere.long-label-here"), "elsewhere.long-");
}

TEST(SerialQueue, RunsTasksOnItsOwnThreadOneAtATimeInOrder) {
    SerialQueue queue("test");
    std::vector<int> order;
    std::atomic<int> inside = 0, mostInside = 0;
    std::atomic<bool> allOnQueue = true;
    for (int i = 0; i < 500; ++i)
        queue.post([&, i] {
            int now = ++inside;
            mostInside = std::max(mostInside.load(), now);
            allOnQueue = allOnQueue && queue.isCurrent();
            order.push_back(i);
            --inside;
        });
    queue.sync([] {});
    ASSERT_EQ(order.size(), 500u);
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ(order[i], i);
    EXPECT_EQ(mostInside, 1);
    EXPECT_TRUE(allOnQueue);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(SerialQueue, ManyThreadsPostingKeepEachOnesOrderAndLoseNothing) {
    SerialQueue queue("test");
    constexpr int producers = 4, each = 1000;
    std::vector<std::vector<int>> seen(producers);
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < each; ++i)
                queue.post([&seen, p, i] { seen[p].push_back(i); });
        });
    for (auto& thread : threads)
        thread.join();
    queue.sync([] {});
    for (int p = 0; p < producers; ++p) {
        ASSERT_EQ(seen[p].size(), size_t(each));
        for (int i = 0; i < each; ++i)
            ASSERT_EQ(seen[p][i], i);
    }
}

TEST(SerialQueue, SyncWaitsForItsTaskAndRunsInPlaceOnTheQueueItself) {
    SerialQueue queue("test");
    int value = 0;
    queue.post([&] { value = 1; });
    queue.sync([&] { value *= 10; }); // after the task posted before it
    EXPECT_EQ(value, 10);

    // From one of its own tasks, sync must not wait for itself.
    std::vector<std::string> order;
    queue.sync([&] {
        order.push_back("outer");
        queue.sync([&] { order.push_back("inner, in place"); });
        order.push_back("outer again");
    });
    EXPECT_EQ(order, (std::vector<std::string>{"outer", "inner, in place", "outer again"}));
}

TEST(SerialQueue, DelayedTasksWaitForTheirTimeWhileOthersGoOn) {
    SerialQueue queue("test");
    std::mutex lock;
    std::vector<std::string> order;
    auto note = [&](std::string what) {
        std::lock_guard guard(lock);
        order.push_back(std::move(what));
    };
    // A task far in the future holds nothing up.
    queue.postAfter(3600, [&] { note("far"); });
    queue.sync([&] { note("now"); });

    Semaphore done;
    double start = MediaClock::now();
    std::atomic<double> lateAt = 0;
    queue.postAfter(0.05, [&] { note("early"); });
    queue.postAfter(0.2, [&] {
        lateAt = MediaClock::now();
        note("late");
        done.signal();
    });
    ASSERT_TRUE(done.wait(60));
    EXPECT_GE(lateAt - start, 0.2);
    std::lock_guard guard(lock);
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
    auto queue = std::make_shared<SerialQueue>("test");
    Semaphore finished;
    std::atomic<bool> laterRan = false;
    auto* raw = queue.get();
    raw->post([held = std::move(queue), &laterRan]() mutable {
        held->post([&laterRan] { laterRan = true; });
        held.reset(); // the last reference: the queue is destroyed on its own thread
    });
    raw = nullptr;
    // The queue finishes on its own; the task posted before the destruction still ran.
    double deadline = MediaClock::now() + 60;
    while (!laterRan && MediaClock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(laterRan);
}

} // namespace
} // namespace quorva
