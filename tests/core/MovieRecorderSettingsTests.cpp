#include "core/MovieRecorderSettings.h"

#include <gtest/gtest.h>

#include <limits>

namespace quorva {
namespace {

TEST(MovieRecorderSettings, CodecNamesMatchWholeAfterLowerCasingAndOutOfRangeReadsAsH264) {
    struct Case {
        std::string_view name;
        int64_t codec; // -1: no match, and the codec stays as it was
    };
    for (Case c : {Case{"H264", 0}, Case{"HEVC", 1}, Case{"PRORES422", 2}, Case{"ProRes4444", 3},
                   Case{"prores", -1}, Case{"", -1}, Case{" h264", -1}, Case{"h264 ", -1}, Case{"h26", -1},
                   Case{"prores44444", -1}, Case{"h.264", -1}}) {
        int64_t codec = -1;
        EXPECT_EQ(MovieRecorderSettings::getCodec(codec, c.name), c.codec != -1) << '"' << c.name << '"';
        EXPECT_EQ(codec, c.codec) << '"' << c.name << '"';
    }
    for (int64_t codec : {int64_t(-1), int64_t(4), std::numeric_limits<int64_t>::max()})
        EXPECT_EQ(MovieRecorderSettings::nameForCodec(codec), "h264") << codec;
}

} // namespace
} // namespace quorva
