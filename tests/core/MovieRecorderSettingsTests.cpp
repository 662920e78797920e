#include "core/composition/Layout.h"
#include "core/movie/MovieRecorderSettings.h"
#include "core/movie/TakeNaming.h"

#include <gtest/gtest.h>

namespace quorva {
namespace {

using Strings = std::vector<std::string>;

// Each vocabulary's table, in the order its numbers keep; one of them for the matching they share.
TEST(Names, EachTableIsInItsOrderAndANameMatchesWholeAfterLowerCasing) {
    EXPECT_EQ(Names<Codec>(), (Strings{"h264", "hevc", "prores422", "prores4444"}));
    EXPECT_EQ(Names<TakeOutput>(), (Strings{"separate", "assembled", "both"}));
    EXPECT_EQ(Names<LayoutKind>(), (Strings{"row", "column", "grid", "focus"}));
    EXPECT_EQ(NameOf(LayoutKind::Grid), "grid");

    struct Case {
        std::string_view name;
        std::optional<Codec> codec;
    };
    for (Case c : {Case{"H264", Codec::H264}, Case{"HEVC", Codec::HEVC}, Case{"PRORES422", Codec::ProRes422},
                   Case{"ProRes4444", Codec::ProRes4444}, Case{"prores", {}}, Case{"", {}}, Case{" h264", {}},
                   Case{"h264 ", {}}, Case{"prores44444", {}}, Case{std::string_view("h264\0", 5), {}}})
        EXPECT_EQ(ValueNamed<Codec>(c.name), c.codec) << '"' << c.name << '"';
}

} // namespace
} // namespace quorva
