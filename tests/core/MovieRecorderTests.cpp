#include "platform/Log.h"
#include "platform/MediaClock.h"
#include "sources/ToneGenerator.h"
#include "tests/core/MovieRecorderFixture.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <sys/mount.h>
#include <thread>

namespace quorva {
namespace {

using namespace quorva::testing;

constexpr Codec H264 = Codec::H264, HEVC = Codec::HEVC, ProRes422 = Codec::ProRes422,
                ProRes4444 = Codec::ProRes4444;
constexpr double T0 = 1000; // host time of the first frame

// A movie in each codec, on each engine (which converts into the codec's pixel format): a second of 30
// frames that arrive off the grid, with tone in 10 ms blocks. The movie is written by the codec's encoder
// (and says which), takes the first frame's size made even, has the codec's tag, planes and BT.709 colour,
// puts every frame on its slot of the grid in order, and its sound lasts as long as its pictures.
TEST_P(MovieRecorderEngineTest, RecordsFramesAndSoundThatDecodeBackInEachCodec) {
    // Decoders may give more bits than were written (ProRes 4444 decodes to 12), never other planes.
    struct Expected {
        Codec codec;
        const char *encoder, *tag;
        int chromaShiftX, chromaShiftY, depth;
        bool alpha;
        AVCodecID audio;
    };
    const Expected cases[] = {
        {H264, "libx264", "avc1", 1, 1, 8, false, AV_CODEC_ID_AAC},
        {HEVC, "libx265", "hvc1", 1, 1, 8, false, AV_CODEC_ID_AAC},
        {ProRes422, "prores_ks", "apcn", 1, 0, 10, false, AV_CODEC_ID_PCM_S24LE},
        {ProRes4444, "prores_ks", "ap4h", 0, 0, 10, true, AV_CODEC_ID_PCM_S24LE},
    };
    auto picture = MakeSolidPicture(*engine, 321, 241, {40, 160, 200, 255});
    for (const Expected& expected : cases) {
        SCOPED_TRACE(NameOf(expected.codec));
        const std::filesystem::path path = folder / (NameOf(expected.codec) + ".mov");
        std::mutex lock;
        std::vector<std::string> lines;
        SetLogSink([&](const std::string& line) {
            std::lock_guard guard(lock);
            lines.push_back(line);
        });
        ASSERT_TRUE(recorder->startWritingToURL(path, Settings(expected.codec, 0, 0, 30, true)));
        ToneGenerator tone;
        for (int i = 0, block = 0; i < 30; ++i) {
            ASSERT_TRUE(Append(picture, T0 + i / 30.0 + (i % 3) * 0.004));
            for (; block < (i + 1) * 10 / 3; ++block)
                recorder->appendSound(tone.nextSound(480), T0 + (block + 1) * 0.01);
        }
        EXPECT_FALSE(Finish(T0 + 1.0));
        SetLogSink({});
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.starts_with("MovieRecorder: ") && line.find(expected.encoder) != std::string::npos;
        })) << expected.encoder;
        // (That none written counts as dropped too is the concurrency case's to check.)
        EXPECT_EQ(recorder->framesWritten(), 30u);
        EXPECT_EQ(recorder->outputSize(), (Size{320, 240}));

        Movie movie = ReadMovie(path);
        EXPECT_EQ(movie.videoTag, expected.tag); // which names the codec to every reader
        EXPECT_EQ(std::pair(movie.width, movie.height), std::pair(320, 240));
        const AVPixFmtDescriptor* decoded = av_pix_fmt_desc_get(movie.pixelFormat);
        ASSERT_NE(decoded, nullptr);
        EXPECT_EQ(std::tuple(int(decoded->log2_chroma_w), int(decoded->log2_chroma_h),
                             bool(decoded->flags & AV_PIX_FMT_FLAG_ALPHA)),
                  std::tuple(expected.chromaShiftX, expected.chromaShiftY, expected.alpha));
        EXPECT_GE(decoded->comp[0].depth, expected.depth);
        EXPECT_EQ(std::tuple(movie.primaries, movie.transfer, movie.matrix, movie.range),
                  std::tuple(AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG));
        ASSERT_EQ(movie.times.size(), 30u);
        for (size_t i = 0; i < movie.times.size(); ++i)
            EXPECT_EQ(std::llround(double(movie.times[i]) * movie.timeBase * 30), int64_t(i))
                << "picture " << i;
        EXPECT_NEAR(movie.videoDuration, 1.0, 1e-6);
        EXPECT_EQ(movie.reordered, 0);
        // The colour in BT.709 limited range, on the 8-bit scale: Y 153.3, Cb 71.3, Cr 150.4. The picture is
        // scaled to lose its odd pixel, and libyuv's bilinear filter weighs its columns 127/128, so the
        // processor's comes out up to two levels darker before the encoder's own error.
        const AVFrame* decodedPicture = movie.pictures[0].get();
        ASSERT_EQ(decodedPicture->format, movie.pixelFormat);
        const double colour[] = {153.3, 71.3, 150.4};
        for (int plane = 0; plane < 3; ++plane) {
            const int y = 120 >> (plane ? decoded->log2_chroma_h : 0),
                      x = 160 >> (plane ? decoded->log2_chroma_w : 0);
            const uint8_t* row = decodedPicture->data[plane] + y * decodedPicture->linesize[plane];
            const int depth = decoded->comp[plane].depth;
            const double value =
                depth > 8 ? reinterpret_cast<const uint16_t*>(row)[x] / double(1 << (depth - 8)) : row[x];
            EXPECT_NEAR(value, colour[plane], 3.0) << "plane " << plane;
        }
        EXPECT_EQ(std::tuple(movie.audioCodec, movie.sampleRate, movie.channels),
                  std::tuple(expected.audio, 48000, 2));
        EXPECT_NEAR(movie.audioDuration, movie.videoDuration, 1.0 / 30);
        EXPECT_NEAR(recorder->soundWritten(), 1.0, 1.0 / 30);
    }
}

// A picture wider than the movie is letterboxed; ProRes 4444 keeps the bars transparent. Flipped, it
// is mirrored top to bottom.
TEST_P(MovieRecorderEngineTest, FitsAPictureInsideTheMovieAndFlipsIt) {
    ASSERT_TRUE(recorder->startWritingToURL(folder / "fit.mov", Settings(ProRes4444, 320, 240, 10, false)));
    // Red above, blue below; fitted, it fills rows 60 to 179.
    auto picture = MakePicture(*engine, 320, 120, [](uint32_t, uint32_t y) {
        return y < 60 ? Pixel{0, 0, 255, 255} : Pixel{255, 0, 0, 255};
    });
    ASSERT_TRUE(Append(picture, T0));
    ASSERT_TRUE(Append(picture, T0 + 0.1, true));
    EXPECT_FALSE(Finish(T0 + 0.2));
    Movie movie = ReadMovie(folder / "fit.mov");
    ASSERT_EQ(movie.pictures.size(), 2u);
    for (int flipped = 0; flipped < 2; ++flipped) {
        const AVFrame* picture = movie.pictures[size_t(flipped)].get();
        const int depth = av_pix_fmt_desc_get(AVPixelFormat(picture->format))->comp[3].depth;
        auto sample = [&](int plane, int y) {
            return int(
                reinterpret_cast<const uint16_t*>(picture->data[plane] + y * picture->linesize[plane])[160]);
        };
        for (int y : {0, 50, 190, 239})
            EXPECT_EQ(sample(3, y), 0) << "bar row " << y;
        EXPECT_GT(sample(3, 120), 0.99 * ((1 << depth) - 1));
        // Red is high in Cr (plane 2), blue in Cb (plane 1).
        const bool redOnTop = sample(2, 80) > sample(2, 160) && sample(1, 80) < sample(1, 160);
        EXPECT_EQ(redOnTop, flipped == 0);
    }
}

// A source that stalls: its movie goes on showing its last picture, in time with the clock, so that it is
// as long as the take and its fragments reach the file as they would. (The black before its first is the
// writer's, which the skip pictures' movies read.)
TEST_F(MovieRecorderTest, ASlotThatNoPictureReachesShowsTheOneBefore) {
    const double start = MediaClock::now();
    ASSERT_TRUE(
        recorder->startWritingToURL(folder / "stall.mov", Settings(H264, 160, 120, 30, false), start));
    auto picture = MakeSolidPicture(*engine, 160, 120, {250, 250, 250, 255});
    ASSERT_TRUE(testing::WaitFor([&] { return MediaClock::now() > start + 0.2; }));
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(Append(picture, MediaClock::now()));
        std::this_thread::sleep_for(std::chrono::milliseconds(33));
    }
    // Nothing more comes: the slots fill on their own, half a second late.
    ASSERT_TRUE(testing::WaitFor([&] { return recorder->framesHeld() >= 30; }));
    const double end = MediaClock::now();
    EXPECT_FALSE(Finish(end));
    EXPECT_EQ(recorder->framesWritten(), 5u);
    const Movie movie = ReadMovie(folder / "stall.mov", {{80, 60}});
    EXPECT_EQ(movie.times.size(), 5 + recorder->framesHeld());
    EXPECT_NEAR(double(movie.times.size()), (end - start) * 30, 1.5);
    ASSERT_GE(movie.lumas.size(), 5u);
    EXPECT_GT(movie.lumas.back()[0], 200) << "the last picture held";
}

// Sound at 44.1 kHz, in blocks of 10 ms, that begins 5.5 s after the only picture: the gap before it is
// written a second of silence at a time, so that pictures never wait behind it, and a finish that comes
// meanwhile still writes the rest of the gap and the sound behind it, converted to 48 kHz, to the end.
TEST_F(MovieRecorderTest, TheFinishWritesTheSilenceOfAGapAndTheSoundBehindItAt48kHz) {
    ASSERT_TRUE(recorder->startWritingToURL(folder / "gap.mov", Settings(H264, 160, 120, 30, true), T0));
    ASSERT_TRUE(Append(MakeSolidPicture(*engine, 160, 120, {90, 90, 90, 255}), T0));
    std::vector<float> samples;
    for (int i = 0; i < 441; ++i)
        samples.insert(samples.end(), 2, 0.5f * std::sin(2 * float(M_PI) * 1000 * float(i) / 44100));
    for (int block = 0; block < 50; ++block)
        recorder->appendSound(SourceSound::soundWithInterleavedStereoSamples(samples.data(), 441, 44100),
                              T0 + 5.5 + 0.01 * (block + 1));
    EXPECT_FALSE(Finish(T0 + 6));
    Movie movie = ReadMovie(folder / "gap.mov");
    EXPECT_NEAR(movie.videoDuration, 6.0, 1e-6);
    EXPECT_NEAR(movie.audioDuration, 6.0, 1.0 / 30);
    ASSERT_GE(movie.soundPeaks.size(), 599u);
    for (size_t i = 0; i < 548; ++i)
        ASSERT_LT(movie.soundPeaks[i], 0.01) << "10 ms piece " << i;
    for (size_t i = 552; i < 599; ++i)
        ASSERT_GT(movie.soundPeaks[i], 0.3) << "10 ms piece " << i;
}

// Every refusal says why in the user's words and leaves nothing behind. (The errors' domain, which they
// share with the writer's, is the writer's case to check.)
TEST_F(MovieRecorderTest, RefusesWhatCannotBeRecorded) {
    auto message = [&](const std::filesystem::path& url, const MovieRecorderSettings& settings) {
        Result<> started = recorder->startWritingToURL(url, settings);
        return started ? std::string("started") : started.error().message();
    };
    const MovieRecorderSettings any = Settings(H264, 0, 0, 0, true);
    EXPECT_EQ(message(folder / "missing" / "a.mov", any),
              "The folder “" + (folder / "missing").string() + "” does not exist");
    std::ofstream(folder / "taken.mov") << "precious";
    EXPECT_EQ(message(folder / "taken.mov", any), "“taken.mov” already exists");
    std::filesystem::create_directory(folder / "locked");
    if (mount("quorva-test", (folder / "locked").c_str(), "tmpfs", MS_RDONLY, nullptr) == 0) {
        EXPECT_EQ(message(folder / "locked" / "a.mov", any),
                  "The folder “" + (folder / "locked").string() + "” cannot be written to");
        umount2((folder / "locked").c_str(), MNT_DETACH);
    }
    EXPECT_EQ(Finish(T0)->message(), "There is no recording in progress");

    // Sound before the first frame waits, at most two seconds of it, the newest block always kept.
    ASSERT_TRUE(recorder->startWritingToURL(folder / "empty.mov", any));
    EXPECT_EQ(message(folder / "other.mov", any), "A recording is already in progress");
    recorder->appendSound(SourceSound::silenceOfFrameCount(3 * 48000, 48000), T0);
    EXPECT_DOUBLE_EQ(recorder->soundLeftOut(), 1.0);
    recorder->appendSound(SourceSound::silenceOfFrameCount(48000, 48000), T0 + 1);
    EXPECT_DOUBLE_EQ(recorder->soundLeftOut(), 3.0);
    EXPECT_EQ(Finish(T0 + 2)->message(), "No frame was received, so no movie was written");

    // Sound at a rate that the converter cannot take never reaches the track: it counts as left out. One
    // frame at 0.4 Hz: 2.5 s of sound, which no converter takes.
    ASSERT_TRUE(recorder->startWritingToURL(folder / "slow.mov", Settings(H264, 160, 120, 30, true), T0));
    const float frame[2] = {0.5f, 0.5f};
    recorder->appendSound(SourceSound::soundWithInterleavedStereoSamples(frame, 1, 0.4), T0 + 3);
    EXPECT_EQ(Finish(T0 + 3)->message(), "No frame was received, so no movie was written");
    EXPECT_DOUBLE_EQ(recorder->soundLeftOut(), 2.5);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 2); // taken.mov, locked
}

// A disk that fills up half-way (here a limit on the file's size) fails the movie. The file keeps the
// fragments that reached it whole, and the counts then say what it holds: the pictures that did not
// reach it count as dropped.
TEST_F(MovieRecorderTest, AfterAFullDiskTheCountsSayWhatTheFileHolds) {
    std::mt19937 random(11);
    auto noise = MakePicture(*engine, 320, 240, [&](uint32_t, uint32_t) {
        return Pixel{uint8_t(random()), uint8_t(random()), uint8_t(random()), 255};
    });
    std::optional<Error> failure;
    recorder->setFailureHandler([&](const Error& error) { failure = error; });
    ASSERT_TRUE(
        recorder->startWritingToURL(folder / "full.mov", Settings(ProRes422, 320, 240, 10, true), T0));
    {
        // The first fragment (a second of pictures) fits; the next does not.
        testing::FileSizeLimit limit(2 << 20);
        ToneGenerator tone;
        for (int i = 0; i < 150 && recorder->isRecording(); ++i) {
            ASSERT_TRUE(Append(noise, T0 + i / 10.0));
            recorder->appendSound(tone.nextSound(4800), T0 + (i + 1) / 10.0);
        }
        ASSERT_TRUE(loop->runUntil([&] { return failure.has_value(); }, 60));
    }
    EXPECT_EQ(failure->message(), "The movie could not be written: File too large");
    const Movie movie = ReadMovie(folder / "full.mov");
    EXPECT_GE(movie.times.size(), 5u);
    EXPECT_LE(movie.times.size(), 10u);
    EXPECT_EQ(recorder->framesWritten(), movie.times.size());
    EXPECT_GE(recorder->framesWritten() + recorder->framesDropped(), 21u); // up to the one at 2 s
    EXPECT_DOUBLE_EQ(recorder->soundWritten(), double(movie.soundFrames) / 48000);
}

INSTANTIATE_TEST_SUITE_P(EachEngine, MovieRecorderEngineTest, testing::EngineNames, testing::EngineTestName);

} // namespace
} // namespace quorva
