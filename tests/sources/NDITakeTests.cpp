// A take of two NDI senders of the fake runtime through the controller, output "both", read back as a
// player reads it.
#include "core/control/RecorderController.h"
#include "platform/HeadlessEventLoop.h"
#include "sources/NDIDirectory.h"
#include "tests/core/MovieReading.h"
#include "tests/fakes/FakeNDI.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

namespace quorva {
namespace {

constexpr int Width = 64, Height = 36;
// Grey sends the same luma whichever matrix a movie is encoded with: 16 + 219 × level ÷ 255.
constexpr int LumaOf(int level) {
    return 16 + (219 * level + 127) / 255;
}

// The times at which the sound turns on (`on`) or off: a sample over half of `level` after a tenth of a
// second under a tenth of it, or the last such sample before one.
std::vector<double> SoundEdges(const std::vector<float>& samples, float level, bool on) {
    constexpr size_t Quiet = 4800;
    std::vector<double> edges;
    size_t quiet = 0, lastLoud = 0; // quiet samples in a row; the one after the last loud one, from the first
    for (size_t i = 0; i < samples.size(); ++i) {
        const float value = std::fabs(samples[i]);
        if (value > level / 2) {
            if (on && quiet >= Quiet)
                edges.push_back(double(i) / 48000);
            quiet = 0;
            lastLoud = i + 1;
        } else if (value < level / 10 && ++quiet == Quiet && !on && lastLoud > 0) {
            edges.push_back(double(lastLoud) / 48000);
        }
    }
    return edges;
}

// The tone's frequency from its zero crossings, and its peak, over the 10 ms stretches that sound between
// two others that sound (so that no edge of a silence is counted).
std::pair<double, float> MeasureTone(const testing::Movie& movie, float level) {
    const std::vector<float>& loudest = movie.soundPeaks;
    size_t crossings = 0, stretches = 0;
    float peak = 0;
    for (size_t k = 1; k + 1 < loudest.size() && 480 * (k + 1) <= movie.left.size(); ++k) {
        if (std::min({loudest[k - 1], loudest[k], loudest[k + 1]}) < level / 2)
            continue;
        for (size_t i = 480 * k; i < 480 * (k + 1); ++i)
            crossings += (movie.left[i - 1] < 0) != (movie.left[i] < 0);
        ++stretches;
        peak = std::max(peak, loudest[k]);
    }
    return {stretches ? double(crossings) / 2 / (double(stretches) * 480 / 48000) : 0, peak};
}

TEST(NDITakeTest, EachMovieHoldsItsSendersColoursAndToneInStepWithItsPictures) {
    const testing::TemporaryFolder folder;
    setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
    FakeNDI_Reset();
    // A blinks, with its pictures and its tone turning on and off together twice a second.
    FakeNDISender a;
    a.name = "HOST (A)", a.fourcc = FakeNDIFourCC("BGRX"), a.width = Width, a.height = Height;
    a.colour = 0x00C0C0C0, a.blinkInterval = 1;
    a.soundFourcc = FakeNDIFourCC("FLTp"), a.toneFrequency = 1000, a.toneLevel = 0.5f;
    // B sends steadily, its sound at 44.1 kHz in one channel.
    FakeNDISender b = a;
    b.name = "HOST (B)", b.fourcc = FakeNDIFourCC("BGRA"), b.colour = 0xFF808080, b.blinkInterval = 0;
    b.frameRateN = 25, b.sampleRate = 44100, b.channelCount = 1, b.toneFrequency = 440, b.toneLevel = 0.25f;
    FakeNDI_AddSender(&a);
    FakeNDI_AddSender(&b);

    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    auto library = NDILibrary::makeWithPath(QUORVA_FAKE_NDI);
    ASSERT_TRUE(library->isAvailable()) << library->reason();
    auto controller =
        RecorderController::make(testing::Engine("processor"), std::make_shared<NDIDirectory>(library),
                                 nullptr, std::make_shared<SettingsStore>("test", folder));
    ASSERT_TRUE(loop->runUntil([&] { return controller->availableSources().size() == 2; }, 10));
    ASSERT_TRUE(controller->addSourceMatching("HOST (A)"));
    ASSERT_TRUE(controller->addSourceMatching("HOST (B)"));
    controller->setFolder(folder.string());
    controller->setOutput("both");
    controller->setLayout("row");
    controller->setGap(0);
    controller->setWidth(0); // the size the sources need: 128 × 36
    controller->setHeight(0);
    controller->setSound("HOST (A)");
    // The assembled picture is laid out with the sizes the places have measured.
    ASSERT_TRUE(loop->runUntil(
        [&] {
            return controller->places()[0]->width() == Width && controller->places()[1]->width() == Width;
        },
        10));
    ASSERT_TRUE(controller->start()) << controller->error();
    loop->runUntil([] { return false; }, 4);
    controller->stopWithCompletionHandler({});
    ASSERT_TRUE(loop->runUntil([&] { return !controller->isRecording(); }, 60));
    EXPECT_EQ(controller->recordingError(), "");

    struct Expected {
        std::string file;
        int x;       // where the sender's pictures lie
        int luma;    // while on
        bool blinks; // A's pictures and sound
        double frequency;
        float level;
    };
    const int half = Width / 2, middle = Height / 2;
    const std::vector<Expected> movies = {
        {controller->places()[0]->file(), half, LumaOf(0xC0), true, 1000, 0.5f},
        {controller->places()[1]->file(), half, LumaOf(0x80), false, 440, 0.25f},
        {controller->assembledFile(), half, LumaOf(0xC0), true, 1000, 0.5f},
        {controller->assembledFile(), Width + half, LumaOf(0x80), false, 1000, 0.5f},
    };
    for (const Expected& expected : movies) {
        SCOPED_TRACE(expected.file + " at " + std::to_string(expected.x));
        const testing::Movie movie = testing::ReadMovie(expected.file, {{expected.x, middle}});
        ASSERT_GT(movie.times.size(), 60u);
        // Pictures: black until the sender's first, then the colour sent, or black while A blinks off.
        std::vector<double> pictureEdges[2];
        bool begun = false;
        for (size_t i = 0; i < movie.lumas.size(); ++i) {
            const int luma = movie.lumas[i][0];
            const bool on = std::abs(luma - expected.luma) <= 3;
            begun = begun || on;
            ASSERT_TRUE(on || ((expected.blinks || !begun) && std::abs(luma - 16) <= 3))
                << "picture " << i << ": " << luma;
            // A turn too near either end of the movie may have too little sound around it to be heard.
            const double time = double(movie.times[i]) * movie.timeBase;
            if (i > 0 && on != (std::abs(movie.lumas[i - 1][0] - expected.luma) <= 3) && time > 0.2 &&
                time < double(movie.times.back()) * movie.timeBase - 0.2)
                pictureEdges[on].push_back(time);
        }
        // Sound: the tone sent, at its level.
        ASSERT_GT(movie.left.size(), 48000u * 3);
        const auto [frequency, peak] = MeasureTone(movie, expected.level);
        EXPECT_NEAR(frequency, expected.frequency, expected.frequency * 0.02);
        EXPECT_NEAR(peak, expected.level, expected.level * 0.1);
        if (!expected.blinks)
            continue;
        // In step: each turn of the pictures on or off is heard within one picture (1/30 s).
        for (bool on : {true, false}) {
            const std::vector<double> heard = SoundEdges(movie.left, expected.level, on);
            ASSERT_GE(pictureEdges[on].size(), 2u);
            for (double seen : pictureEdges[on]) {
                double nearest = 1e9;
                for (double edge : heard)
                    nearest = std::fabs(edge - seen) < std::fabs(nearest) ? edge - seen : nearest;
                EXPECT_LE(std::fabs(nearest), 1.0 / 30) << (on ? "on" : "off") << " at " << seen;
            }
        }
    }
    controller.reset();
    EventLoop::setMainLoop(nullptr);
}

} // namespace
} // namespace quorva
