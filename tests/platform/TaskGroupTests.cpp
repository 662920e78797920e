#include "platform/TaskGroup.h"

#include "platform/HeadlessEventLoop.h"
#include "platform/MediaClock.h"
#include "platform/Semaphore.h"
#include "platform/SerialQueue.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace quorva {
namespace {

TEST(TaskGroup, WaitAnswersWhetherTheWorkEndedInTime) {
    TaskGroup group;
    EXPECT_TRUE(group.wait(0)); // nothing entered: done already
    group.enter();
    group.enter();
    double start = MediaClock::now();
    EXPECT_FALSE(group.wait(0.05));
    EXPECT_GE(MediaClock::now() - start, 0.05);
    group.leave();
    EXPECT_FALSE(group.wait(0));

    std::thread last([group]() mutable { group.leave(); }); // copies share the count
    EXPECT_TRUE(group.wait(60));
    last.join();
    EXPECT_TRUE(group.wait());
}

TEST(TaskGroup, NotifiesOnTheGivenQueueOnceTheLastPieceLeaves) {
    auto queue = std::make_shared<SerialQueue>("group-notify");
    TaskGroup group;
    group.enter();
    group.enter();
    std::atomic<int> notified = 0;
    std::atomic<bool> onQueue = false;
    Semaphore done;
    group.notify(queue, [&] {
        onQueue = queue->isCurrent();
        ++notified;
        done.signal();
    });
    group.leave();
    EXPECT_FALSE(done.wait(0.02)); // one piece is still under way
    group.leave();
    ASSERT_TRUE(done.wait(60));
    EXPECT_TRUE(onQueue);

    // Fired once: new work and its end do not bring it back.
    group.enter();
    group.leave();
    queue->sync([] {});
    EXPECT_EQ(notified, 1);
}

TEST(TaskGroup, NotifyingAnIdleGroupFiresAtOnce) {
    auto queue = std::make_shared<SerialQueue>("group-notify");
    TaskGroup group;
    Semaphore done;
    group.notify(queue, [&] { done.signal(); });
    EXPECT_TRUE(done.wait(60));
}

TEST(TaskGroup, EveryNotificationFiresOnItsOwnTarget) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    auto queue = std::make_shared<SerialQueue>("group-notify");
    TaskGroup group;
    group.enter();
    std::atomic<bool> onLoop = false, onQueue = false;
    group.notify(loop, [&] { onLoop = loop->isCurrent(); });
    group.notify(queue, [&] { onQueue = queue->isCurrent(); });
    std::thread worker([&] { group.leave(); });
    EXPECT_TRUE(loop->runUntil([&] { return onLoop.load(); }, 60));
    worker.join();
    queue->sync([] {});
    EXPECT_TRUE(onQueue);
}

TEST(TaskGroup, TracksWorkPostedAcrossSeveralQueues) {
    std::vector<std::unique_ptr<SerialQueue>> queues;
    for (int i = 0; i < 3; ++i)
        queues.push_back(std::make_unique<SerialQueue>("worker"));
    TaskGroup group;
    std::atomic<int> finished = 0;
    std::vector<std::thread> posters;
    for (int p = 0; p < 3; ++p)
        posters.emplace_back([&, p] {
            for (int i = 0; i < 200; ++i)
                group.post(*queues[size_t((p + i) % 3)], [&] { ++finished; });
        });
    for (auto& poster : posters)
        poster.join();
    ASSERT_TRUE(group.wait(60));
    EXPECT_EQ(finished, 600);
}

TEST(TaskGroup, TheTargetOutlivesItsOwnerUntilTheNotificationRan) {
    TaskGroup group;
    group.enter();
    Semaphore done;
    std::weak_ptr<SerialQueue> watch;
    {
        auto queue = std::make_shared<SerialQueue>("group-notify");
        watch = queue;
        group.notify(queue, [&] { done.signal(); });
    }
    EXPECT_FALSE(watch.expired()); // the owner let go; the group holds on
    group.leave();
    ASSERT_TRUE(done.wait(60));
}

} // namespace
} // namespace quorva
