#include "core/movie/TakeNaming.h"

#include "tests/core/MovieReading.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

// "a, b" as {"a", "b"}.
Names List(const std::string& text) {
    Names names;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find(", ", at), text.size());
        names.push_back(text.substr(at, end - at));
        at = end + 2;
    }
    return names;
}

// Each case in an empty folder holding only `existing` ("@name": a link to nowhere). (That naming only
// looks, the take's tests see: a take that writes nothing leaves its folder empty.) The movies named: the
// separate ones, then " + " and the assembled one.
TEST(TakeNaming, EveryMovieOfATakeSharesTheFirstNumberAtWhichNoneOfThemCollides) {
    constexpr TakeOutput Separate = TakeOutput::Separate, Assembled = TakeOutput::Assembled,
                         Both = TakeOutput::Both;
    // Files there, the take's name, its sources, its output, and the movies named.
    using Case = std::tuple<std::string, std::string, std::string, TakeOutput, std::string>;
    std::string upToEleven = "Take.mov";
    for (int n = 2; n <= 11; ++n)
        upToEleven += ", Take " + std::to_string(n) + ".mov";
    const Case cases[] = {
        {"", "a/b:c", "Cam", Separate, "a-b-c.mov"},
        {"", "..Répétition: acte 2", "Cam", Separate, "-.Répétition- acte 2.mov"}, // only the leading dot
        // A ".mov" in any case is dropped; the name is cleaned first, so "-mov" has none to drop.
        {"", "Show.tar.Mov", "Cam", Separate, "Show.tar.mov"},
        {"", "Show.mp4", "Cam", Separate, "Show.mp4.mov"},
        {"", ".mov", "Cam", Separate, "-mov.mov"},
        {"", "Show", "Cam/1, .Desk", Separate, "Show — Cam-1.mov, Show — -Desk.mov"},
        // A separate movie's name that is taken does not matter to an assembled take, but with both, one
        // source keeps its title, so that its movie and the assembled one differ.
        {"Show — Cam.mov", "Show", "Cam", Assembled, " + Show.mov"},
        {"Show — Cam.mov", "Show", "Cam", Both, "Show 2 — Cam.mov + Show 2.mov"},
        // Any one collision moves the whole take on; a dangling link is still a name that writing would
        // clobber, and another case is another file on this system.
        {"Show.mov, Show 2 — Desk.mov, @Show 3 — Cam.mov, show 4 — cam.mov", "Show", "Cam, Desk", Both,
         "Show 4 — Cam.mov, Show 4 — Desk.mov + Show 4.mov"},
        {upToEleven, "Take", "Cam", Separate, "Take 12.mov"},
        // A take's report counts as one of its files, whichever of the two is left; a file named like a
        // source's movie but ending in .json is no report.
        {"Show.json", "Show", "Cam", Separate, "Show 2.mov"},
        {"Show.mov, Show 2.html", "Show", "Cam, Desk", Both,
         "Show 3 — Cam.mov, Show 3 — Desk.mov + Show 3.mov"},
        {"Show — Cam.json", "Show", "Cam, Desk", Separate, "Show — Cam.mov, Show — Desk.mov"},
    };
    const testing::TemporaryFolder folder;
    for (const auto& [existing, name, titles, output, named] : cases) {
        SCOPED_TRACE(name + " in {" + existing + "}");
        fs::remove_all(folder);
        fs::create_directory(folder);
        for (const std::string& file : List(existing)) {
            if (file[0] == '@')
                fs::create_symlink(folder / "nowhere", folder / file.substr(1));
            else
                std::ofstream(folder / file) << file;
        }
        const TakeURLs urls = URLsForName(name, List(titles), output, folder);
        // A movie's name, in the folder, made of the stem up to its title or extension.
        auto movie = [&](const fs::path& url) {
            const std::string file = url.filename().string(), rest = file.substr(urls.stem.size());
            EXPECT_EQ(url.parent_path(), folder);
            EXPECT_TRUE(file.starts_with(urls.stem) && (rest == ".mov" || rest.starts_with(" — ")))
                << file << " is not of the stem " << urls.stem;
            return file;
        };
        std::string movies;
        for (const fs::path& url : urls.separate)
            movies += (movies.empty() ? "" : ", ") + movie(url);
        if (urls.assembled)
            movies += " + " + movie(*urls.assembled);
        EXPECT_EQ(movies, named);
    }
}

} // namespace
} // namespace quorva
