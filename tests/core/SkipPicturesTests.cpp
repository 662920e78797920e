// Movies of H.264 and HEVC whose held slots are skip pictures, read back with programs that nobody here
// wrote: ffmpeg decodes them strictly, ffprobe counts their packets and keys, MediaInfo and GStreamer
// read their rate and length.
#include "core/movie/EncoderSetup.h"
#include "core/movie/MovieWriter.h"
#include "core/movie/SkipPictures.h"
#include "platform/Log.h"
#include "tests/Processes.h"
#include "tests/core/MovieReading.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using testing::Lines;
using testing::Quoted;
using testing::Shell;

// The marker luma of the `index`th picture: a square at the top left that tells the pictures apart.
int Marker(int64_t index) {
    return 30 + 12 * int(index % 16);
}

// A picture for `slot`: a texture that moves with the slot, the marker square over it.
MovieFrame Picture(MovieWriter& writer, int64_t slot, int64_t index) {
    MovieFrame frame = writer.makeFrame();
    for (int y = 0; y < frame->height; ++y)
        for (int x = 0; x < frame->width; ++x)
            frame->data[0][y * frame->linesize[0] + x] =
                x < 48 && y < 48 ? uint8_t(Marker(index)) : uint8_t(40 + (2 * x + y + 5 * slot) % 160);
    for (int plane : {1, 2})
        for (int y = 0; y < frame->height / 2; ++y)
            for (int x = 0; x < frame->width / 2; ++x)
                frame->data[plane][y * frame->linesize[plane] + x] =
                    uint8_t(128 + (plane == 1 ? 1 : -1) * ((x + slot) % 32));
    return frame;
}

struct Case {
    Codec codec;
    std::string preset;
    int64_t width, height;
    int64_t threads;
    // Whether the encoder's picture after held slots is an IDR, or a picture renumbered after the skip
    // pictures, which stand in for the one picture it refers to.
    bool restarts;
};

std::string NameOf(const ::testing::TestParamInfo<Case>& info) {
    const Case& c = info.param;
    return NameOf(c.codec) + "_" + c.preset + "_" + std::to_string(c.width) + "x" + std::to_string(c.height) +
           "_threads" + std::to_string(c.threads) + (c.restarts ? "_restarts" : "_renumbers");
}

class SkipPicturesMovie : public ::testing::TestWithParam<Case> {
protected:
    testing::TemporaryFolder _folder;
};

// Writes a movie of `slots` slots at 30 a second with `pictures` in their slots, the others held, and
// checks it: every held slot decodes to exactly the picture before it and every picture where it belongs,
// the picture after a held run is a key frame only where the encoder restarts, and the movie reads as a
// constant rate of one picture a slot.
void WriteAndCheck(const fs::path& path, const std::vector<int64_t>& pictures, int64_t slots) {
    const Case& c = SkipPicturesMovie::GetParam();
    {
        Result<std::unique_ptr<MovieWriter>> made = MovieWriter::make(path, {.codec = c.codec,
                                                                             .width = c.width,
                                                                             .height = c.height,
                                                                             .framesPerSecond = 30,
                                                                             .preset = c.preset,
                                                                             .threads = c.threads});
        ASSERT_TRUE(made) << made.error().message();
        MovieWriter& writer = *made.value();
        for (size_t i = 0; i < pictures.size(); ++i)
            ASSERT_TRUE(writer.appendFrame(Picture(writer, pictures[i], int64_t(i)), pictures[i]));
        ASSERT_TRUE(writer.finish(slots));
        EXPECT_EQ(writer.framesWritten(), pictures.size());
        EXPECT_EQ(writer.framesHeld(), uint64_t(slots) - pictures.size());
    }

    // Each slot shows its own picture: black, then each picture until the next.
    const std::set<int64_t> isPicture(pictures.begin(), pictures.end());
    const testing::Movie movie = testing::ReadMovie(path, {{24, 24}});
    ASSERT_EQ(movie.lumas.size(), size_t(slots));
    for (int64_t slot = 0, index = -1; slot < slots; ++slot) {
        index += isPicture.contains(slot);
        EXPECT_NEAR(movie.lumas[size_t(slot)].at(0), index < 0 ? 16 : Marker(index), 4) << "slot " << slot;
    }

    // A strict decode, with a checksum of every picture (and ffmpeg's complaints among them).
    const std::vector<std::string> sums =
        Lines(Shell("ffmpeg -v error -xerror -i " + Quoted(path) +
                    " -map 0:v -f framemd5 - 2>&1 | awk -F ', ' '!/^#/ { print $NF }'"));
    ASSERT_EQ(sums.size(), size_t(slots)) << ::testing::PrintToString(sums);

    // One packet a slot, each lasting one slot; held slots exactly the picture before them and (but the
    // first, of black, encoded) of a few bytes, skip pictures rather than pictures encoded again.
    const std::vector<std::string> packets = Lines(Shell("ffprobe -v error -select_streams v:0 -show_entries "
                                                         "packet=duration,size,flags -of csv=p=0 " +
                                                         Quoted(path)));
    ASSERT_EQ(packets.size(), size_t(slots));
    const std::string duration = packets[0].substr(0, packets[0].find(','));
    for (int64_t slot = 1; slot < slots; ++slot) {
        const std::string& packet = packets[size_t(slot)];
        EXPECT_EQ(packet.substr(0, packet.find(',')), duration) << "slot " << slot;
        const bool key = packet.find(",K") != std::string::npos;
        // (The first picture, after black, may be a scene cut to the encoder.)
        if (isPicture.contains(slot) && !isPicture.contains(slot - 1) &&
            (c.restarts || slot != pictures[0])) {
            EXPECT_EQ(key, c.restarts) << "the picture after held slot " << slot - 1 << ": " << packet;
        } else if (!isPicture.contains(slot)) {
            EXPECT_EQ(sums[size_t(slot)], sums[size_t(slot - 1)]) << "held slot " << slot;
            EXPECT_FALSE(key) << "held slot " << slot;
            const size_t size = size_t(std::atoll(packet.c_str() + packet.find(',') + 1));
            EXPECT_LT(size, 100u) << "held slot " << slot << ": " << packet;
        }
    }
    EXPECT_EQ(Shell("mediainfo --Inform='Video;%FrameRate_Mode% %FrameCount%' " + Quoted(path)),
              "CFR " + std::to_string(slots) + "\n");
    const double probed = testing::FFprobeDuration(path);
    EXPECT_NEAR(probed, double(slots) / 30, 1e-3);
    EXPECT_NEAR(testing::GStreamerDuration(path), probed, 0.05);
}

// Held slots of every kind: before the first picture, one alone, a run, a run over a fragment's end, and
// to the finish; then a run longer than the numbers count before they wrap (x264's frame_num counts to 16
// here, x265's picture order count to 256) and than a GOP, after which the pictures still decode exactly.
TEST_P(SkipPicturesMovie, HeldSlotsRepeatThePictureBeforeExactlyEvenPastTheNumbersWrap) {
    {
        SCOPED_TRACE("every kind");
        WriteAndCheck(_folder / "kinds.mov", {3,  4,  5,  7,  16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26,
                                              27, 34, 35, 36, 37, 38, 40, 42, 44, 45, 46, 47, 48, 49, 50},
                      60);
    }
    SCOPED_TRACE("a long run");
    WriteAndCheck(_folder / "long.mov", {0, 1, 2, 3, 4, 300, 301, 302, 303, 304}, 310);
}

// x264's fast presets refer to one frame and its slower ones to more; x265's ultrafast and superfast to one,
// with coding tree units of 32 over coding units of 16 and of 8 (its slower presets refer to more, and the
// writer encodes their held slots again).
INSTANTIATE_TEST_SUITE_P(Encoders, SkipPicturesMovie,
                         ::testing::Values(Case{Codec::H264, "ultrafast", 480, 270, 0, false},
                                           Case{Codec::H264, "veryfast", 480, 270, 0, false},
                                           Case{Codec::H264, "ultrafast", 200, 120, 1, false},
                                           Case{Codec::H264, "faster", 480, 270, 0, true},
                                           Case{Codec::HEVC, "ultrafast", 480, 270, 0, false},
                                           Case{Codec::HEVC, "ultrafast", 200, 120, 1, false},
                                           Case{Codec::HEVC, "superfast", 200, 120, 0, false}),
                         NameOf);

// x265's slower presets refer to more than the last picture, so their pictures cannot be renumbered after
// skip pictures, and an IDR after them would cost x265 more than encoding the held slots: it encodes them,
// and says so.
TEST_F(SkipPicturesMovie, X265sSlowerPresetsEncodeHeldSlotsAgain) {
    std::vector<std::string> log;
    SetLogSink([&](const std::string& line) { log.push_back(line); });
    Result<std::unique_ptr<MovieWriter>> made = MovieWriter::make(
        _folder / "again.mov",
        {.codec = Codec::HEVC, .width = 200, .height = 120, .framesPerSecond = 30, .preset = "veryfast"});
    SetLogSink({});
    ASSERT_TRUE(made) << made.error().message();
    EXPECT_NE(
        std::find(log.begin(), log.end(),
                  "MovieRecorder: again.mov: held slots are encoded again, as libx265's pictures cannot be "
                  "skipped: x265 would have to start afresh after them"),
        log.end());
    made.value()->cancel();
}

// What the skip pictures cannot follow is refused, so that the writer encodes those held slots instead.
TEST(SkipPictures, RefusesWhatItCannotFollow) {
    EXPECT_FALSE(SkipPictures::make(AV_CODEC_ID_PRORES, nullptr, 0));
    const uint8_t garbage[] = {0, 0, 0, 1, 0x67, 0xff};
    EXPECT_FALSE(SkipPictures::make(AV_CODEC_ID_H264, garbage, sizeof garbage));
    EXPECT_FALSE(SkipPictures::make(AV_CODEC_ID_H264, nullptr, 0));

    // x264's own parameter sets and first picture, an IDR, from x264 opened as a movie's (on the processor).
    Result<VideoEncoder> opened = OpenVideoEncoder(
        {.codec = Codec::H264, .width = 64, .height = 48, .framesPerSecond = 30, .preset = "ultrafast"},
        EncoderUse::SpeedMeasurement);
    ASSERT_TRUE(opened) << opened.error().message();
    AVCodecContext* encoder = opened.value().context.get();
    Result<std::unique_ptr<SkipPictures>> made =
        SkipPictures::make(AV_CODEC_ID_H264, encoder->extradata, size_t(encoder->extradata_size));
    ASSERT_TRUE(made) << made.error().message();
    SkipPictures& skips = *made.value();
    // x264's pictures are renumbered after skip pictures only when the caller knows the encoder for one
    // that refers to its last picture and its sequence says one reference frame: here it does not.
    // (The movies above show the renumbering where it is known, and that its own picture parameter set
    // takes an id that x264 leaves free.)
    EXPECT_TRUE(skips.restartsEncoder());

    AVFrame* frame = av_frame_alloc();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = 64;
    frame->height = 48;
    ASSERT_GE(av_frame_get_buffer(frame, 0), 0);
    for (int plane : {0, 1, 2}) // black
        std::memset(frame->data[plane], plane ? 128 : 16, size_t(frame->linesize[plane] * (plane ? 24 : 48)));
    AVPacket* packet = av_packet_alloc();
    ASSERT_GE(avcodec_send_frame(encoder, frame), 0);
    ASSERT_GE(avcodec_send_frame(encoder, nullptr), 0);
    ASSERT_GE(avcodec_receive_packet(encoder, packet), 0);
    std::vector<uint8_t> picture(packet->data, packet->data + packet->size);
    std::vector<uint8_t> renumbered;
    EXPECT_TRUE(skips.follow(picture.data(), picture.size(), renumbered));
    EXPECT_TRUE(renumbered.empty());
    // The same slice marked as not kept for reference (nal_ref_idc 0) cannot be followed.
    for (size_t i = 0; i + 4 < picture.size(); ++i)
        if (picture[i] == 0 && picture[i + 1] == 0 && picture[i + 2] == 1 && (picture[i + 3] & 0x1f) == 5)
            picture[i + 3] &= 0x9f;
    EXPECT_FALSE(skips.follow(picture.data(), picture.size(), renumbered));
    EXPECT_FALSE(skips.follow(nullptr, 0, renumbered));
    av_packet_free(&packet);
    av_frame_free(&frame);
}

} // namespace
} // namespace quorva
