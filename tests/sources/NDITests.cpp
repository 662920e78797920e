// NDI against the fake runtime (tests/fakes), which this program links, so that its senders are scripted
// here, and which the library under test opens as it would open libndi.so.6.
#include "sources/NDIDirectory.h"
#include "sources/NDISource.h"

#include "platform/Log.h"
#include "platform/MediaClock.h"
#include "tests/Processes.h"
#include "tests/core/Limits.h"
#include "tests/fakes/FakeNDI.h"
#include "tests/platform/PictureTesting.h"
#include "tests/sources/SourceTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using testing::ThreadsNamed;
using testing::WaitFor;

std::vector<std::string> Titles(SourceDirectory& directory) {
    std::vector<std::string> titles;
    for (const SourceDescription& source : directory.availableSources())
        titles.push_back(source.title());
    return titles;
}

// Where the runtime is looked for, then which of the files found is chosen: real files in folders of
// their own, missing, not a library, a library without the entry point, the fake runtime. (That
// QUORVA_NDI_LIBRARY, once set, is the only place looked in is the headless recorder's to show: it names
// that place alone in its reason.)
TEST(NDILibraryTest, LooksBesideTheProgramThenInTheLibraryFoldersAndChoosesTheFirstUsableFileElseSaysWhy) {
    // Empty variables count as unset: no relative "libndi.so.6" is ever tried.
    auto standard =
        NDILibrary::candidatePaths({{"QUORVA_NDI_LIBRARY", ""}, {"NDI_RUNTIME_DIR_V6", ""}}, "/opt/quorva");
    ASSERT_GE(standard.size(), 3u);
    EXPECT_EQ(standard[0], "/opt/quorva/libndi.so.6");
    EXPECT_EQ(standard[1], "/usr/local/lib/libndi.so.6");
    EXPECT_EQ(standard.back(), "/usr/lib/libndi.so.6");
    auto withRuntime = NDILibrary::candidatePaths({{"NDI_RUNTIME_DIR_V6", "/opt/runtime"}}, "/opt/quorva");
    ASSERT_EQ(withRuntime.size(), standard.size() + 1);
    EXPECT_EQ(withRuntime[1], "/opt/runtime/libndi.so.6");

    const fs::path root = fs::path(::testing::TempDir()) / ("ndi-" + std::to_string(::getpid()));
    auto place = [&](const std::string& folder) {
        fs::create_directories(root / folder);
        return (root / folder / "libndi.so.6").string();
    };
    const std::string missing = place("missing"), good = place("good"), empty = place("noentry"),
                      text = place("text");
    fs::copy_file(QUORVA_FAKE_NDI, good, fs::copy_options::overwrite_existing);
    fs::copy_file(QUORVA_NO_ENTRY_LIBRARY, empty, fs::copy_options::overwrite_existing);
    std::ofstream(text) << "not a library\n";

    // A reason is given only by a library that is not available.
    auto none = NDILibrary::chooseFrom({missing, "/nowhere/libndi.so.6"});
    EXPECT_EQ(none->reason(), "libndi.so.6 was not found in " + missing + ", /nowhere/libndi.so.6");

    auto chosen = NDILibrary::chooseFrom({missing, text, empty, good});
    ASSERT_TRUE(chosen->isAvailable()) << chosen->reason();
    EXPECT_EQ(chosen->path(), good);
    EXPECT_EQ(chosen->version(), "NDI SDK LINUX fake 6.0");

    auto notLibrary = NDILibrary::chooseFrom({text, empty});
    EXPECT_TRUE(notLibrary->reason().starts_with(text + " is not an NDI library (")) << notLibrary->reason();
    EXPECT_EQ(NDILibrary::chooseFrom({empty, text})->reason(), empty + " is not an NDI library");
    EXPECT_EQ(NDILibrary::makeWithPath("")->reason(), "libndi.so.6 was not found");
    EXPECT_EQ(NDILibrary::makeWithPath(missing)->reason(), "libndi.so.6 was not found at " + missing);

    // A processor the runtime does not run on, or a runtime that does not start.
    for (const char* variable : {"FAKE_NDI_UNSUPPORTED_CPU", "FAKE_NDI_INITIALIZE_FAILS"}) {
        setenv(variable, "1", 1);
        auto refused = NDILibrary::makeWithPath(good);
        unsetenv(variable);
        EXPECT_EQ(refused->reason(), "this computer cannot run NDI") << variable;
    }
    fs::remove_all(root);
}

// (That nothing is then listed and no finder starts is the headless recorder's to show, which runs without
// the runtime.)
TEST(NDIDirectoryTest, WithoutTheRuntimeConnectsToNothing) {
    NDIDirectory directory(NDILibrary::makeWithReason("libndi.so.6 was not found"));
    EXPECT_EQ(directory.connectToSourceWithTitle("HOST (Camera)", testing::Engine("processor")), nullptr);
}

class NDITest : public ::testing::Test {
protected:
    // Each case begins with no sender: those of the case before are removed.
    void SetUp() override { FakeNDI_Reset(); }

    int add(const FakeNDISender& sender) { return FakeNDI_AddSender(&sender); }
    // A sender of 30 BGRX pictures a second, 8 × 8, without sound.
    static FakeNDISender Sender(const char* name) {
        FakeNDISender sender;
        sender.name = name;
        sender.fourcc = FakeNDIFourCC("BGRX");
        sender.width = sender.height = 8;
        return sender;
    }
    std::shared_ptr<FrameSource> connect(NDIDirectory& directory, const std::string& title,
                                         const std::string& engine = "processor") {
        if (!WaitFor([&] { return std::ranges::count(Titles(directory), title) > 0; }))
            return nullptr;
        return directory.connectToSourceWithTitle(title, testing::Engine(engine));
    }

    std::shared_ptr<const NDILibrary> library = NDILibrary::makeWithPath(QUORVA_FAKE_NDI);
};

TEST_F(NDITest, ListsSendersInTheRuntimesOrderAndCallsTheHandlerWhenNamesOrTheirOrderChange) {
    ASSERT_TRUE(library->isAvailable()) << library->reason();
    {
        NDIDirectory directory(library);
        std::atomic<int> changes = 0;
        directory.changes().setHandler([&] { ++changes; });
        add(Sender("HOST (A)"));
        add(Sender("HOST (\xff B)")); // not UTF-8
        const int c = add(Sender("HOST (C)"));
        ASSERT_TRUE(WaitFor([&] {
            return Titles(directory) == std::vector<std::string>{"HOST (A)", "HOST (C)"};
        }));
        // Every NDI source is described alike.
        EXPECT_EQ(directory.availableSources().front().detail(), "NDI");
        EXPECT_EQ(directory.availableSources().front().kind(), SourceKindNDI);
        EXPECT_EQ(ThreadsNamed("NDIFinder"), 1);

        const int before = changes;
        FakeNDI_MoveSenderFirst(c);
        ASSERT_TRUE(WaitFor([&] {
            return Titles(directory) == std::vector<std::string>{"HOST (C)", "HOST (A)"};
        }));
        EXPECT_TRUE(WaitFor([&] { return changes > before; }));

        // A title listed a moment ago whose sender has gone connects to nothing.
        FakeNDI_RemoveSender(c);
        ASSERT_TRUE(WaitFor([&] { return Titles(directory) == std::vector<std::string>{"HOST (A)"}; }));
        EXPECT_EQ(directory.connectToSourceWithTitle("HOST (C)", testing::Engine("processor")), nullptr);
    }
    EXPECT_EQ(FakeNDI_FinderCount(), 0);
    EXPECT_EQ(ThreadsNamed("NDIFinder"), 0);
}

class NDIPictureTest : public NDITest, public ::testing::WithParamInterface<std::string> {};

// BGRX's fourth byte means nothing (the fake sends 0): its pictures arrive opaque. BGRA keeps its alpha.
// Rows padded past their pixels are read as rows. On the processor the picture handed over is the copy
// itself, with no trip through the GPU.
TEST_P(NDIPictureTest, BGRXArrivesOpaqueAndBGRAKeepsItsAlphaWhateverTheRowPadding) {
    NDIDirectory directory(library);
    FakeNDISender opaque = Sender("HOST (X)"), clear = Sender("HOST (Y)");
    opaque.width = 6, opaque.height = 4, opaque.stride = 32, opaque.colour = 0x00112233;
    clear.fourcc = FakeNDIFourCC("BGRA"), clear.width = 5, clear.height = 3, clear.colour = 0x80445566;
    clear.frameRateN = 60000, clear.frameRateD = 1001;
    add(opaque);
    add(clear);
    for (auto [title, pixel, rate] :
         {std::tuple{"HOST (X)", testing::Pixel{0x33, 0x22, 0x11, 255}, 30.0},
          std::tuple{"HOST (Y)", testing::Pixel{0x66, 0x55, 0x44, 0x80}, 60000 / 1001.0}}) {
        SCOPED_TRACE(title);
        auto source = connect(directory, title, GetParam());
        ASSERT_NE(source, nullptr);
        testing::Received delivered(*source);
        ASSERT_TRUE(WaitFor([&] { return delivered.count > 0; }));
        source->stop();
        const std::shared_ptr<Picture> received = delivered.picture();
        EXPECT_DOUBLE_EQ(source->framesPerSecond(), rate);
        const auto& engine = testing::Engine(GetParam());
        EXPECT_EQ(engine->isProcessor(), std::dynamic_pointer_cast<MemoryPicture>(received) != nullptr);
        const testing::Pixels pixels = testing::ReadPixels(*engine, received);
        for (uint32_t y = 0; y < received->height(); ++y) {
            for (uint32_t x = 0; x < received->width(); ++x)
                ASSERT_EQ(pixels.at(x, y), pixel) << x << ", " << y;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EachEngine, NDIPictureTest, testing::EngineNames, testing::EngineTestName);

TEST_F(NDITest, WhatItCannotTakeIsDroppedAndLoggedOncePerSourceWhileTheSourceStaysAlive) {
    std::mutex lock;
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) {
        std::lock_guard guard(lock);
        lines.push_back(line);
    });
    FakeNDISender uyvy = Sender("HOST (U)"), wide = Sender("HOST (W)"), odd = Sender("HOST (O)");
    uyvy.fourcc = FakeNDIFourCC("UYVY");
    uyvy.soundFourcc = FakeNDIFourCC("FLTi");
    wide.fourcc = FakeNDIFourCC("BGRA"), wide.width = 16385, wide.height = 1;
    odd.width = 3, odd.height = 2, odd.stride = 14;
    for (const FakeNDISender& sender : {uyvy, wide, odd})
        add(sender);
    NDIDirectory directory(library);
    // Once each, in any order (sorted here).
    const std::vector<std::string> expected = {
        "NDISource: HOST (O) sends pictures of 3 × 2 with rows of 14 bytes, which are dropped",
        "NDISource: HOST (U) sends pictures as UYVY, which are dropped",
        "NDISource: HOST (U) sends sound as FLTi, which is left out",
        "NDISource: HOST (W) sends pictures of 16385 × 1 with rows of 65540 bytes, which are dropped"};
    std::atomic<int> delivered = 0;
    std::vector<std::shared_ptr<FrameSource>> sources;
    for (const char* title : {"HOST (U)", "HOST (W)", "HOST (O)"}) {
        sources.push_back(connect(directory, title));
        ASSERT_NE(sources.back(), nullptr);
        sources.back()->output().setFrameHandler([&](const std::shared_ptr<Picture>&) { ++delivered; });
        sources.back()->output().setSoundHandler([&](const std::shared_ptr<SourceSound>&) { ++delivered; });
    }
    // Long enough for several pictures and blocks of each.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_TRUE(sources[0]->isAlive());
    EXPECT_FALSE(sources[0]->hasSound());
    sources.clear();
    SetLogSink({});
    EXPECT_EQ(delivered, 0);
    std::ranges::sort(lines);
    EXPECT_EQ(lines, expected);
}

// A source counts as sending sound until three seconds after its last block, and as alive for three
// seconds after it was made, then only while its sender counts the connection. (What the sound holds is
// measured on a take's decoded movies.) Stop lets go of the receiver, and from a handler returns at once.
TEST_F(NDITest, SoundAndLifeFollowTheirThreeSecondRulesAndStopLetsGoOfTheReceiver) {
    FakeNDISender sounding = Sender("HOST (S)");
    sounding.fourcc = 0;
    sounding.soundFourcc = FakeNDIFourCC("FLTp");
    const int sounds = add(sounding), id = add(Sender("HOST (A)"));
    NDIDirectory directory(library);
    auto source = connect(directory, "HOST (S)");
    ASSERT_NE(source, nullptr);
    const double made = MediaClock::now();
    std::atomic<double> last = 0;
    source->output().setSoundHandler([&](const std::shared_ptr<SourceSound>&) { last = MediaClock::now(); });
    ASSERT_TRUE(WaitFor([&] { return source->hasSound(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    FakeNDI_RemoveSender(sounds);
    // Alive until its grace is over, though its sender left at once.
    EXPECT_TRUE(WaitFor([&] { return !source->isAlive(); }, 10));
    EXPECT_GE(MediaClock::now() - made, NDISource::ConnectionGrace - 0.1); // made a moment before `made`
    EXPECT_TRUE(WaitFor([&] { return !source->hasSound(); }, 10));
    EXPECT_GE(MediaClock::now() - last, NDISource::SoundInterval - 0.1);

    auto outside = connect(directory, "HOST (A)"), inside = connect(directory, "HOST (A)");
    ASSERT_EQ(FakeNDI_ReceiverCount(id), 2) << "a receiver for each source";

    outside->stop();
    EXPECT_EQ(FakeNDI_ReceiverCount(id), 1);
    EXPECT_FALSE(outside->isAlive());
    outside->output().setFrameHandler([](const std::shared_ptr<Picture>&) {});
    EXPECT_FALSE(outside->output().wantsFrames());

    std::atomic<int> calls = 0;
    inside->output().setFrameHandler([&, source = inside.get()](const std::shared_ptr<Picture>&) {
        ++calls;
        source->stop();
    });
    ASSERT_TRUE(WaitFor([&] { return FakeNDI_ReceiverCount(id) == 0; }));
    EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace quorva
