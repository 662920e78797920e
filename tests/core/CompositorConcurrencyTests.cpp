#include "core/Compositor.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace quorva {
namespace {

using testing::Pixel;
using testing::Pixels;

TEST(CompositorConcurrency, FourThreadsComposeAtOnceAndEachGetsItsOwnPicture) {
    auto queue = testing::MakeQueue();
    ASSERT_TRUE(queue);
    auto compositor = Compositor::make(queue);
    ASSERT_TRUE(compositor);

    constexpr int Threads = 4, Compositions = 25;
    std::vector<std::shared_ptr<Texture>> sources;
    for (int t = 0; t < Threads; ++t)
        sources.push_back(
            testing::MakeSolidTexture(16, 9, {uint8_t(60 * t), 255, uint8_t(255 - 60 * t), 255}));

    std::vector<int> correct(Threads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t) {
        threads.emplace_back([&, t] {
            // Every thread its own size, and all of them share every source (on the GPU, at once).
            Layout layout(0, {{160, 90}, {16, 9}, {16, 9}, {16, 9}}, 2, {double(320 + 16 * t), 90});
            std::vector<std::shared_ptr<Texture>> textures = {sources[t], sources[0], sources[1], sources[2]};
            for (int i = 0; i < Compositions; ++i) {
                // Waiting for each picture before the next keeps fewer than four compositions in flight
                // behind this one, so no other thread draws into its target before it is checked.
                std::promise<bool> checked;
                auto target = compositor->compose(layout, textures, {false, false, true, false}, i % 2 == 0,
                                                  [&](const std::shared_ptr<Texture>& drawn) {
                                                      Rect first = layout.frames()[0];
                                                      uint32_t x = uint32_t(first.x + first.width / 2);
                                                      uint32_t y = uint32_t(first.y + first.height / 2);
                                                      Pixel pixel = Pixels(drawn, x, y, 1, 1).at(x, y);
                                                      checked.set_value(
                                                          pixel == Pixels(sources[t], 8, 4, 1, 1).at(8, 4));
                                                  });
                ASSERT_TRUE(target);
                EXPECT_EQ(target->width(), uint32_t(layout.size().width));
                if (checked.get_future().get())
                    ++correct[t];
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(correct, std::vector<int>(Threads, Compositions));
}

} // namespace
} // namespace quorva
