#include "platform/gpu/CommandBuffer.h"
#include "platform/gpu/CommandQueue.h"
#include "tests/platform/gpu/GpuTesting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

namespace quorva {
namespace {

using testing::MakeQueue;
using testing::MakeTexture;
using testing::Pixels;

// A command buffer that clears `target` to `colour`.
std::shared_ptr<CommandBuffer> Clear(CommandQueue& queue, const std::shared_ptr<Texture>& target,
                                     std::array<float, 4> colour) {
    auto buffer = queue.commandBuffer();
    EXPECT_TRUE(buffer);
    if (!buffer)
        return nullptr;
    buffer.value()->beginRendering(target, colour);
    buffer.value()->endRendering();
    return buffer.value();
}

TEST(CommandQueue, CallsHandlersOnItsOwnThreadOnceTheGpuIsDoneInCommitOrder) {
    auto queue = MakeQueue();
    ASSERT_TRUE(queue);
    std::mutex lock;
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    std::promise<void> last;
    for (int i = 0; i < 6; ++i) {
        auto target = MakeTexture(64, 64);
        auto buffer = Clear(*queue, target, {0, float(i) / 5, 0, 1});
        buffer->addCompletedHandler([&, i, target] {
            std::lock_guard guard(lock);
            // Done means readable: the read-back, queued behind nothing, shows the clear.
            EXPECT_EQ(Pixels(target, 10, 10, 1, 1).at(10, 10).g, uint8_t(i * 51));
            order.push_back(i);
            threads.push_back(std::this_thread::get_id());
        });
        if (i == 5)
            buffer->addCompletedHandler([&] { last.set_value(); });
        ASSERT_TRUE(buffer->commit());
    }
    last.get_future().wait();
    std::lock_guard guard(lock);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5}));
    for (auto id : threads) {
        EXPECT_NE(id, std::this_thread::get_id());
        EXPECT_EQ(id, threads.front());
    }
}

TEST(CommandQueue, HoldsWhatItsBuffersUseUntilDoneAndClosingWaitsForCommittedWorkAndRefusesMore) {
    auto queue = MakeQueue();
    ASSERT_TRUE(queue);
    std::weak_ptr<Texture> watched;
    std::atomic<int> completed = 0, aliveInHandler = 0;
    {
        auto target = MakeTexture(512, 512);
        watched = target;
        for (int i = 0; i < 5; ++i) {
            auto buffer = Clear(*queue, target, {0, 0, 1, 1});
            buffer->addCompletedHandler([&] {
                ++completed;
                aliveInHandler += !watched.expired();
            });
            ASSERT_TRUE(buffer->commit());
        }
    } // the caller lets go of the texture and the buffers at once
    auto late = Clear(*queue, MakeTexture(8, 8), {0, 0, 1, 1});
    bool lateCalled = false;
    late->addCompletedHandler([&] { lateCalled = true; });
    queue.reset(); // waits for the work and for the completion thread, which let go after the handlers
    EXPECT_EQ(completed, 5);
    EXPECT_EQ(aliveInHandler, 5);
    EXPECT_TRUE(watched.expired());
    auto refused = late->commit();
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().message().find("closed"), std::string::npos);
    EXPECT_FALSE(lateCalled);

    // A handler may let go of the last hold on its queue, which then goes away on its own thread.
    const long holds = testing::SharedDevice().use_count();
    queue = MakeQueue();
    std::promise<void> done;
    auto buffer = Clear(*queue, MakeTexture(8, 8), {0, 0, 0, 1});
    buffer->addCompletedHandler([&done, held = queue]() mutable {
        held.reset();
        done.set_value();
    });
    ASSERT_TRUE(buffer->commit());
    buffer.reset();
    queue.reset();
    EXPECT_EQ(done.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    // That thread then lets go of the device: the process must not end under it, or the Vulkan loader's
    // own teardown at exit races with it.
    for (int waited = 0; waited < 3000 && testing::SharedDevice().use_count() > holds; ++waited)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

} // namespace
} // namespace quorva
