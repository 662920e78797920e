#include "platform/Log.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace quorva {
namespace {

TEST(Log, LinesCarryTheirPrefixAndArriveWholeFromManyThreads) {
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) { lines.push_back(line); });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 100; ++i)
                Log("Test: ", "thread " + std::to_string(t) + " line " + std::to_string(i));
        });
    for (auto& thread : threads)
        thread.join();
    SetLogSink({});
    ASSERT_EQ(lines.size(), 400u);
    for (const auto& line : lines)
        EXPECT_EQ(line.rfind("Test: thread ", 0), 0u) << line;
}

} // namespace
} // namespace quorva
