#include "core/movie/TakeReport.h"

#include "tests/core/MovieReading.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

TakeReport TwoMovies(const fs::path& folder) {
    TakeReport report{.name = "Show 2",
                      .started = "2026-11-26T21:04:05+01:00",
                      .duration = 3.5,
                      .timecode = "21:04:05:12",
                      .folder = folder,
                      .freeBytesAtStart = 5000000000,
                      .freeBytesAtEnd = 4000000000};
    report.movies.push_back({.file = "Show 2 — <Cam> & \"Desk\".mov",
                             .source = "<Cam> & \"Desk\"",
                             .width = 320,
                             .height = 240,
                             .frameRate = 30,
                             .codec = "h264",
                             .encoder = "libx264 ultrafast",
                             .framesDue = 105,
                             .framesWritten = 105,
                             .framesHeld = 4,
                             .framesDropped = 1,
                             .soundSeconds = 3.5,
                             .heldEachSecond = {0, 4},
                             .droppedEachSecond = {0, 0, 1}});
    report.movies.push_back({.file = "Show 2.mov",
                             .assembled = true,
                             .width = 640,
                             .height = 240,
                             .frameRate = 29.97,
                             .codec = "h264",
                             .encoder = "libx264 ultrafast",
                             .error = "The movie could not be written: No space left on device"});
    return report;
}

// Every field of the document, so that a key renamed or a value taken from the wrong field shows. (A
// reason to stop is read back from the report of the take that a full disk ends, record_full_disk.sh.)
TEST(TakeReport, TheJSONSaysWhatEachMovieHoldsAndThePageShowsItsPictureAndMarksItsSecondsHeldAndDropped) {
    TakeReport report = TwoMovies("/shows/day 1");
    EXPECT_EQ(json::parse(ReportJSON(report)), json::parse(R"({
        "name": "Show 2", "started": "2026-11-26T21:04:05+01:00", "duration": 3.5, "timecode": "21:04:05:12",
        "stop_reason": null,
        "disk": {"folder": "/shows/day 1", "free_bytes_at_start": 5000000000,
                 "free_bytes_at_end": 4000000000},
        "movies": [
            {"file": "Show 2 — <Cam> & \"Desk\".mov", "source": "<Cam> & \"Desk\"", "kind": "separate",
             "width": 320, "height": 240, "frame_rate": 30, "codec": "h264", "encoder": "libx264 ultrafast",
             "frames_due": 105, "frames_written": 105, "frames_held": 4, "frames_dropped": 1,
             "sound_seconds": 3.5, "sound_left_out_seconds": 0, "error": null},
            {"file": "Show 2.mov", "source": "", "kind": "assembled", "width": 640, "height": 240,
             "frame_rate": 29.97, "codec": "h264", "encoder": "libx264 ultrafast", "frames_due": 0,
             "frames_written": 0, "frames_held": 0, "frames_dropped": 0, "sound_seconds": 0,
             "sound_left_out_seconds": 0,
             "error": "The movie could not be written: No space left on device"}]})"));

    report.stopReason = "Why <it> stopped";
    const std::string page = ReportHTML(report, {"data:image/jpeg;base64,AAAA", ""});
    // Titles of sources are the user's text, never markup.
    EXPECT_EQ(page.find("<Cam>"), std::string::npos);
    EXPECT_NE(page.find("&lt;Cam&gt; &amp; &quot;Desk&quot;"), std::string::npos);
    EXPECT_NE(page.find("Why &lt;it&gt; stopped"), std::string::npos);
    EXPECT_NE(page.find("No picture could be read from this movie."), std::string::npos); // the second
    // A strip per movie, as long as the take, with a mark where pictures were held or dropped only.
    // Each mark as "class x title".
    std::vector<std::string> marks;
    for (size_t at = page.find("<rect class=\""); at != std::string::npos;
         at = page.find("<rect class=\"", at + 1)) {
        auto between = [&](const std::string& before, const std::string& after) {
            const size_t start = page.find(before, at) + before.size();
            return page.substr(start, page.find(after, start) - start);
        };
        marks.push_back(between("class=\"", "\"") + " " + between("x=\"", "\"") + " " +
                        between("<title>", "</title>"));
    }
    EXPECT_EQ(marks, (std::vector<std::string>{"held 1 1 s: 4 held, 0 dropped",
                                               "dropped 2 2 s: 0 held, 1 dropped"}));
    size_t strips = 0;
    for (size_t at = page.find("viewBox=\"0 0 4 20\""); at != std::string::npos;
         at = page.find("viewBox=\"0 0 4 20\"", at + 1))
        ++strips;
    EXPECT_EQ(strips, 2u); // 3.5 s: four seconds, the last one begun
}

TEST(TakeReport, TimesAreWrittenAsISO8601WithTheirOffsetAndTimecodesAsTheMoviesCarryThem) {
    const char* zone = std::getenv("TZ");
    const std::string saved = zone ? zone : "";
    const auto time = std::chrono::system_clock::from_time_t(1795000000); // 2026-11-18 11:06:40 UTC
    // St John's is half an hour off, west of UTC.
    for (auto [place, written] :
         {std::pair{"UTC", "2026-11-18T11:06:40+00:00"}, {"America/St_Johns", "2026-11-18T07:36:40-03:30"}}) {
        setenv("TZ", place, 1);
        tzset();
        EXPECT_EQ(ISO8601(time), written);
    }
    zone ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();

    EXPECT_EQ(TimecodeAt(10 * 3600 + 0.5, 25), "10:00:00:12");
    EXPECT_EQ(TimecodeAt(60, 30000.0 / 1001), "00:00:59;28"); // dropped frame numbers at 29.97
    EXPECT_EQ(TimecodeAt(60, 60), "00:01:00:00");
    EXPECT_EQ(TimecodeAt(-1, 30), "");
}

// The page's pictures of real movies are read back by the command line's tests; here, what they never
// meet: a movie that cannot be read, and a report whose files are already there.
TEST(TakeReport, AReportNeverReplacesAFile) {
    const testing::TemporaryFolder folder;
    EXPECT_FALSE(Thumbnail(folder / "nothing.mov"));
    ASSERT_TRUE(WriteTakeReport(TwoMovies(folder)));
    const Result<> again = WriteTakeReport(TwoMovies(folder));
    ASSERT_FALSE(again);
    EXPECT_NE(again.error().message().find("File exists"), std::string::npos) << again.error().message();
}

} // namespace
} // namespace quorva
