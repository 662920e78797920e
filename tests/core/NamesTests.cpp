#include "core/movie/MovieRecorderSettings.h"

#include <gtest/gtest.h>

namespace quorva {
namespace {

// A name matches whole once its ASCII letters are lower-cased: no trimming, no prefix, no NUL inside. (The
// tables themselves, and their order, are read back wherever a refusal lists them.)
TEST(Names, ANameMatchesWholeAfterLowerCasing) {
    using Case = std::pair<std::string_view, std::optional<Codec>>;
    for (auto [name, codec] :
         {Case{"H264", Codec::H264}, Case{"HEVC", Codec::HEVC}, Case{"PRORES422", Codec::ProRes422},
          Case{"ProRes4444", Codec::ProRes4444}, Case{"prores", {}}, Case{"", {}}, Case{" h264", {}},
          Case{"h264 ", {}}, Case{"prores44444", {}}, Case{std::string_view("h264\0", 5), {}}})
        EXPECT_EQ(ValueNamed<Codec>(name), codec) << '"' << name << '"';
}

} // namespace
} // namespace quorva
