// Fragmented movies, made by the ffmpeg tool, turned standard and read back with programs that nobody
// here wrote: ffprobe and ffmpeg, MediaInfo and GStreamer. FFmpeg's own standard movie of the same encoding
// is what a converted one must play like. The program's own movies are read back so by the command line's
// tests.
#include "core/movie/StandardMovie.h"
#include "tests/Processes.h"
#include "tests/core/MovieReading.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using testing::Lines;
using testing::Quoted;
using testing::Shell;

std::string Contents(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void Write(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

struct Box {
    std::string type;
    uint64_t offset = 0, size = 0, header = 8;
};

// The boxes from `begin` to `end` (0: the end of the file), read as any reader walks them.
std::vector<Box> Boxes(const fs::path& path, uint64_t begin = 0, uint64_t end = 0) {
    std::ifstream file(path, std::ios::binary);
    end = end ? end : fs::file_size(path);
    std::vector<Box> boxes;
    for (uint64_t at = begin; at + 8 <= end;) {
        unsigned char bytes[16] = {};
        file.clear(); // a box near the end leaves fewer than 16 bytes to read
        file.seekg(std::streamoff(at));
        file.read(reinterpret_cast<char*>(bytes), 16);
        Box box{std::string(reinterpret_cast<char*>(bytes + 4), 4), at, 0, 8};
        for (int i = 0; i < 4; ++i)
            box.size = box.size << 8 | bytes[i];
        if (box.size == 1) {
            box.size = 0;
            for (int i = 8; i < 16; ++i)
                box.size = box.size << 8 | bytes[i];
            box.header = 16;
        }
        if (box.size < box.header)
            break;
        boxes.push_back(box);
        at += box.size;
    }
    return boxes;
}

std::vector<std::string> Types(const std::vector<Box>& boxes) {
    std::vector<std::string> types;
    for (const Box& box : boxes)
        types.push_back(box.type);
    return types;
}

// Every packet as ffprobe reads it, as `fields` of awk's print make of it ($1 its stream, $2 to $7 its
// pts, dts, duration, size, position and flags), in the order of the file but by the first field.
std::vector<std::string> Packets(const fs::path& path, const std::string& fields) {
    return Lines(Shell("ffprobe -v error -show_entries packet=stream_index,pts,dts,duration,size,pos,flags "
                       "-of csv=p=0 " +
                       Quoted(path) + " | awk -F, 'NF >= 7 { print " + fields + " }' | sort -s -n -k1,1"));
}

// Where each packet lies, and whether it is a key: all of it stays when no media byte moves.
const std::string Places = "$1, $5, \"bytes at\", $6, substr($7, 1, 1)";
// What a player gets of each packet, and when.
const std::string Timing = "$1, \"pts\", $2, \"dts\", $3, \"for\", $4, $5, \"bytes\", $7";

// A checksum of every decoded picture and sound frame, with its time.
std::string Decoded(const fs::path& path) {
    return Shell("ffmpeg -v error -i " + Quoted(path) + " -map 0:v -map 0:a? -f framemd5 - 2>&1");
}

// The pictures and sound frames that GStreamer's demuxer hands on, played through.
std::pair<int64_t, int64_t> GStreamerPackets(const fs::path& path) {
    auto count = [&](const std::string& pad) {
        return std::atoll(Shell("gst-launch-1.0 -v filesrc location=" + Quoted(path) +
                                " ! qtdemux name=d d." + pad +
                                " ! fakesink sync=false silent=false 2>&1 | grep -c 'last-message = chain'")
                              .c_str());
    };
    return {count("video_0"), count("audio_0")};
}

class StandardMovieTest : public ::testing::Test {
protected:
    // A movie that the ffmpeg tool makes from `inputs`, with `fragments` (its fragmenting options) or,
    // without, standard: the same encoding both ways.
    fs::path Make(const std::string& name, const std::string& inputs, const std::string& fragments = "") {
        const fs::path path = _folder / (name + ".mov");
        EXPECT_EQ(std::system(
                      ("ffmpeg -v error -y " + inputs + " " + fragments + " -f mov " + Quoted(path)).c_str()),
                  0);
        return path;
    }

    testing::TemporaryFolder _folder;
};

// Makes `movie` standard, which must leave it standard, with no fragment and no sign of having been one,
// and every packet where it was.
void Convert(const fs::path& movie) {
    const std::vector<std::string> before = Packets(movie, Places);
    const Result<> made = MakeStandardMovie(movie);
    EXPECT_TRUE(made) << (made ? "" : made.error().message());
    const std::vector<Box> top = Boxes(movie);
    EXPECT_EQ(Types(top), (std::vector<std::string>{"ftyp", "mdat", "moov"}));
    if (top.size() == 3) {
        const std::vector<std::string> inside =
            Types(Boxes(movie, top[2].offset + top[2].header, top[2].offset + top[2].size));
        EXPECT_EQ(std::count(inside.begin(), inside.end(), "mvex"), 0);
        EXPECT_GE(std::count(inside.begin(), inside.end(), "trak"), 1);
    }
    EXPECT_EQ(Packets(movie, Places), before);
}

const std::string NTSC = "-f lavfi -i testsrc=rate=30000/1001:size=160x120 ";
const std::string Tone = "-f lavfi -i sine=r=48000 -ac 2 ";
const std::string DropFrame = " -timecode '01:02:03;04'";

// The forms of fragments that FFmpeg writes only when asked: several runs of a track in one fragment,
// data offsets from the fragment's start, signed composition offsets in version 1 runs; a track
// fragment whose data follows the one before's; reordered pictures whose edit starts at the first one
// shown; and a movie past 4 GiB, whose offsets need 64 bits.
TEST_F(StandardMovieTest, FragmentsInEveryFormOfTheirBoxesAreRead) {
    const std::string inputs = NTSC + Tone + "-t 3 -c:v libx264 -g 30 -c:a aac";
    const std::string signedOffsets = "-movflags +negative_cts_offsets";
    const fs::path interleaved =
        Make("interleaved", inputs,
             "-movflags +frag_keyframe+delay_moov+default_base_moof+negative_cts_offsets -frag_interleave 4");
    // The first with 4.5 GB of nothing (a hole in the file) after its header, in a free box with a 64-bit
    // size: its offsets count from each fragment's start, so they still hold.
    const fs::path large = _folder / "large.mov";
    constexpr uint64_t Hole = 4'500'000'000;
    {
        const std::string bytes = Contents(interleaved);
        const Box moov = Boxes(interleaved).at(1);
        std::string free = {0, 0, 0, 1, 'f', 'r', 'e', 'e'};
        for (int shift = 56; shift >= 0; shift -= 8)
            free += char(((Hole + 16) >> shift) & 0xff);
        std::ofstream file(large, std::ios::binary);
        file << bytes.substr(0, moov.offset + moov.size) << free;
        file.seekp(std::streamoff(Hole), std::ios::cur);
        file << bytes.substr(moov.offset + moov.size);
    }
    const struct {
        fs::path movie;
        std::string native; // the options of FFmpeg's standard movie of the same encoding
    } cases[] = {
        {interleaved, signedOffsets},
        {large, signedOffsets},
        {Make("following", inputs,
              "-movflags +delay_moov+omit_tfhd_offset+negative_cts_offsets -frag_duration 1000000"),
         signedOffsets},
        {Make("reordered", inputs, "-movflags +delay_moov -frag_duration 1000000"), ""},
    };
    for (const auto& [movie, native] : cases) {
        SCOPED_TRACE(movie.filename().string());
        Convert(movie);
        EXPECT_EQ(Packets(movie, Timing), Packets(Make("native", inputs, native), Timing));
    }
    EXPECT_GT(std::stoull(Packets(large, "$6").at(0)), Hole); // the lowest position of all
}

// Durations beyond 32 bits (here a clock of 10⁹ ticks a second, for the movie and its pictures) need the
// 64-bit forms of the movie's, the tracks' and the media's headers and of the edits.
TEST_F(StandardMovieTest, DurationsBeyond32BitsWidenTheirBoxes) {
    const fs::path movie = Make("wide", NTSC + Tone + "-t 5 -c:v libx264 -g 30 -bf 0 -c:a aac",
                                "-video_track_timescale 1000000000 -movie_timescale 1000000000 "
                                "-movflags +delay_moov -frag_duration 1000000");
    Convert(movie);
    EXPECT_NEAR(testing::FFprobeDuration(movie), 5.005, 0.001);
    EXPECT_NEAR(std::atof(Shell("mediainfo --Inform='Video;%Duration%' " + Quoted(movie)).c_str()) / 1000,
                5.005, 0.001);
    EXPECT_NEAR(testing::GStreamerDuration(movie), 5.005, 0.001);
}

// The writer calls follow() whenever a fragment has reached the file: wherever the end falls, a box that
// is not whole yet is read by the next call. Each step of the finish then leaves a movie that opens whole,
// and the end is the very file that one conversion makes; a finish cut short anywhere is completed by
// converting again, to that same file.
TEST_F(StandardMovieTest, EachStepAfterFollowingTheGrowingFileLeavesAWholeMovieAndACutFinishIsCompleted) {
    const fs::path movie = Make("steps", NTSC + Tone + "-t 3 -c:v libx264 -bf 0 -c:a aac" + DropFrame,
                                "-movflags +delay_moov -frag_duration 1000000");
    const fs::path converted = _folder / "converted.mov";
    fs::copy_file(movie, converted);
    ASSERT_TRUE(MakeStandardMovie(converted));
    const std::string standard = Contents(converted);
    const std::vector<std::string> places = Packets(movie, Places), timing = Packets(movie, Timing);
    const std::string decoded = Decoded(movie);
    const std::pair<int64_t, int64_t> fragmentedPackets = GStreamerPackets(movie);
    EXPECT_EQ(fragmentedPackets.first, 90);

    const int fd = ::open(movie.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    StandardMovie steps(fd);
    // Every end from a box's start to past its 64-bit header, and a few inside the boxes.
    std::vector<int64_t> ends;
    for (const Box& box : Boxes(movie))
        for (int64_t end = int64_t(box.offset); end < int64_t(box.offset) + 18; ++end)
            ends.push_back(end);
    for (int64_t end = 0; end < int64_t(fs::file_size(movie)); end += 10'007)
        ends.push_back(end);
    ends.push_back(int64_t(fs::file_size(movie)));
    std::sort(ends.begin(), ends.end());
    for (int64_t end : ends) {
        ASSERT_TRUE(steps.follow(end)) << end;
        EXPECT_LE(steps.followed(), end);
    }
    EXPECT_TRUE(steps.hasIndex());
    EXPECT_EQ(steps.fragments(), 4);
    EXPECT_FALSE(steps.hideFragments()); // not before the standard header is there
    ASSERT_TRUE(steps.appendStandardHeader());
    // Readers take the first header, the fragmented one, and get all they got before.
    const std::vector<Box> appended = Boxes(movie);
    EXPECT_EQ(Types(appended), (std::vector<std::string>{"ftyp", "moov", "moof", "mdat", "moof", "mdat",
                                                         "moof", "mdat", "moof", "mdat", "mfra", "moov"}));
    EXPECT_EQ(Packets(movie, Places), places);
    EXPECT_EQ(Packets(movie, Timing), timing);
    EXPECT_EQ(Decoded(movie), decoded);
    // GStreamer, which finds no index of the fragments at the end any more, still plays them all.
    EXPECT_EQ(GStreamerPackets(movie), fragmentedPackets);
    const std::string halfway = Contents(movie);
    ASSERT_TRUE(steps.hideFragments());
    ::close(fd);
    EXPECT_EQ(Contents(movie), standard);

    // Killed between the steps, or while the header was written: before a whole box header of it, or
    // half-way through it.
    const uint64_t header = appended.back().offset;
    for (uint64_t end : {uint64_t(halfway.size()), header + 5, header + appended.back().size / 2}) {
        SCOPED_TRACE(end);
        Write(movie, halfway.substr(0, end));
        const Result<> made = MakeStandardMovie(movie);
        ASSERT_TRUE(made) << made.error().message();
        EXPECT_EQ(Contents(movie), standard);
    }
}

// A movie that cannot be read all through stays as it was, and the answer says why.
TEST_F(StandardMovieTest, AMovieItCannotReadIsLeftAsItWas) {
    const fs::path movie = Make("fragmented", NTSC + Tone + "-t 3 -c:v libx264 -c:a aac",
                                "-movflags +delay_moov -frag_duration 1000000");
    const std::string fragmented = Contents(movie);
    const std::vector<Box> boxes = Boxes(movie);
    const Box& mfra = boxes.back();
    ASSERT_EQ(mfra.type, "mfra");
    const size_t run = fragmented.find("trun", boxes.at(2).offset);
    const size_t track = fragmented.find("tfhd", boxes.at(2).offset);
    auto changed = [&](size_t at, const std::string& bytes) {
        return fragmented.substr(0, at) + bytes + fragmented.substr(at + bytes.size());
    };
    const std::pair<std::string, std::string> cases[] = {
        {changed(run + 8, std::string("\x10\0\0\0", 4)), "a track run cannot be read (the fragment at "},
        {changed(track + 8, std::string("\0\0\0\x09", 4)),
         "a fragment has a track 9 that the header does not"},
        {changed(mfra.offset + 4, "junk"), "it holds a box ‘junk’ at " + std::to_string(mfra.offset)},
        // Cut short by a kill before the writer finished: no index of the fragments.
        {fragmented.substr(0, mfra.offset), "before its fragments' index is read"},
        {fragmented.substr(0, boxes.at(1).offset + 100), "before its fragments' index is read"},
        {Contents(Make("standard", NTSC + "-t 1 -c:v libx264")), "it is not fragmented"},
    };
    for (const auto& [bytes, why] : cases) {
        SCOPED_TRACE(why);
        Write(movie, bytes);
        const Result<> made = MakeStandardMovie(movie);
        ASSERT_FALSE(made);
        EXPECT_NE(made.error().message().find(why), std::string::npos) << made.error().message();
        EXPECT_EQ(Contents(movie), bytes);
    }
}

} // namespace
} // namespace quorva
