#include "core/movie/Take.h"

#include "core/source/SourceSound.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/Log.h"
#include "tests/core/Limits.h"
#include "tests/core/MovieReading.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <numeric>
#include <ostream>
#include <set>
#include <tuple>

namespace quorva {

// Refusals are compared whole; a failure shows them as the user would read them.
void PrintTo(const Error& error, std::ostream* out) {
    *out << error.domain() << " " << error.code() << ": " << error.message();
}

namespace {

namespace fs = std::filesystem;
using testing::MakeSolidPicture;

// Takes record on the processor's engine: what each engine does with a movie's pictures is the movie
// recorder's tests'.
class TakeTest : public ::testing::Test {
protected:
    void SetUp() override {
        EventLoop::setMainLoop(_loop);
        _engine = testing::Engine("processor");
        ASSERT_TRUE(_engine);
        _take = Take::make(_engine);
        _take->setMovieFailureHandler([this](size_t index, const Error& error) {
            _failures.push_back(std::to_string(index) + " " + error.message());
        });
    }
    void TearDown() override { EventLoop::setMainLoop(nullptr); }

    // Movies named "Show", in the test's folder, one per source for output separate; the first source
    // 320 × 240 when sized.
    TakePlan Plan(std::vector<std::string> titles, double time = 0, bool sized = false,
                  TakeOutput output = TakeOutput::Separate, Size assembled = {}) const {
        return {.titles = std::move(titles),
                .sizes = sized ? SourceSizes{Size{320, 240}} : SourceSizes{},
                .output = output,
                .assembledSize = assembled,
                .name = "Show",
                .folder = _folder,
                .settings = _settings,
                .time = time};
    }
    // Finishes the take and answers what its completion said ("" for success).
    std::string Finish(double time) {
        std::optional<std::string> answer;
        _take->finishAtTime(time,
                            [&](std::optional<Error> error) { answer = error ? error->message() : ""; });
        EXPECT_TRUE(_loop->runUntil([&] { return answer.has_value(); }, 120));
        return answer.value_or("no answer");
    }
    // Lets the movies catch up, so that the test decides which frames exist rather than the encoders;
    // false when they did not.
    [[nodiscard]] bool Settle() {
        return testing::WaitFor([&] { return _take->framesPending() == 0; });
    }
    std::set<std::string> FolderContents() {
        std::set<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(_folder))
            names.insert(entry.path().filename().string());
        return names;
    }

    std::shared_ptr<HeadlessEventLoop> _loop = std::make_shared<HeadlessEventLoop>();
    std::shared_ptr<PictureEngine> _engine;
    std::shared_ptr<Take> _take;
    MovieRecorderSettings _settings;
    std::vector<std::string> _failures;
    testing::TemporaryFolder _folder;
};

// An engine that cannot convert pictures for an encoder, as a GPU whose conversion pass will not build.
class EngineWithoutConversion final : public PictureEngine {
public:
    static Error Refusal() { return Error("test", 1, "The frame conversion pass could not be made"); }

    std::string name() const override { return "none"; }
    bool isProcessor() const override { return true; }
    uint32_t maximumPictureSize() const override { return 0; }
    Result<std::shared_ptr<Picture>> adopt(const std::shared_ptr<MemoryPicture>&) override {
        return Refusal();
    }
    Result<std::vector<uint8_t>> readPixels(const std::shared_ptr<Picture>&, uint32_t, uint32_t, uint32_t,
                                            uint32_t) override {
        return Refusal();
    }
    Result<std::unique_ptr<FrameConverter>> makeFrameConverter() override { return Refusal(); }
    Result<std::shared_ptr<PictureCompositor>> makeCompositor() override { return Refusal(); }
};

TEST_F(TakeTest, RefusesToStartWithoutWhatATakeNeeds) {
    _settings.setCodec(Codec::HEVC); // which no encoder here takes at 2 × 2
    const std::tuple<std::vector<std::string>, TakeOutput, Size, fs::path, std::string> cases[] = {
        {{}, TakeOutput::Separate, {}, _folder, "No source is selected"},
        {{"Cam"}, TakeOutput::Separate, {}, "/nowhere", "The folder “/nowhere” does not exist"},
        {{"Cam"}, TakeOutput::Assembled, {1, 1080}, _folder, "The assembled picture has no size"},
        {{"Cam"},
         TakeOutput::Both,
         {16385, 100},
         _folder,
         "An assembled picture of 16385 × 100 is too large to be written. Choose a smaller size for the "
         "assembled movie"},
    };
    for (const auto& [titles, output, assembled, folder, message] : cases) {
        TakePlan plan = Plan(titles, 0, false, output, assembled);
        plan.folder = folder;
        Result<> started = _take->start(plan);
        EXPECT_EQ(started ? TakeError("") : started.error(), TakeError(message));
    }
    EXPECT_EQ(Finish(0), "There is no recording in progress");

    // Movies that cannot be made: the take says why, and the journal says it once.
    std::vector<std::string> lines;
    SetLogSink([&](const std::string& line) { lines.push_back(line); });
    Result<> refused = Take::make(std::make_shared<EngineWithoutConversion>())->start(Plan({"Cam"}));
    SetLogSink({});
    EXPECT_EQ(refused ? TakeError("") : refused.error(),
              TakeError("Movies cannot be written on this computer: " +
                        EngineWithoutConversion::Refusal().message()));
    EXPECT_EQ(lines, std::vector<std::string>{"MovieRecorder: could not be created: " +
                                              EngineWithoutConversion::Refusal().message()});

    // A size the codec refuses is known once its encoder has tried, on the recorder's queue: the take
    // has started, and the assembled movie fails with what the user can do about it.
    ASSERT_TRUE(_take->start(Plan({"Cam"}, 0, false, TakeOutput::Assembled, {2, 2})));
    ASSERT_TRUE(_loop->runUntil([&] { return !_failures.empty(); }, 60));
    EXPECT_EQ(_failures,
              std::vector<std::string>{std::to_string(NoIndex) +
                                       " A hevc movie of 2 × 2 cannot be written. Choose a smaller "
                                       "size for the assembled movie, or HEVC or ProRes"});
    Finish(0);
    EXPECT_TRUE(FolderContents().empty());
}

// What each movie of a take holds, the sound of each source and the computer's included, the command
// line's takes read back; all but a source's sound in the assembled movie, which is silence there
// without it. Here too, what the controller never lets happen: a take while another one is still going,
// and one that records no picture. Desk's size is not known yet: its movie takes its first picture's.
TEST_F(TakeTest, TakesOneAtATimeAndOneWithoutPicturesLeavesNoFile) {
    TakePlan both = Plan({"Cam", "Desk"}, 100, true, TakeOutput::Both, {640, 240});
    both.soundSources = {1};
    both.assembledSoundIndex = 0;
    ASSERT_TRUE(_take->start(both));
    EXPECT_EQ(_take->start(Plan({"Cam"}, 100)).error().message(), "A recording is already in progress");
    auto picture = MakeSolidPicture(*_engine, 320, 240, {40, 80, 120, 255});
    for (int i = 0; i < 5; ++i) {
        const double time = 100 + i / 30.0;
        _take->appendPicture(picture, false, 0, time);
        _take->appendPicture(picture, true, 1, time);
        if (_take->wantsAssembledFrameAtTime(time))
            _take->appendAssembledPlacements({{picture, 0, 0, 320, 240}, {picture, 320, 0, 320, 240, true}},
                                             time);
        _take->appendSound(SourceSound::silenceOfFrameCount(1600, 48000), 0, time);
        ASSERT_TRUE(Settle());
    }
    std::optional<Error> finished;
    _take->finishAtTime(100.2, [&](std::optional<Error> error) { finished = error.value_or(TakeError("")); });
    EXPECT_EQ(_take->start(Plan({"Cam"}, 100)).error().message(),
              "The previous movies are still being finished");
    ASSERT_TRUE(_loop->runUntil([&] { return finished.has_value(); }, 120));
    EXPECT_EQ(finished->message(), "");
    EXPECT_GT(_take->assembledMovie()->soundWritten(), 0);

    ASSERT_TRUE(_take->start(Plan({"Cam", "Desk", "Stage"}, 200, true)));
    EXPECT_EQ(Finish(201), "No frame was received, so no movie was written");
    EXPECT_EQ(FolderContents(), (std::set<std::string>{"Show.mov", "Show — Cam.mov", "Show — Desk.mov"}));
    EXPECT_TRUE(_failures.empty());
}

// The report draws, second by second, where a movie held its last picture because none came, and where
// it lost pictures: the seconds add up to the movie's counts, and each lies where it happened.
TEST_F(TakeTest, AMovieCountsItsHeldAndDroppedPicturesInTheSecondWhereTheyLie) {
    _settings.setFramesPerSecond(30);
    ASSERT_TRUE(_take->start(Plan({"Cam"}, 0, true)));
    auto picture = MakeSolidPicture(*_engine, 320, 240, {10, 200, 30, 255});
    // Half a second of pictures, then none until 2 s, where two come for the same slot.
    for (int i = 0; i < 15; ++i) {
        _take->appendPicture(picture, false, 0, i / 30.0);
        ASSERT_TRUE(Settle());
    }
    _take->appendPicture(picture, false, 0, 2.0);
    _take->appendPicture(picture, false, 0, 2.0);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(Finish(2.5), "");
    const std::shared_ptr<MovieRecorder> recorder = _take->movies()[0]->recorder();
    const std::vector<uint32_t> held = recorder->framesHeldEachSecond(),
                                dropped = recorder->framesDroppedEachSecond();
    auto sum = [](const std::vector<uint32_t>& seconds) {
        return std::accumulate(seconds.begin(), seconds.end(), uint64_t(0));
    };
    EXPECT_EQ(sum(held), recorder->framesHeld());
    EXPECT_EQ(sum(dropped), recorder->framesDropped());
    ASSERT_GE(held.size(), 3u);
    EXPECT_EQ(held[0], 15u); // slots 15 to 29
    EXPECT_EQ(held[1], 30u); // the whole second without a picture
    ASSERT_EQ(dropped.size(), 3u);
    EXPECT_EQ(dropped[2], 1u); // the second picture for the slot at 2 s
}

// A movie whose pictures never reach its file, as the disk fills up (here a limit on the file's size)
// when the movie is finished, failed, and says why.
TEST_F(TakeTest, AMovieLostToAFullDiskAtItsFinishFailed) {
    ASSERT_TRUE(_take->start(Plan({"Cam"}, 0, true)));
    auto picture = MakeSolidPicture(*_engine, 320, 240, {90, 90, 90, 255});
    for (int i = 0; i < 3; ++i) {
        _take->appendPicture(picture, false, 0, i / 30.0);
        ASSERT_TRUE(Settle());
    }
    {
        testing::FileSizeLimit limit(1024);
        Finish(0.1);
    }
    const std::shared_ptr<TakeMovie> movie = _take->movies()[0];
    EXPECT_EQ(movie->error(), TakeError("The movie could not be finished: File too large"));
    EXPECT_EQ(movie->framesWritten(), 0u);
    EXPECT_TRUE(FolderContents().empty());
}

} // namespace
} // namespace quorva
