#include "core/MovieRecorderSettings.h"

#include <gtest/gtest.h>

#include <limits>

namespace quorva {
namespace {

TEST(MovieRecorderSettingsCodecNames, FixedOrderAndOutOfRangeReadsAsH264) {
    EXPECT_EQ(MovieRecorderSettings::codecNames(),
              (std::vector<std::string>{"h264", "hevc", "prores422", "prores4444"}));
    EXPECT_EQ(MovieRecorderSettings::nameForCodec(1), "hevc");
    EXPECT_EQ(MovieRecorderSettings::nameForCodec(3), "prores4444");
    EXPECT_EQ(MovieRecorderSettings::nameForCodec(-1), "h264");
    EXPECT_EQ(MovieRecorderSettings::nameForCodec(4), "h264");
    EXPECT_EQ(MovieRecorderSettings::nameForCodec(std::numeric_limits<int64_t>::max()), "h264");
}

TEST(MovieRecorderSettingsCodecNames, WholeNameMatchesAfterLowerCasing) {
    int64_t codec = 0;
    EXPECT_TRUE(MovieRecorderSettings::getCodec(codec, "ProRes4444"));
    EXPECT_EQ(codec, 3);
    EXPECT_TRUE(MovieRecorderSettings::getCodec(codec, "HEVC"));
    EXPECT_EQ(codec, 1);
    EXPECT_TRUE(MovieRecorderSettings::getCodec(codec, "PRORES422"));
    EXPECT_EQ(codec, 2);
    EXPECT_TRUE(MovieRecorderSettings::getCodec(codec, "H264"));
    EXPECT_EQ(codec, 0);

    // No trimming, no prefixes, no partial names: the out value stays as it was.
    codec = 2;
    for (std::string_view bad : {"prores", "", " h264", "h264 ", "h26", "prores44444", "h.264"}) {
        EXPECT_FALSE(MovieRecorderSettings::getCodec(codec, bad)) << '"' << bad << '"';
        EXPECT_EQ(codec, 2) << '"' << bad << '"';
    }
}

TEST(MovieRecorderSettingsValues, NewSettingsAreAllZero) {
    MovieRecorderSettings settings;
    EXPECT_EQ(settings.codec(), 0);
    EXPECT_EQ(settings.width(), 0);
    EXPECT_EQ(settings.height(), 0);
    EXPECT_EQ(settings.framesPerSecond(), 0);
    EXPECT_EQ(settings.megabitsPerSecond(), 0);
    EXPECT_FALSE(settings.recordsSound());
}

} // namespace
} // namespace quorva
