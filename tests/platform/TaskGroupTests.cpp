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

TEST(TaskGroup, WaitAnswersWhetherTheWorkEndedInTimeWhereverItRan) {
    TaskGroup group;
    EXPECT_TRUE(group.wait(0)); // nothing entered: done already
    group.enter();
    group.enter();
    double start = MediaClock::now();
    EXPECT_FALSE(group.wait(0.05));
    EXPECT_GE(MediaClock::now() - start, 0.05);
    group.leave();

    std::thread last([group]() mutable { group.leave(); }); // copies share the count
    EXPECT_TRUE(group.wait(60));
    last.join();
    EXPECT_TRUE(group.wait());

    // Work posted from several threads to several queues.
    std::atomic<int> finished = 0;
    std::vector<std::unique_ptr<SerialQueue>> queues;
    for (int i = 0; i < 3; ++i)
        queues.push_back(std::make_unique<SerialQueue>("worker"));
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

TEST(TaskGroup, NotifiesEachTargetOnceWhenTheLastPieceLeavesAndAnIdleGroupAtOnce) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    TaskGroup group;
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
    EXPECT_FALSE(done.wait(0.02)); // one piece is still under way
    std::thread worker([&] { group.leave(); });
    EXPECT_TRUE(loop->runUntil([&] { return loopNotified == 1; }, 60));
    worker.join();
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
}

} // namespace
} // namespace quorva
