#include "core/movie/EncoderSpeed.h"

#include "platform/Log.h"
#include "tests/core/MovieReading.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace quorva {
namespace {

using json = nlohmann::json;

constexpr Codec H264 = Codec::H264, HEVC = Codec::HEVC;

// Speeds that make the choice easy to follow: each preset half as fast as the one before, from 100
// pixels a second of one processor.
constexpr PresetSpeeds Halving = {100, 50, 25, 12.5, 6.25, 3.125};

// The pixels a second that `processors` processors cover with presets of `speed`.
double Covered(double speed, double processors) {
    return speed * processors * EncodingShare;
}

// --- The choice --------------------------------------------------------------------------------------

TEST(ChoosePreset, TakesTheSlowestPresetThatKeepsUpElseTheFastestAndSaysSo) {
    // Exactly covered counts as keeping up; a hair more needs the next faster preset.
    EXPECT_EQ(ChoosePreset(Halving, 4, Covered(25, 4)).preset, "veryfast");
    EXPECT_EQ(ChoosePreset(Halving, 4, Covered(25, 4) * 1.001).preset, "superfast");
    EXPECT_EQ(ChoosePreset(Halving, 4, 0).preset, "medium");
    EXPECT_TRUE(ChoosePreset(Halving, 4, Covered(100, 4)).keepsUp);

    // More processors, slower presets.
    EXPECT_EQ(ChoosePreset(Halving, 8, Covered(25, 4)).preset, "faster");

    // Measurements are noisy: a slower preset measured faster than its neighbour still counts by its
    // own speed, and one that could not be measured never keeps up.
    PresetSpeeds uneven = Halving;
    uneven[4] = 0;
    uneven[3] = 30;
    EXPECT_EQ(ChoosePreset(uneven, 1, Covered(28, 1)).preset, "faster");
    EXPECT_EQ(ChoosePreset(uneven, 1, Covered(6, 1)).preset, "faster");

    PresetChoice choice = ChoosePreset(Halving, 2, Covered(100, 2) * 1.5);
    EXPECT_EQ(choice.preset, "ultrafast");
    EXPECT_FALSE(choice.keepsUp);
    // Past EncodingShare, the fastest preset still keeps up as far as FastestShare goes: the limit.
    choice = ChoosePreset(Halving, 2, 100 * 2 * FastestShare);
    EXPECT_EQ(choice.preset, "ultrafast");
    EXPECT_TRUE(choice.keepsUp);
    EXPECT_DOUBLE_EQ(choice.fastestCovers, 100 * 2 * FastestShare);

    // An encoder that could not be measured at all.
    choice = ChoosePreset(PresetSpeeds{}, 2, 1);
    EXPECT_EQ(choice.preset, "ultrafast");
    EXPECT_FALSE(choice.keepsUp);

    // A machine that reports no processors counts as one.
    EXPECT_TRUE(ChoosePreset(Halving, 0, Covered(100, 1)).keepsUp);
}

// --- Measuring and remembering -----------------------------------------------------------------------

class EncoderSpeedTest : public ::testing::Test {
protected:
    // Remembers `speeds` for `codecs` under `signature`, and answers what was remembered.
    json Remember(const std::string& signature, const PresetSpeeds& speeds,
                  std::initializer_list<const char*> codecs = {"h264", "hevc"}) {
        json value = {{"signature", signature}};
        for (const char* codec : codecs)
            for (size_t i = 0; i < speeds.size(); ++i)
                value[codec][EncoderPresets[i]] = speeds[i];
        EXPECT_TRUE(_settings->setString(value.dump(), EncoderSpeed::SettingsKey));
        return value;
    }
    json Remembered() const {
        return json::parse(_settings->stringForKey(EncoderSpeed::SettingsKey).value_or("null"));
    }

    testing::TemporaryFolder _folder;
    std::shared_ptr<SettingsStore> _settings = std::make_shared<SettingsStore>("org.quorva.test", _folder);
};

TEST_F(EncoderSpeedTest, MeasuresWhatAnotherMachineRememberedAndRemembersItForThisOne) {
    Remember("another machine", Halving);
    std::shared_ptr<EncoderSpeed> measured = EncoderSpeed::make(_settings);
    // Until this machine is measured a take gets the fastest preset and no limit, without waiting.
    const PresetChoice unmeasured = measured->presetFor(H264, 1e12);
    EXPECT_TRUE(unmeasured.preset == "ultrafast" && unmeasured.keepsUp && unmeasured.fastestCovers == 0);
    // Measured in the background; asking for the speeds waits for that measurement. An encoder measured
    // while the machine was busy comes out slower than it is, and is not remembered.
    std::mutex lock;
    std::set<std::string> busy; // "libx264", "libx265"
    SetLogSink([&](const std::string& line) {
        std::lock_guard guard(lock);
        if (line.find("busy machine") != line.npos)
            busy.insert(line.substr(line.find("libx"), 7));
    });
    measured->measureInBackground({H264, HEVC});
    const PresetSpeeds h264 = measured->speeds(H264), hevc = measured->speeds(HEVC);
    SetLogSink({});
    for (const PresetSpeeds& speeds : {h264, hevc})
        for (double speed : speeds)
            EXPECT_GT(speed, 1000);
    // Orders of magnitude that no load on the machine hides. (x265's presets come out closer together
    // than x264's: the few pictures it gets leave its key frame a large part of the cost.)
    EXPECT_GT(h264.front(), 2 * h264.back()) << "ultrafast is far faster than medium";
    EXPECT_GT(h264[2], 2 * hevc[2]) << "x265 costs far more than x264 at the same preset";

    // This machine reads back, to the last bit, what it measured while not busy, rather than measuring
    // again.
    std::shared_ptr<EncoderSpeed> again = EncoderSpeed::make(_settings);
    for (const auto& [codec, library, speeds] :
         {std::tuple(H264, "libx264", h264), std::tuple(HEVC, "libx265", hevc)}) {
        if (busy.count(library)) {
            EXPECT_FALSE(Remembered()["signature"] == MachineSignature() &&
                         Remembered().contains(NameOf(codec)));
        } else {
            EXPECT_EQ(Remembered()["signature"], MachineSignature());
            EXPECT_EQ(again->speeds(codec), speeds);
        }
    }
}

// A value is believed codec by codec, and only where it reads whole: a codec missing or damaged by hand
// is measured again when a take needs it. How remembered speeds and this machine's processors choose a
// preset shows in the controller's take that is too large for its encoders; ProRes, which that take never
// records, has no preset whatever is remembered.
TEST_F(EncoderSpeedTest, ARememberedValueIsBelievedOnlyWhereItReadsWholeAndProResHasNoPreset) {
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) { lines.push_back(line); });
    json remembered = Remember(MachineSignature(), Halving, {"h264"});
    std::shared_ptr<EncoderSpeed> believed = EncoderSpeed::make(_settings);
    EXPECT_EQ(believed->speeds(H264), Halving);
    EXPECT_TRUE(lines.empty()) << lines.front();
    for (Codec proRes : {Codec::ProRes422, Codec::ProRes4444}) {
        const PresetChoice choice = believed->presetFor(proRes, 1e12);
        EXPECT_TRUE(choice.preset.empty() && choice.keepsUp) << NameOf(proRes);
    }

    // Measured again (or taken from what this process measured before).
    remembered["h264"]["fast"] = -1;
    ASSERT_TRUE(_settings->setString(remembered.dump(), EncoderSpeed::SettingsKey));
    const PresetSpeeds measured = EncoderSpeed::make(_settings)->speeds(H264);
    EXPECT_NE(measured, Halving);
    for (double speed : measured)
        EXPECT_GT(speed, 0);
    SetLogSink({});
}

} // namespace
} // namespace quorva
