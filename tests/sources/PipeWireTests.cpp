// Run inside a PipeWire session of their own (with_pipewire.sh), against publishers they start and end.
#include "sources/ComputerSound.h"
#include "sources/PipeWireDirectory.h"

#include "platform/Log.h"
#include "tests/core/Limits.h"
#include "tests/platform/PictureTesting.h"
#include "tests/sources/SourceTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>

namespace quorva {
namespace {

using testing::Publisher;
using testing::Received;
using testing::WaitFor;

class PipeWireTest : public ::testing::Test {
protected:
    std::shared_ptr<PictureEngine> engine = testing::Engine("processor");
    PipeWireDirectory directory;

    size_t listed(const std::string& title) {
        return size_t(std::ranges::count(directory.availableSources(), title, &SourceDescription::title));
    }
};

TEST(PipeWireTitles, TheNameThenTheApplicationOrWhicheverThereIs) {
    EXPECT_EQ(PipeWireDirectory::title("Main", ""), "Main");
    EXPECT_EQ(PipeWireDirectory::title("", "Mixer"), "Mixer");
    EXPECT_EQ(PipeWireDirectory::title("", ""), "Untitled Server");
}

// A publisher is listed while it runs, under its title; the change handler hears it come and go, and a
// source connected to it dies with it. (Its detail and kind are read in the recording script's listing.)
TEST_F(PipeWireTest, PublishersAreListedWhileTheyRunAndTheirSourcesDieWithThem) {
    std::atomic<int> changes = 0;
    directory.changes().setHandler([&] { ++changes; });
    auto publisher = std::make_unique<Publisher>("Main", "BGRx");
    ASSERT_TRUE(WaitFor([&] { return listed("Main - Mixer") == 1 && publisher->waiting(); }, 20));
    EXPECT_GE(changes, 1);

    auto source = directory.connectToSourceWithTitle("Main - Mixer", engine);
    ASSERT_NE(source, nullptr);
    EXPECT_TRUE(source->isAlive());
    const int before = changes;
    publisher.reset();
    EXPECT_TRUE(WaitFor([&] { return listed("Main - Mixer") == 0 && !source->isAlive(); }, 20));
    EXPECT_GT(changes, before);
}

// Without a daemon nothing is listed, and the reason is logged once; the computer's sound says why it
// cannot start, and may still be stopped.
TEST(PipeWireWithoutDaemon, ListsNothingAndSaysWhyOnceAndTheComputersSoundSaysWhy) {
    const auto empty = std::filesystem::path(::testing::TempDir()) / "no-pipewire";
    std::filesystem::create_directories(empty);
    testing::ScopedVariable runtime("PIPEWIRE_RUNTIME_DIR");
    runtime.set(empty.string());
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) { lines.push_back(line); });
    {
        PipeWireDirectory directory;
        EXPECT_TRUE(directory.availableSources().empty());
        EXPECT_TRUE(directory.availableSources().empty());
    }
    ComputerSound sound;
    Result<> started = sound.start();
    SetLogSink({});
    auto saysWhy = [](const std::string& line) { return line.starts_with("PipeWire: no PipeWire"); };
    EXPECT_EQ(std::ranges::count_if(lines, saysWhy), 1);
    ASSERT_FALSE(started);
    EXPECT_TRUE(started.error().message().starts_with("no PipeWire daemon to connect to ("))
        << started.error().message();
    sound.stop();
}

// Every layout a publisher may choose arrives upright, at its size, in the colours published (YUV within
// what its rounding and the chroma's sharing between neighbours allow).
TEST_F(PipeWireTest, EachPublishedLayoutArrivesUprightInItsColours) {
    for (const std::string format : {"BGRA", "BGRx", "RGBA", "RGBx", "YUY2", "I420", "NV12"}) {
        SCOPED_TRACE(format);
        Publisher publisher("Layout" + format, format);
        ASSERT_TRUE(
            WaitFor([&] { return listed("Layout" + format + " - Mixer") == 1 && publisher.waiting(); }, 20));
        auto source = directory.connectToSourceWithTitle("Layout" + format + " - Mixer", engine);
        ASSERT_NE(source, nullptr);
        EXPECT_DOUBLE_EQ(source->framesPerSecond(), 30);
        Received received(*source);
        ASSERT_TRUE(WaitFor([&] { return received.count > 0; }, 20));
        auto picture = received.picture();
        ASSERT_EQ(picture->width(), 96u);
        ASSERT_EQ(picture->height(), 64u);
        // YUV within what its rounding and the chroma's sharing between neighbours allow.
        const int tolerance = format.starts_with("RGB") || format.starts_with("BGR") ? 0 : 6;
        const testing::Pixels pixels = testing::ReadPixels(*engine, picture);
        // White and blue at either end of the top.
        for (auto [x, expected] :
             {std::pair{4u, testing::Pixel{255, 255, 255, 255}}, {90u, {255, 0, 0, 255}}}) {
            const testing::Pixel pixel = pixels.at(x, 4);
            EXPECT_TRUE(std::abs(pixel.r - expected.r) <= tolerance &&
                        std::abs(pixel.g - expected.g) <= tolerance &&
                        std::abs(pixel.b - expected.b) <= tolerance && pixel.a == 255)
                << ::testing::PrintToString(pixel) << " at " << x << ", 4";
        }
        EXPECT_LT(pixels.at(4, 60).r, 128);
    }
}

// Of two publishers under one title, the first that can be linked wins: here the first publishes grey
// pictures, which no stream of the recorder takes. Once stopped, a source hands over nothing more.
TEST_F(PipeWireTest, OfEqualTitlesTheFirstThatCanBeLinkedWinsAndStopEndsItsPictures) {
    Publisher grey("Twin", "GRAY8");
    ASSERT_TRUE(WaitFor([&] { return listed("Twin - Mixer") == 1; }, 20));
    Publisher green("Twin", "BGRx", "green");
    ASSERT_TRUE(WaitFor([&] { return listed("Twin - Mixer") == 2 && green.waiting(); }, 20));
    auto source = directory.connectToSourceWithTitle("Twin - Mixer", engine);
    ASSERT_NE(source, nullptr);
    Received received(*source);
    ASSERT_TRUE(WaitFor([&] { return received.count > 0; }, 20));
    EXPECT_EQ(testing::ReadPixels(*engine, received.picture(), 0, 0, 1, 1).at(0, 0),
              (testing::Pixel{0, 255, 0, 255}));

    source->stop();
    EXPECT_FALSE(source->isAlive());
    const int count = received.count;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(received.count, count);
}

} // namespace
} // namespace quorva
