#include "remote/OSCReceiver.h"

#include "NetworkTesting.h"

#include <atomic>

namespace quorva {
namespace {

using namespace quorva::testing;

// Garbage, floods and the port search are driven through the whole program by the headless tests.
TEST(OSCReceiver, ABundleFromOscsendfileArrivesInOneMainThreadTaskAndStopIsIdempotent) {
    MainThread main;
    std::mutex lock;
    std::vector<std::string> seen; // descriptions, and "marker" where a task posted by the first one ran
    std::atomic<bool> offMain = false;
    OSCReceiver receiver;
    ASSERT_TRUE(receiver.startOnPort(0, [&](const OSCMessage& message) {
        offMain = offMain || !main.loop->isCurrent();
        std::lock_guard guard(lock);
        if (seen.empty())
            main.loop->post([&] {
                std::lock_guard guard(lock);
                seen.push_back("marker");
            });
        seen.push_back(message.description());
    }));

    std::string file = ::testing::TempDir() + "bundle.txt";
    std::ofstream(file) << "e0000000.00000000 /one i 1\ne0000000.00000000 /two s x\n"
                           "e0000000.00000000 /three f 1.5\n";
    Shell("oscsendfile localhost " + std::to_string(receiver.port()) + " " + file);
    ASSERT_TRUE(WaitFor(
        [&] {
            std::lock_guard guard(lock);
            return std::ranges::count(seen, "marker") == 1;
        },
        10, 0.01));
    EXPECT_EQ(seen, (std::vector<std::string>{"/one 1", "/two x", "/three 1.5", "marker"}));
    EXPECT_FALSE(offMain);

    receiver.stop();
    EXPECT_EQ(receiver.port(), 0);
    receiver.stop();
}

TEST(OSCReceiver, NoFreePortAtTheTopOfTheRangeIsLoggedWithTheSixteenPortsAsked) {
    std::vector<int> held;
    for (int port = 65530; port <= 65535; ++port)
        held.push_back(BoundSocket(SOCK_DGRAM, port));
    if (std::count(held.begin(), held.end(), -1) > 0)
        GTEST_SKIP() << "a port from 65530 to 65535 is in use on this machine";
    LogLines log;
    OSCReceiver receiver;
    EXPECT_FALSE(receiver.startOnPort(65530, [](const OSCMessage&) {}));
    EXPECT_TRUE(log.has("OSC: no free UDP port from 65530 to 65545"));
    EXPECT_EQ(receiver.port(), 0);
    for (int fd : held)
        ::close(fd);
}

} // namespace
} // namespace quorva
