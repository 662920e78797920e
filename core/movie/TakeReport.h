#pragma once

#include "platform/Error.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quorva {

// What a take held, written beside its movies when it ends, so that a crew knows after a show what each
// take holds without opening every movie: "<stem>.json" for programs and "<stem>.html", one page that
// stands alone (its pictures inside it), for people.

// One movie of the take, as its report gives it. (Every member has an initializer so that a designated
// initializer may leave any out.)
struct TakeReportMovie {
    std::string file{};   // its name, in the report's folder
    std::string source{}; // the source's title; empty for the assembled movie
    bool assembled = false;
    int64_t width = 0;
    int64_t height = 0;
    double frameRate = 0;
    std::string codec{};   // "h264", "prores422", …
    std::string encoder{}; // "libx264 ultrafast", "prores_ks"
    uint64_t framesDue = 0;
    // The pictures that the movie holds, held ones included.
    uint64_t framesWritten = 0;
    uint64_t framesHeld = 0;
    uint64_t framesDropped = 0;
    double soundSeconds = 0;
    double soundLeftOutSeconds = 0;
    std::optional<std::string> error{};
    // Pictures held and dropped in each second of the movie.
    std::vector<uint32_t> heldEachSecond{};
    std::vector<uint32_t> droppedEachSecond{};
};

struct TakeReport {
    std::string name{};     // the stem the take's files share
    std::string started{};  // ISO 8601, with the offset from UTC
    double duration = 0;    // seconds
    std::string timecode{}; // of the movies' time 0; empty without one
    // Why the take ended, when neither the user nor its planned duration ended it.
    std::optional<std::string> stopReason{};
    std::filesystem::path folder{};
    uint64_t freeBytesAtStart = 0;
    uint64_t freeBytesAtEnd = 0;
    std::vector<TakeReportMovie> movies{};
};

// "2026-11-26T21:04:05+01:00": the local time, to the second, with its offset from UTC.
std::string ISO8601(std::chrono::system_clock::time_point time);
// The timecode, "HH:MM:SS:FF" (";" before the frames when dropped frame numbers are counted, at 29.97
// and 59.94), of a movie whose time 0 is `timeOfDay` seconds after midnight at `framesPerSecond`, as the
// movies themselves carry it; empty for a negative time of day.
std::string TimecodeAt(double timeOfDay, double framesPerSecond);

// A picture from the middle of `movie`, at most `width` pixels wide, as a JPEG "data:" URI; nothing when
// no picture can be read from it.
std::optional<std::string> Thumbnail(const std::filesystem::path& movie, int width = 320);

std::string ReportJSON(const TakeReport& report);
// `pictures`, parallel to the report's movies, are "data:" URIs; an empty one shows that the movie had
// no picture to show.
std::string ReportHTML(const TakeReport& report, const std::vector<std::string>& pictures);

// Writes "<name>.json" and "<name>.html" in the report's folder, a picture from each movie in the page.
// Never replaces a file: a name that is taken is an error.
Result<> WriteTakeReport(const TakeReport& report);

} // namespace quorva
