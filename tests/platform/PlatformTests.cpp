// The main loop, and what the rest of the program leans on beside it: the clock, the log and the
// processor's capacity.
#include "platform/HeadlessEventLoop.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"
#include "platform/ProcessorTopology.h"

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace quorva {
namespace {

namespace fs = std::filesystem;

TEST(HeadlessEventLoop, RunsTasksInOrderOnItsThreadUntilStoppedAndDropsWhatIsLeftWithItself) {
    auto captured = std::make_shared<int>(0);
    bool dropped = false;
    {
        HeadlessEventLoop loop;
        EXPECT_TRUE(loop.isCurrent()); // made here, not yet run elsewhere
        std::vector<int> order;
        bool fromOtherThread = true;
        for (int i = 0; i < 5; ++i)
            loop.post([&, i] { order.push_back(i); });
        loop.post([&] { loop.stop(); });
        loop.post([&] { order.push_back(99); }); // after the stop: waits for the next run
        loop.run();
        EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
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
    // Had the two timers one id, this would stop the first too; cancelled again, the id is unknown.
    loop.cancelTimer(cancelled);
    loop.cancelTimer(cancelled);
    // Give a cancelled timer every chance to tick again.
    loop.postAfter(0.2, [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(ticks, 3);
    EXPECT_EQ(cancelledTicks, 0);
    EXPECT_GE(thirdTickAt - start, 0.03) << "three intervals at least";
}

// That a task posted to the main loop runs there, the concurrency tests show with many of them.
TEST(HeadlessEventLoop, PostToMainReachesTheLoopThatWasSetAndWithoutOneDropsAndSaysSo) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    EXPECT_TRUE(EventLoop::postToMain([] {}));

    EventLoop::setMainLoop(nullptr);
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) { lines.push_back(line); });
    bool ran = false;
    EXPECT_FALSE(EventLoop::postToMain([&] { ran = true; }));
    SetLogSink({});
    double start = MediaClock::now();
    EXPECT_FALSE(loop->runUntil([&] { return ran; }, 0.05)) << "dropped";
    EXPECT_GE(MediaClock::now() - start, 0.05) << "run until the time runs out";
    EXPECT_TRUE(loop->runUntil([] { return true; }, 0)) << "a condition already true needs no task";
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("EventLoop: ", 0), 0u);
}

// Each line's prefix is read by the settings' tests and the main loop's.
TEST(Log, LinesFromManyThreadsEachReachTheSinkOnce) {
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) { lines.push_back(line); });
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([] {
                for (int i = 0; i < 100; ++i)
                    Log("Test: ", "a line");
            });
    }
    SetLogSink({});
    EXPECT_EQ(lines.size(), 400u);
}

TEST(MediaClock, ReadsTheMonotonicClockAndItsDeadlinesSurviveOddDelays) {
    timespec before{}, after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    double now = MediaClock::now();
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_LE(double(before.tv_sec) + double(before.tv_nsec) * 1e-9, now);
    EXPECT_LE(now, double(after.tv_sec) + double(after.tv_nsec) * 1e-9);

    using Clock = std::chrono::steady_clock;
    auto start = Clock::now();
    auto inOneSecond = MediaClock::deadlineAfter(1.0);
    EXPECT_GE(inOneSecond - start, std::chrono::milliseconds(1000));
    EXPECT_LT(inOneSecond - start, std::chrono::seconds(60));
    // "Now" for what is not a positive delay; far away, but no overflow into the past, for huge ones.
    // The deadline is taken first: the order in which a call's arguments are evaluated is unspecified.
    for (double odd : {0.0, -5.0, std::nan("")}) {
        auto deadline = MediaClock::deadlineAfter(odd);
        EXPECT_LE(deadline, Clock::now()) << odd;
    }
    for (double huge : {1e12, 1e300, std::numeric_limits<double>::infinity()}) {
        auto deadline = MediaClock::deadlineAfter(huge);
        EXPECT_GT(deadline, Clock::now() + std::chrono::hours(24 * 365)) << huge;
    }
}

TEST(ProcessorCapacity, CountsEachCoreOnceAndItsSecondThreadAsAQuarterElseEveryProcessorOnline) {
    const fs::path folder = fs::temp_directory_path() / ("quorva-topology-" + std::to_string(getpid()));
    auto write = [&](const fs::path& path, const std::string& text) {
        fs::create_directories((folder / path).parent_path());
        std::ofstream(folder / path) << text << "\n";
    };

    // Four processors online, two cores of two threads each, and a fifth processor offline.
    write("online", "0-1,4-5");
    for (int cpu : {0, 1, 4, 5})
        write("cpu" + std::to_string(cpu) + "/topology/thread_siblings_list", cpu % 2 ? "1,5" : "0,4");
    write("cpu2/topology/thread_siblings_list", "2");
    EXPECT_DOUBLE_EQ(ProcessorCapacity(folder), 2 + 2 * SharedCoreGain);

    // A core whose other thread is offline counts whole.
    write("online", "0-1,4");
    write("cpu5/topology/thread_siblings_list", "oops");
    write("cpu1/topology/thread_siblings_list", "1");
    EXPECT_DOUBLE_EQ(ProcessorCapacity(folder), 2 + SharedCoreGain);

    // Without a topology that reads, every processor online counts.
    const double online = double(sysconf(_SC_NPROCESSORS_ONLN));
    write("online", "0-3");
    EXPECT_DOUBLE_EQ(ProcessorCapacity(folder), online) << "cpu3 has none";
    write("online", "garbage");
    EXPECT_DOUBLE_EQ(ProcessorCapacity(folder), online);
    fs::remove_all(folder);
}

} // namespace
} // namespace quorva
