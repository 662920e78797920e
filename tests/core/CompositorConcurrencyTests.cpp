#include "core/composition/Compositor.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace quorva {
namespace {

using testing::Pixel;

using CompositorConcurrency = testing::EachEngineTest;

TEST_P(CompositorConcurrency, FourThreadsComposeAtOnceAndEachGetsItsOwnPicture) {
    auto made = Compositor::make(engine);
    ASSERT_TRUE(made) << made.error().message();
    const std::shared_ptr<Compositor> compositor = made.value();

    constexpr int Threads = 4, Compositions = 25;
    std::vector<std::shared_ptr<Picture>> sources;
    for (int t = 0; t < Threads; ++t)
        sources.push_back(
            testing::MakeSolidPicture(*engine, 16, 9, {uint8_t(60 * t), 255, uint8_t(255 - 60 * t), 255}));

    std::vector<int> correct(Threads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t) {
        threads.emplace_back([&, t] {
            // Every thread its own size, and all of them share every source (on the GPU, at once).
            Layout layout(LayoutKind::Row, {{160, 90}, {16, 9}, {16, 9}, {16, 9}}, 2,
                          {double(320 + 16 * t), 90});
            std::vector<std::shared_ptr<Picture>> pictures = {sources[t], sources[0], sources[1], sources[2]};
            const Rect first = layout.frames()[0];
            const uint32_t x = uint32_t(first.x + first.width / 2), y = uint32_t(first.y + first.height / 2);
            const Pixel expected = testing::ReadPixels(*engine, sources[t], 8, 4, 1, 1).at(8, 4);
            for (int i = 0; i < Compositions; ++i) {
                std::promise<void> drawn;
                auto target =
                    compositor->compose(layout, pictures, {false, false, true, false}, i % 2 == 0,
                                        [&](const std::shared_ptr<Picture>&) { drawn.set_value(); });
                ASSERT_TRUE(target);
                EXPECT_EQ(target->width(), uint32_t(layout.size().width));
                drawn.get_future().wait();
                // Held here, the target is no other thread's: it still shows this thread's picture.
                if (testing::NearPixel(testing::ReadPixels(*engine, target, x, y, 1, 1).at(x, y), expected))
                    ++correct[t];
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(correct, std::vector<int>(Threads, Compositions));
}

INSTANTIATE_TEST_SUITE_P(EachEngine, CompositorConcurrency, testing::EngineNames, testing::EngineTestName);

} // namespace
} // namespace quorva
