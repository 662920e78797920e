#include "platform/Semaphore.h"

#include "platform/MediaClock.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace quorva {
namespace {

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
}

TEST(Semaphore, ManyProducersAndConsumersBalanceExactly) {
    Semaphore semaphore;
    constexpr int threads = 4, each = 2000;
    std::atomic<int> taken = 0;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < each; ++i)
                semaphore.signal();
        });
        workers.emplace_back([&] {
            for (int i = 0; i < each; ++i)
                if (semaphore.wait(60))
                    ++taken;
        });
    }
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

} // namespace
} // namespace quorva
