// The primitives that the rest of the program's threads meet on: serial queues, task groups, semaphores,
// and the main loop as other threads post to it.
#include "platform/HeadlessEventLoop.h"
#include "platform/MediaClock.h"
#include "platform/Semaphore.h"
#include "platform/SerialQueue.h"
#include "platform/TaskGroup.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace quorva {
namespace {

// Four producers, each on a thread of its own, post a thousand numbered tasks each through `post`: each
// runs on `target`, one at a time, and each producer's in the order it posted them. `loop`, where the
// target is a loop, runs meanwhile.
void ExpectTasksFromManyThreadsInEachOnesOrder(const Executor& target, const std::function<void(Task)>& post,
                                               HeadlessEventLoop* loop = nullptr) {
    constexpr int producers = 4, each = 1000;
    std::vector<std::vector<int>> seen(producers); // touched on the target only
    std::atomic<int> inside = 0, mostInside = 0, ran = 0;
    std::atomic<bool> allOnTarget = true;
    Semaphore allRan;
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < each; ++i)
                post([&, p, i] {
                    mostInside = std::max(mostInside.load(), ++inside);
                    allOnTarget = allOnTarget && target.isCurrent();
                    seen[p].push_back(i);
                    --inside;
                    if (++ran == producers * each)
                        allRan.signal();
                });
        });
    if (loop) {
        EXPECT_TRUE(loop->runUntil([&] { return ran == producers * each; }, 60));
    }
    EXPECT_TRUE(allRan.wait(60));
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(mostInside, 1);
    EXPECT_TRUE(allOnTarget);
    std::vector<int> inOrder(static_cast<size_t>(each));
    std::iota(inOrder.begin(), inOrder.end(), 0);
    for (const std::vector<int>& one : seen)
        EXPECT_EQ(one, inOrder);
}

TEST(SerialQueue, LabelAndThreadNameComeFromTheSuffix) {
    SerialQueue queue("oscquery.connections");
    char name[16] = {};
    queue.sync([&] { pthread_getname_np(pthread_self(), name, sizeof name); });
    EXPECT_STREQ(name, "oscquery.connec"); // the kernel keeps 15 characters

    EXPECT_EQ(SerialQueue::ThreadName("org.quorva.QuorvaRecorder."), "queue");
}

TEST(SerialQueue, RunsTasksFromManyThreadsOnItsOwnThreadOneAtATimeInEachOnesOrder) {
    SerialQueue queue("test");
    ExpectTasksFromManyThreadsInEachOnesOrder(queue, [&](Task task) { queue.post(std::move(task)); });
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

TEST(TaskGroup, WaitAndEachNotificationAnswerOnceTheLastPieceLeavesWhereverItRan) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    TaskGroup group;
    EXPECT_TRUE(group.wait(0)); // nothing entered: done already
    group.enter();
    group.enter();
    int loopNotified = 0; // touched on the loop only
    std::atomic<bool> onQueue = false;
    Semaphore done;
    std::weak_ptr<SerialQueue> watch;
    {
        auto queue = std::make_shared<SerialQueue>("group-notify");
        watch = queue;
        group.notify(queue, [&, raw = queue.get()] {
            onQueue = raw->isCurrent();
            done.signal();
        });
    }
    EXPECT_FALSE(watch.expired()); // the owner let go; the group holds on until the notification ran
    group.notify(loop, [&] { loopNotified += loop->isCurrent(); });
    group.leave();
    double start = MediaClock::now();
    EXPECT_FALSE(group.wait(0.05)); // one piece is still under way
    EXPECT_GE(MediaClock::now() - start, 0.05);
    EXPECT_FALSE(done.wait(0));

    std::thread last([group]() mutable { group.leave(); }); // copies share the count
    EXPECT_TRUE(group.wait(60));
    EXPECT_TRUE(loop->runUntil([&] { return loopNotified == 1; }, 60));
    last.join();
    EXPECT_TRUE(group.wait());
    ASSERT_TRUE(done.wait(60));
    EXPECT_TRUE(onQueue);

    // Fired once: new work and its end do not bring it back, but a new notification of the idle group
    // fires at once.
    group.enter();
    group.leave();
    bool idle = false;
    group.notify(loop, [&] { idle = true; });
    EXPECT_TRUE(loop->runUntil([&] { return idle; }, 60));
    EXPECT_EQ(loopNotified, 1);

    // Work posted from several threads to several queues.
    std::atomic<int> finished = 0;
    SerialQueue queues[] = {SerialQueue("worker"), SerialQueue("worker"), SerialQueue("worker")};
    std::vector<std::thread> posters;
    for (int p = 0; p < 3; ++p)
        posters.emplace_back([&, p] {
            for (int i = 0; i < 200; ++i)
                group.post(queues[(p + i) % 3], [&] { ++finished; });
        });
    for (auto& poster : posters)
        poster.join();
    ASSERT_TRUE(group.wait(60));
    EXPECT_EQ(finished, 600);
}

TEST(Semaphore, GivesEachSignalToOneWaitAndTimesOutNoEarlierThanAskedTakingNothing) {
    Semaphore semaphore(2);
    EXPECT_TRUE(semaphore.wait(0));
    EXPECT_TRUE(semaphore.wait(0));
    EXPECT_FALSE(semaphore.wait(-1)); // the initial two are used up; a negative time-out only checks too
    double start = MediaClock::now();
    EXPECT_FALSE(semaphore.wait(0.05));
    EXPECT_GE(MediaClock::now() - start, 0.05);
    semaphore.signal();
    semaphore.signal();
    EXPECT_TRUE(semaphore.wait(0)); // the failed waits did not consume a later signal
    EXPECT_TRUE(semaphore.wait());
    EXPECT_FALSE(semaphore.wait(0));

    // Many signalling and waiting at once balance exactly.
    constexpr int threads = 4, each = 2000;
    std::atomic<int> taken = 0;
    std::vector<std::thread> workers;
    for (int t = 0; t < 2 * threads; ++t)
        workers.emplace_back([&, signals = t % 2 == 0] {
            for (int i = 0; i < each; ++i)
                if (signals)
                    semaphore.signal();
                else
                    taken += semaphore.wait(60);
        });
    for (auto& worker : workers)
        worker.join();
    EXPECT_EQ(taken, threads * each);
    EXPECT_FALSE(semaphore.wait(0));
}

TEST(Semaphore, TheWaiterMayDestroyItAsSoonAsItReturns) {
    // The pattern of a synchronous hand-off: the semaphore lives on the waiter's stack. A signal still
    // touching it after the wait returned is a use after free, which the sanitizers' builds report.
    for (int i = 0; i < 200; ++i) {
        auto semaphore = std::make_unique<Semaphore>();
        std::thread signaller([raw = semaphore.get()] { raw->signal(); });
        const bool handedOff = semaphore->wait(10);
        semaphore.reset();
        signaller.join();
        ASSERT_TRUE(handedOff) << "hand-off " << i;
    }
}

// A loop run on a thread of its own and stopped from another is how the network tests run their main
// loop (tests/remote/NetworkTesting.h), with the handlers they check on it.
TEST(EventLoopConcurrency, TasksPostedToMainFromManyThreadsAllRunOnTheLoopInEachOnesOrder) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    ExpectTasksFromManyThreadsInEachOnesOrder(
        *loop, [](Task task) { EventLoop::postToMain(std::move(task)); }, loop.get());
    EventLoop::setMainLoop(nullptr);
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
