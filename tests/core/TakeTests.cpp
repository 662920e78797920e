#include "core/Take.h"

#include "core/SourceSound.h"
#include "platform/HeadlessEventLoop.h"
#include "tests/core/MovieReading.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <fstream>
#include <ostream>
#include <random>
#include <set>
#include <sys/mount.h>
#include <thread>
#include <tuple>

namespace quorva {

// Refusals are compared whole; a failure shows them as the user would read them.
void PrintTo(const Error& error, std::ostream* out) {
    *out << error.domain() << " " << error.code() << ": " << error.message();
}

namespace {

namespace fs = std::filesystem;
using testing::MakeSolidPicture;

// Takes record on the processor's engine unless a test asks for another.
class TakeTest : public ::testing::Test {
protected:
    virtual std::string engineName() const { return "processor"; }

    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "quorva-take-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        _folder = pattern;
        EventLoop::setMainLoop(_loop);
        _engine = testing::Engine(engineName());
        ASSERT_TRUE(_engine);
        _take = Take::make(_engine);
        _take->setMovieFailureHandler([this](size_t index, const Error& error) {
            _failures.push_back(std::to_string(index) + " " + error.message());
        });
    }
    void TearDown() override {
        if (_mounted)
            umount2(_folder.c_str(), MNT_DETACH);
        EventLoop::setMainLoop(nullptr);
        fs::remove_all(_folder);
    }

    // Finishes the take and answers what its completion said ("" for success).
    std::string Finish(double time) {
        std::optional<std::string> answer;
        _take->finishAtTime(time,
                            [&](std::optional<Error> error) { answer = error ? error->message() : ""; });
        EXPECT_TRUE(_loop->runUntil([&] { return answer.has_value(); }, 120));
        return answer.value_or("no answer");
    }
    // Lets the movies catch up, so that the test decides which frames exist rather than the encoders.
    void Settle() {
        while (_take->framesPending() > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
    fs::path _folder;
    bool _mounted = false;
};

TEST_F(TakeTest, RefusesToStartWithoutWhatATakeNeeds) {
    _settings.setCodec(1); // HEVC, which no encoder here takes at 2 × 2
    const std::tuple<std::vector<std::string>, int64_t, Size, fs::path, std::string> cases[] = {
        {{}, TakeOutputSeparate, {}, _folder, "No source is selected"},
        {{"Cam"}, TakeOutputSeparate, {}, "/nowhere", "The folder “/nowhere” does not exist"},
        {{"Cam"}, TakeOutputAssembled, {1, 1080}, _folder, "The assembled picture has no size"},
        {{"Cam"},
         TakeOutputBoth,
         {16385, 100},
         _folder,
         "An assembled picture of 16385 × 100 is too large to be written. Choose a smaller size for the "
         "assembled movie"},
    };
    for (const auto& [titles, output, assembled, folder, message] : cases) {
        Result<> started =
            _take->startWithSourceTitles(titles, {}, output, assembled, "Show", folder, _settings, 0);
        EXPECT_EQ(started ? TakeError("") : started.error(), TakeError(message));
    }
    EXPECT_EQ(Finish(0), "There is no recording in progress");

    // A size the codec refuses is known once its encoder has tried, on the recorder's queue: the take
    // has started, and the assembled movie fails with what the user can do about it.
    ASSERT_TRUE(_take->startWithSourceTitles({"Cam"}, {}, TakeOutputAssembled, {2, 2}, "Show", _folder,
                                             _settings, 0));
    ASSERT_TRUE(_loop->runUntil([&] { return !_failures.empty(); }, 60));
    EXPECT_EQ(_failures,
              std::vector<std::string>{std::to_string(NoIndex) +
                                       " A hevc movie of 2 × 2 cannot be written. Choose a smaller "
                                       "size for the assembled movie, or HEVC or ProRes"});
    Finish(0);
    EXPECT_TRUE(FolderContents().empty());
}

// What a take does with pictures on its way, on each engine.
class TakeOnEachEngine : public TakeTest, public ::testing::WithParamInterface<std::string> {
protected:
    std::string engineName() const override { return GetParam(); }
};

TEST_P(TakeOnEachEngine, NumbersAWholeTakePastExistingFilesAndNeverOverwritesOne) {
    // Files already there are passed over and left alone.
    std::ofstream(_folder / "Show.mov") << "one";
    std::ofstream(_folder / "Show 2 — Cam.mov") << "two";

    // Desk's size is not known yet: its movie takes its first picture's.
    ASSERT_TRUE(_take->startWithSourceTitles({"Cam", "Desk"}, {Size{320, 240}}, TakeOutputBoth, {640, 240},
                                             {1}, 0, "Show", _folder, _settings, 100));
    const std::vector<std::shared_ptr<TakeMovie>> movies = _take->movies();
    ASSERT_EQ(movies.size(), 2u);
    EXPECT_EQ(movies[0]->url(), _folder / "Show 3 — Cam.mov");
    EXPECT_EQ(movies[1]->url(), _folder / "Show 3 — Desk.mov");
    EXPECT_EQ(_take->assembledMovie()->url(), _folder / "Show 3.mov");
    EXPECT_EQ(std::vector<bool>(
                  {movies[0]->hasSound(), movies[1]->hasSound(), _take->assembledMovie()->hasSound()}),
              std::vector<bool>({false, true, true}));
    EXPECT_EQ(_take->startWithSourceTitles({"Cam"}, {}, "Show", _folder, _settings, 100).error().message(),
              "A recording is already in progress");

    auto picture = MakeSolidPicture(*_engine, 320, 240, {40, 80, 120, 255});
    for (int i = 0; i < 5; ++i) {
        const double time = 100 + i / 30.0;
        _take->appendPicture(picture, false, 0, time);
        _take->appendPicture(picture, true, 1, time);
        if (_take->wantsAssembledFrameAtTime(time))
            _take->appendAssembledPicture(picture, time);
        _take->appendSound(SourceSound::silenceOfFrameCount(1600, 48000), 0, time);
        Settle();
    }
    std::optional<Error> finished;
    _take->finishAtTime(100.2, [&](std::optional<Error> error) { finished = error.value_or(TakeError("")); });
    EXPECT_EQ(_take->startWithSourceTitles({"Cam"}, {}, "Show", _folder, _settings, 100).error().message(),
              "The previous movies are still being finished");
    ASSERT_TRUE(_loop->runUntil([&] { return finished.has_value(); }, 120));
    EXPECT_EQ(finished->message(), "");
    for (const auto& movie : {movies[0], movies[1], _take->assembledMovie()}) {
        const testing::Movie decoded = testing::ReadMovie(movie->url());
        EXPECT_EQ(decoded.times.size(), 5u) << movie->url();
        EXPECT_EQ(decoded.audioCodec != AV_CODEC_ID_NONE, movie->hasSound()) << movie->url();
    }
    EXPECT_GT(_take->assembledMovie()->soundWritten(), 0); // Cam's sound goes to the assembled movie only
    EXPECT_EQ(movies[1]->soundWritten(), 0);

    // The computer's sound fills in for every source without its own; a take without pictures leaves no file.
    ASSERT_TRUE(_take->startWithSourceTitles({"Cam", "Desk", "Stage"}, {Size{320, 240}}, TakeOutputSeparate,
                                             {}, {1}, NoIndex, true, "Show", _folder, _settings, 200));
    for (const auto& movie : _take->movies())
        EXPECT_TRUE(movie->hasSound()) << movie->url();
    EXPECT_EQ(Finish(201), "No frame was received, so no movie was written");
    EXPECT_EQ(FolderContents(), (std::set<std::string>{"Show.mov", "Show 2 — Cam.mov", "Show 3.mov",
                                                       "Show 3 — Cam.mov", "Show 3 — Desk.mov"}));
    EXPECT_TRUE(_failures.empty());
}

INSTANTIATE_TEST_SUITE_P(EachEngine, TakeOnEachEngine, testing::EngineNames, testing::EngineTestName);

// Stage's movie is made on the folder's own disk as the take starts (its size is known); the folder
// then fills with a small disk, on which Noise's movie is made at its first picture and soon runs out.
TEST_F(TakeTest, AMovieWhoseDiskFillsUpFailsAloneWhileTheOthersGoOn) {
    _settings.setCodec(2); // ProRes: every picture of noise costs hundreds of kilobytes
    _settings.setFramesPerSecond(2);
    ASSERT_TRUE(_take->startWithSourceTitles({"Stage", "Noise"}, {Size{320, 240}}, TakeOutputSeparate, {},
                                             {0}, NoIndex, "Full", _folder, _settings, 0));
    // Stage's file is made on the recorder's queue, before the small disk goes over the folder.
    for (int wait = 0; wait < 60000 && _take->movies()[0]->recorder()->outputSize().width == 0; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    _mounted = mount("quorva-test", _folder.c_str(), "tmpfs", 0, "size=1m") == 0;
    if (!_mounted) {
        Finish(0);
        GTEST_SKIP() << "mounting a tmpfs is not permitted here";
    }
    std::mt19937 random(3);
    auto noise = testing::MakePicture(*_engine, 640, 480, [&](uint32_t, uint32_t) {
        return testing::Pixel{uint8_t(random()), uint8_t(random()), uint8_t(random()), 255};
    });
    auto picture = MakeSolidPicture(*_engine, 320, 240, {200, 100, 50, 255});
    // Past the first 10-second fragment, which is when the movie first goes to its disk.
    for (int i = 0; i < 30; ++i) {
        _take->appendPicture(picture, false, 0, i * 0.5);
        _take->appendPicture(noise, false, 1, i * 0.5);
        _take->appendSound(SourceSound::silenceOfFrameCount(24000, 48000), 0, i * 0.5);
        Settle();
    }
    ASSERT_TRUE(_loop->runUntil([&] { return !_failures.empty(); }, 60));
    const std::string full = "The movie could not be written: No space left on device";
    EXPECT_EQ(_failures, std::vector<std::string>{"1 " + full});
    EXPECT_EQ(Finish(15), "");
    const std::vector<std::shared_ptr<TakeMovie>> movies = _take->movies();
    EXPECT_EQ(movies[1]->error(), TakeError(full));
    EXPECT_FALSE(movies[0]->error());

    umount2(_folder.c_str(), MNT_DETACH);
    _mounted = false;
    const testing::Movie stage = testing::ReadMovie(movies[0]->url());
    EXPECT_EQ(stage.times.size(), 30u);
    EXPECT_GT(stage.soundFrames, 10 * 48000);
}

} // namespace
} // namespace quorva
