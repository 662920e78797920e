#include "core/movie/MovieWriter.h"
#include "tests/core/MovieReading.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <string>
#include <vector>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using testing::Movie;
using testing::ReadMovie;

constexpr Codec H264 = Codec::H264, ProRes422 = Codec::ProRes422, ProRes4444 = Codec::ProRes4444;

// --- Pictures and sound to write ---------------------------------------------------------------------

// `frames` frames of a 440 Hz tone at 48 kHz, interleaved stereo, starting at frame `first`.
std::vector<float> Tone(int64_t first, int64_t frames) {
    std::vector<float> samples;
    for (int64_t i = first; i < first + frames; ++i)
        samples.insert(samples.end(), 2, 0.25f * std::sin(float(2 * M_PI * 440 * double(i) / 48000)));
    return samples;
}

MovieWriter::Format Small(Codec codec, bool sound = false, double rate = 30, int64_t width = 320,
                          int64_t height = 240) {
    return {.codec = codec, .width = width, .height = height, .framesPerSecond = rate, .recordsSound = sound};
}

// --- Fixtures ----------------------------------------------------------------------------------------

class MovieWriterTest : public ::testing::Test {
protected:
    std::unique_ptr<MovieWriter> Make(const std::string& name, const MovieWriter::Format& format) {
        Result<std::unique_ptr<MovieWriter>> made = MovieWriter::make(_folder / name, format);
        EXPECT_TRUE(made) << made.error().message();
        return made ? std::move(made).value() : nullptr;
    }

    // The message of a creation that must fail, and whether it left the folder as it was.
    std::string Refusal(const fs::path& path, const MovieWriter::Format& format) {
        Result<std::unique_ptr<MovieWriter>> made = MovieWriter::make(path, format);
        EXPECT_EQ(made ? "made" : made.error().domain(), "org.quorva.QuorvaRecorder.MovieRecorder");
        return made ? "made" : made.error().message();
    }

    testing::TemporaryFolder _folder;
};

// --- Tests -------------------------------------------------------------------------------------------

TEST(MovieWriterGridRate, KeepsWholeAndNTSCRatesExact) {
    const auto rate = [](double fps) { return std::pair(GridRate(fps).num, GridRate(fps).den); };
    EXPECT_EQ(rate(30), std::pair(30, 1));
    EXPECT_EQ(rate(30000.0 / 1001), std::pair(30000, 1001));
    EXPECT_EQ(rate(29.97), std::pair(30000, 1001));
    EXPECT_EQ(rate(12.5), std::pair(25, 2));
    EXPECT_EQ(rate(0), std::pair(60, 1));
    EXPECT_EQ(rate(std::nan("")), std::pair(60, 1));
}

// Every slot holds a picture: black before the first, the one before where none came, the last until
// the end, all counted; a picture for a slot already filled is refused and writing goes on. A frame over
// the caller's memory (a mapped GPU buffer) is encoded from that memory and handed back exactly once,
// when the encoder is done with it. (That the pictures come out as the memory held them is the recorder's
// to check, whose frames are all such.)
TEST_F(MovieWriterTest, EverySlotHoldsAPictureBlackBeforeTheFirstAndWrappedMemoryIsReleasedOnce) {
    std::unique_ptr<MovieWriter> writer = Make("held.mov", Small(H264));
    ASSERT_TRUE(writer);
    std::vector<uint8_t> memory(writer->frameBytes());
    std::atomic<int> released{0};
    {
        MovieFrame frame = writer->wrapFrame(memory.data(), [&] { ++released; });
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->data[0], memory.data());
        ASSERT_TRUE(writer->appendFrame(std::move(frame), 3));
    }
    for (int64_t slot : {4, 10})
        ASSERT_TRUE(writer->appendFrame(writer->makeFrame(), slot));
    EXPECT_FALSE(writer->appendFrame(writer->makeFrame(), 10));
    EXPECT_FALSE(writer->appendFrame(writer->makeFrame(), 2));
    ASSERT_TRUE(writer->holdUntil(12));
    EXPECT_EQ(writer->nextSlot(), 12);
    // A picture of another movie's size, and none at all.
    EXPECT_FALSE(writer->appendFrame(Make("other.mov", Small(H264, false, 30, 640, 480))->makeFrame(), 13));
    EXPECT_FALSE(writer->appendFrame(nullptr, 13));
    ASSERT_TRUE(writer->finish(15));
    EXPECT_EQ(released.load(), 1);
    // (The held slots are counted by the skip pictures' movies, the frames in the file by the recorder's.)
    EXPECT_EQ(writer->framesWritten(), 3u);

    // What the held slots show, and that each picture lies on its slot, is read back from the movies of
    // the skip-picture and recorder tests.

    // An end not after the last picture ends the movie right after it.
    std::unique_ptr<MovieWriter> early = Make("early.mov", Small(H264));
    ASSERT_TRUE(early);
    ASSERT_TRUE(early->appendFrame(early->makeFrame(), 0));
    ASSERT_TRUE(early->appendFrame(early->makeFrame(), 1));
    ASSERT_TRUE(early->finish(1));
    EXPECT_NEAR(ReadMovie(_folder / "early.mov").videoDuration, 2 / 30.0, 1e-6);
}

// The first fragment waits for every track; a sound track that gets nothing must not hold the movie back
// in memory, where a crash would take all of it. Sound that comes later fills what the track lacks: its
// gaps with silence, and what it already holds is left out.
TEST_F(MovieWriterTest, ASoundTrackThatStaysEmptyDoesNotHoldTheMovieBackAndLaterSoundFillsItsGaps) {
    std::unique_ptr<MovieWriter> writer = Make("quiet.mov", Small(H264, true, 10, 160, 120));
    ASSERT_TRUE(writer);
    for (int i = 0; i < 120; ++i) // 12 s
        ASSERT_TRUE(writer->appendFrame(writer->makeFrame(), i));
    Movie sofar = ReadMovie(_folder / "quiet.mov");
    EXPECT_GE(sofar.times.size(), 100u); // the first fragment is on the disk
    EXPECT_EQ(writer->soundPosition(), 2048);

    // Sound then begins half a second in, overlaps itself, goes on with a stretch of explicit silence,
    // and comes from time 0 to the end.
    std::vector<float> tone = Tone(0, 12 * 48000);
    ASSERT_TRUE(writer->appendSound(tone.data() + 2 * 24000, 24000, 24000));
    EXPECT_EQ(writer->soundPosition(), 48000);
    ASSERT_TRUE(writer->appendSound(tone.data() + 2 * 47000, 1480, 47000));
    EXPECT_EQ(writer->soundPosition(), 48480);
    ASSERT_TRUE(writer->appendSound(tone.data(), 480, 1000)); // wholly in the past
    EXPECT_EQ(writer->soundPosition(), 48480);
    ASSERT_TRUE(writer->appendSound(nullptr, 47520, 48480));
    EXPECT_EQ(writer->soundPosition(), 96000);
    ASSERT_TRUE(writer->appendSound(tone.data(), 12 * 48000, 0));
    ASSERT_TRUE(writer->finish(120));
    Movie movie = ReadMovie(_folder / "quiet.mov");
    EXPECT_EQ(movie.times.size(), 120u);
    EXPECT_NEAR(double(movie.soundFrames) / 48000, 12.0, 1.0 / 10);
    EXPECT_LT(movie.soundPeaks.at(25), 0.01); // in the gap, at 0.25 s
    // AAC at 256 kb/s, measured from the track: a pure tone takes the fast quantiser search less.
    EXPECT_GT(movie.audioBitRate, 32000);
    EXPECT_LT(movie.audioBitRate, 256000 + 40000);
}

TEST_F(MovieWriterTest, SoundPastTheEndIsCutAndAMovieWithoutSoundRefusesIt) {
    std::unique_ptr<MovieWriter> writer = Make("cut.mov", Small(ProRes422, true));
    ASSERT_TRUE(writer);
    for (int i = 0; i < 30; ++i)
        ASSERT_TRUE(writer->appendFrame(writer->makeFrame(), i));
    std::vector<float> tone = Tone(0, 48000 + 600);
    ASSERT_TRUE(writer->appendSound(tone.data(), 48000 + 600, 0));
    ASSERT_TRUE(writer->finish(30));
    // Sound already encoded past the end stays: at most one piece of 1024 frames.
    Movie movie = ReadMovie(_folder / "cut.mov");
    EXPECT_GE(movie.soundFrames, 48000);
    EXPECT_LE(movie.soundFrames, 48000 + 1024);

    std::unique_ptr<MovieWriter> silent = Make("silent.mov", Small(H264));
    ASSERT_TRUE(silent);
    EXPECT_FALSE(silent->appendSound(tone.data(), 480, 0));
    silent->cancel();
}

TEST_F(MovieWriterTest, CreationRefusesWhatCannotBeWrittenAndLeavesNoFile) {
    // Never overwrite, even a file that appeared after the recorder looked.
    std::ofstream(_folder / "taken.mov") << "precious";
    EXPECT_EQ(Refusal(_folder / "taken.mov", Small(H264)), "“taken.mov” already exists");
    EXPECT_EQ(testing::Shell("cat " + testing::Quoted(_folder / "taken.mov")), "precious");

    // Root can write anywhere, but not under a file.
    EXPECT_EQ(Refusal(_folder / "taken.mov" / "movie.mov", Small(H264)),
              "The movie file could not be created");

    // Beyond what H.264 encoders take, beyond what a picture may be. (Below what HEVC takes is the take's
    // to check, which passes the refusal on.)
    EXPECT_EQ(Refusal(_folder / "wide.mov", Small(H264, false, 30, 20000, 100)),
              "A h264 movie of 20000 × 100 cannot be written");
    EXPECT_EQ(Refusal(_folder / "huge.mov", Small(ProRes4444, false, 30, 40000, 40000)),
              "A prores4444 movie of 40000 × 40000 cannot be written");

    EXPECT_EQ(std::distance(fs::directory_iterator(_folder), fs::directory_iterator()), 1);
}

} // namespace
} // namespace quorva
