#include "core/control/RecorderController.h"

#include "core/control/TakePlanning.h"
#include "core/movie/Take.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/MediaClock.h"
#include "platform/Semaphore.h"
#include "sources/TestPatternDirectory.h"
#include "tests/core/Limits.h"
#include "tests/core/MovieReading.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <tuple>

namespace quorva {

// Puts the controller in the states that only a recording reaches, and refreshes it at a given time.
struct RecorderControllerProbe {
    static void setState(RecorderController& controller, RecorderState state) { controller.setState(state); }
    static void refreshAt(RecorderController& controller, double now) { controller.refreshAtTime(now); }
};

// Keeps the scheduler's queue busy, and waits for what was asked of it.
struct CompositionSchedulerProbe {
    static void post(CompositionScheduler& scheduler, std::function<void()> task) {
        scheduler._queue.post(std::move(task));
    }
    static void drain(CompositionScheduler& scheduler) {
        scheduler._queue.sync([] {});
    }
};

namespace {

struct FakeSource final : FrameSource {
    explicit FakeSource(std::string title) : name(std::move(title)) {}
    std::string title() const override { return name; }
    bool flipped() const override { return false; }
    int64_t kind() const override { return SourceKindNDI; }
    double framesPerSecond() const override { return 0; }
    SourceOutput& output() override { return handover; }
    bool hasSound() const override { return false; }
    bool isAlive() const override { return !stopped; }
    void stop() override { stopped = true; }
    std::string name;
    SourceOutput handover;
    bool stopped = false;
};

struct FakeDirectory final : SourceDirectory {
    std::vector<SourceDescription> availableSources() override {
        std::vector<SourceDescription> sources;
        for (const auto& title : titles)
            sources.emplace_back(title, "", SourceKindNDI);
        return sources;
    }
    std::shared_ptr<FrameSource> connectToSourceWithTitle(const std::string& title,
                                                          const std::shared_ptr<PictureEngine>&) override {
        return std::ranges::count(titles, title) ? std::make_shared<FakeSource>(title) : nullptr;
    }
    ChangeNotifier& changes() override { return changed; }
    void list(std::vector<std::string> newTitles) {
        titles = std::move(newTitles);
        changed.notify();
    }
    std::vector<std::string> titles;
    ChangeNotifier changed;
};

class RecorderControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
        std::ofstream(folder / "user-dirs.dirs") << "XDG_VIDEOS_DIR=\"$HOME/Films\"\n";
    }
    void TearDown() override { EventLoop::setMainLoop(nullptr); }

    std::shared_ptr<SettingsStore> store() { return std::make_shared<SettingsStore>("test", folder); }
    std::shared_ptr<RecorderController> controller(std::shared_ptr<SettingsStore> defaults = nullptr) {
        return RecorderController::make(nullptr, directory, nullptr, defaults ? defaults : store());
    }
    // A controller that records for real on the processor's engine, with its completions on a loop of the
    // test's own.
    std::shared_ptr<RecorderController> recorder(std::shared_ptr<SourceDirectory> from) {
        EventLoop::setMainLoop(loop);
        auto recorder = RecorderController::make(testing::Engine("processor"), from, nullptr, store());
        recorder->setFolder(folder.string());
        return recorder;
    }
    bool Idle(RecorderController& recorder) {
        return loop->runUntil([&] { return !recorder.isRecording(); }, 60);
    }
    // Each place's source delivers a picture, and the movies take it in.
    void Deliver(RecorderController& recorder) {
        const auto blue = testing::MakeSolidPicture(*recorder.engine(), 64, 36, {0, 0, 255, 255});
        for (const auto& place : recorder.places())
            std::dynamic_pointer_cast<FakeSource>(place->source())->handover.deliverFrame(blue);
        ASSERT_TRUE(testing::WaitFor([&] { return recorder.take()->framesPending() == 0; }));
    }
    static std::vector<std::string> Titles(const RecorderController& controller) {
        std::vector<std::string> titles;
        for (const auto& place : controller.places())
            titles.push_back(place->title());
        return titles;
    }

    testing::TemporaryFolder folder;
    std::shared_ptr<FakeDirectory> directory = std::make_shared<FakeDirectory>();
    std::shared_ptr<HeadlessEventLoop> loop = std::make_shared<HeadlessEventLoop>();
};

TEST(RecorderPlaceTest, MeasuresOnlineRateAndSound) {
    RecorderPlace place("Cam");
    EXPECT_FALSE(place.isOnline());
    EXPECT_EQ(place.kindName(), "");
    EXPECT_EQ(place.file(), "");
    place.setSource(std::make_shared<FakeSource>("Cam"));

    // A second of 30 pictures, one of 60, then one of none; the last picture 0.9 s, then 1.0 s old.
    place.measureAtTime(100);
    using Step = std::tuple<int, double, double, double, bool>; // pictures, at, measured at, rate, online
    for (auto [frames, at, measure, fps, online] :
         {Step{30, 100.5, 101, 30, true}, Step{60, 101.1, 102, 45, true}, Step{0, 0, 103, 0, false},
          Step{1, 103, 104, 1, false}}) {
        SCOPED_TRACE(measure);
        for (int i = 0; i < frames; ++i)
            EXPECT_EQ(place.receivedFrame(nullptr, false, at), NoIndex);
        place.measureAtTime(measure);
        EXPECT_DOUBLE_EQ(place.fps(), fps);
        EXPECT_EQ(place.isOnline(), online);
    }

    place.receivedSoundAtTime(200);
    EXPECT_TRUE(place.hasSoundAtTime(202.9));
    EXPECT_FALSE(place.hasSoundAtTime(203.0));
}

TEST_F(RecorderControllerTest, DefaultsFirstThenTheSettersClampPersistAndIgnoreTheUnlistedAndLoadingChecks) {
    directory->titles = {"Camera A"};
    auto defaults = store();
    auto recorder = controller(defaults);
    EXPECT_EQ((std::vector<std::string>{recorder->codec(), recorder->output(), recorder->layout(),
                                        recorder->sound(), recorder->name(), recorder->folder(),
                                        recorder->stateName()}),
              (std::vector<std::string>{"h264", "separate", "row", "", "",
                                        std::string(getenv("HOME")) + "/Films", "idle"}));
    EXPECT_EQ((std::vector<double>{double(recorder->width()), double(recorder->height()),
                                   double(recorder->gap()), recorder->fps(), recorder->bitrate()}),
              std::vector<double>(5, 0));
    ASSERT_TRUE(recorder->addSourceMatching("Camera A"));
    int notices = 0;
    recorder->addObserver([&] { ++notices; });

    recorder->setWidth(99999);
    recorder->setHeight(-1);
    recorder->setFps(300);
    recorder->setBitrate(1e9);
    recorder->setGap(5000);
    recorder->setFolder("~/Takes");
    recorder->setOutput("BOTH");
    recorder->setLayout("Focus");
    recorder->setSound("cam");
    EXPECT_EQ(notices, 9);

    notices = 0;
    recorder->setOutput("mosaic");
    recorder->setLayout("mosaic");
    recorder->setSound("nobody");
    EXPECT_EQ(notices, 0);

    // What a later run reads back is what the setters kept.
    ASSERT_TRUE(defaults->flush());
    auto again = controller();
    EXPECT_EQ((std::vector<double>{double(again->width()), double(again->height()), again->bitrate(),
                                   double(again->gap())}),
              (std::vector<double>{16384, 0, 1000, 1000}));
    EXPECT_EQ(
        (std::vector<std::string>{again->folder(), again->output(), again->layout(), again->sound()}),
        (std::vector<std::string>{std::string(getenv("HOME")) + "/Takes", "both", "focus", "Camera A"}));

    // What a run loads is checked: names against their lists, only the gap clamped, and at most eight
    // sources, none without a title.
    std::vector<std::string> saved = {"", "T1", "T2", "T3", "T4", "T5", "T6", "T7", "T8", "T9", "T10"};
    for (auto [gap, loaded] : {std::pair<int64_t, int64_t>{5000, 1000}, {-3, 0}}) {
        auto stored = store();
        ASSERT_TRUE(stored->setString("mjpeg", "RecorderCodec"));
        ASSERT_TRUE(stored->setInteger(99999, "RecorderWidth"));
        ASSERT_TRUE(stored->setInteger(gap, "RecorderGap"));
        ASSERT_TRUE(stored->setStringArray(saved, "RecorderSources"));
        auto reloaded = controller(stored);
        EXPECT_EQ(reloaded->codec(), "h264");
        EXPECT_EQ(reloaded->width(), 99999);
        EXPECT_EQ(reloaded->gap(), loaded);
        EXPECT_EQ(Titles(*reloaded), std::vector<std::string>(saved.begin() + 1, saved.begin() + 9));
    }

    // Whole-number settings too are kept within their range before anything is converted.
    for (auto [setting, number, kept] : {std::tuple{Setting::Height, -1e19, 0},
                                         {Setting::Gap, std::nan(""), 0},
                                         {Setting::Gap, 999.9, 999}}) {
        recorder->setNumber(setting, number);
        EXPECT_EQ(recorder->settings().integer(setting), kept) << number;
    }

    recorder->setSound("COMPUTER");
    EXPECT_EQ(recorder->sound(), "computer");
    recorder->setError("");
    EXPECT_EQ(recorder->errorCount(), 0u);
}

TEST_F(RecorderControllerTest, MatchingPrefersExactTitlesThenContainingOnesAndKeepsOfflinePlaces) {
    ASSERT_TRUE(store()->setStringArray({"Stage"}, "RecorderSources"));
    directory->titles = {"Camera A", "camera b", "Camera A", "Caméra Sud"};
    auto recorder = controller();
    EXPECT_EQ(recorder->availableSources().size(), 3u);
    EXPECT_EQ(recorder->titleMatching("camera"), "Camera A");
    EXPECT_EQ(recorder->titleMatching("camera b"), "camera b");
    EXPECT_EQ(recorder->titleMatching("CAMÉRA S"), "Caméra Sud");
    EXPECT_EQ(recorder->titleMatching("stag"), "Stage");
    EXPECT_EQ(recorder->titleMatching(""), std::nullopt);
    EXPECT_EQ(recorder->error(), "Give the title of a source, or part of it");
    EXPECT_TRUE(recorder->setSourceMatching("stag", 1));
    EXPECT_EQ(Titles(*recorder), std::vector<std::string>{"Stage"});
}

TEST_F(RecorderControllerTest, PlacesAreAddedReplacedMovedAndRemovedUpToEightAndOnlyWhileIdle) {
    directory->titles = {"S1", "S2", "S3", "S4", "S5", "S6", "S7", "S8", "S9"};
    auto defaults = store();
    auto recorder = controller(defaults);
    ASSERT_TRUE(recorder->addSourceMatching("S1"));
    ASSERT_TRUE(recorder->addSourceMatching("S2"));
    EXPECT_TRUE(recorder->setSourceMatching("S5", 5)); // past the end: appended as place 3
    EXPECT_EQ(Titles(*recorder), (std::vector<std::string>{"S1", "S2", "S5"}));
    for (auto title : {"S3", "S4", "S6", "S7", "S8"})
        ASSERT_TRUE(recorder->addSourceMatching(title));
    EXPECT_TRUE(recorder->addSourceMatching("S1"));
    EXPECT_FALSE(recorder->addSourceMatching("S9"));
    EXPECT_EQ(recorder->error(), "No more than 8 sources can be recorded at once");

    auto replaced = std::dynamic_pointer_cast<FakeSource>(recorder->places()[2]->source());
    EXPECT_TRUE(recorder->setSourceMatching("S9", 3));
    EXPECT_TRUE(replaced->stopped);
    EXPECT_EQ(recorder->places()[2]->title(), "S9");
    for (int64_t number : {0, 9, -1}) {
        EXPECT_FALSE(recorder->setSourceMatching("S1", number));
        EXPECT_EQ(recorder->error(), "There are places 1 to 8");
    }
    EXPECT_TRUE(recorder->setSourceMatching("", 2));
    auto first = recorder->places()[0];
    EXPECT_TRUE(recorder->moveSourceFromPlace(1, 99));
    EXPECT_TRUE(recorder->setSourceMatching("S7", 1)); // an existing place moves with its connection
    EXPECT_EQ(Titles(*recorder), (std::vector<std::string>{"S7", "S9", "S3", "S4", "S6", "S8", "S1"}));
    EXPECT_EQ(recorder->places().back(), first);
    EXPECT_FALSE(first->source() == nullptr);
    for (auto [from, to] : {std::pair<int64_t, int64_t>{0, 1}, {8, 1}, {1, 0}}) {
        EXPECT_FALSE(recorder->moveSourceFromPlace(from, to));
        EXPECT_EQ(recorder->error(), "There is no source in that place");
    }
    recorder->removeSourceAtPlace(8);
    ASSERT_TRUE(defaults->flush());
    EXPECT_EQ(store()->stringArrayForKey("RecorderSources"), Titles(*recorder));

    // While recording or finishing nothing changes, and every attempt says why.
    auto before = recorder->places();
    for (auto state : {RecorderState::Recording, RecorderState::Finishing}) {
        RecorderControllerProbe::setState(*recorder, state);
        uint64_t errors = recorder->errorCount();
        EXPECT_FALSE(recorder->addSourceMatching("S2"));
        EXPECT_FALSE(recorder->setSourceMatching("S2", 1));
        EXPECT_FALSE(recorder->moveSourceFromPlace(1, 2));
        recorder->removeSourceAtPlace(1);
        EXPECT_EQ(recorder->error(), "The sources cannot be changed while recording");
        EXPECT_EQ(recorder->errorCount(), errors + 4);
        EXPECT_EQ(recorder->places(), before);
        EXPECT_EQ(recorder->displayIsLimited(), recorder->performance());
        recorder->setPerformance(!recorder->performance());
    }
}

TEST_F(RecorderControllerTest,
       PlacesLetGoOfSourcesThatLeaveReconnectWhenTheyReturnAndCheckSilentOnesLessOften) {
    directory->titles = {"Cam"};
    ASSERT_TRUE(store()->setStringArray({"Cam"}, "RecorderSources"));
    auto recorder = controller();
    auto place = recorder->places().at(0);
    auto first = std::dynamic_pointer_cast<FakeSource>(place->source());
    ASSERT_TRUE(first);
    EXPECT_EQ(place->kindName(), "ndi");
    first->handover.deliverFrame(
        testing::MakeMemoryPicture(16, 8, [](uint32_t, uint32_t) { return testing::Pixel{}; }));

    directory->list({});
    EXPECT_TRUE(first->stopped);
    EXPECT_EQ(place->source(), nullptr);
    EXPECT_EQ(place->latestFrame(), nullptr);

    directory->list({"Cam"});
    EXPECT_NE(place->source(), nullptr);

    // A source that stays silent is checked less and less often.
    double check = place->checkTime();
    for (double interval : {2, 4, 8, 16, 30, 30}) {
        RecorderControllerProbe::refreshAt(*recorder, check + interval - 0.01);
        EXPECT_EQ(place->checkTime(), check);
        check += interval + 0.01;
        RecorderControllerProbe::refreshAt(*recorder, check);
        EXPECT_EQ(place->checkTime(), check) << interval;
    }
    place->receivedFrame(nullptr, false, check + 1); // a picture: back to every 2 s
    RecorderControllerProbe::refreshAt(*recorder, check + 3.01);
    EXPECT_EQ(place->silentChecks(), 1u);

    auto dead = std::dynamic_pointer_cast<FakeSource>(place->source());
    dead->stopped = true;
    RecorderControllerProbe::refreshAt(*recorder, check + 30);
    EXPECT_NE(place->source(), dead);
    EXPECT_NE(place->source(), nullptr);
}

TEST_F(RecorderControllerTest, StopsOnceCallingEveryHandlerInOrderAndOnlyWhenNoMovieIsLeft) {
    directory->titles = {"A", "B", "C"};
    auto controller = recorder(directory);
    EXPECT_FALSE(controller->start());
    EXPECT_EQ(controller->error(), "No source is selected");
    for (auto title : {"A", "B", "C"})
        ASSERT_TRUE(controller->addSourceMatching(title));
    controller->toggle();
    ASSERT_EQ(controller->stateName(), "recording") << controller->error();
    EXPECT_TRUE(controller->start());
    // A place shows its movie's file while the take lasts, and after it only a file with a picture.
    EXPECT_NE(controller->places()[0]->file(), "");

    std::vector<int> calls;
    controller->stopWithCompletionHandler([&] { calls.push_back(1); });
    controller->toggle(); // while finishing: nothing more
    controller->stopWithCompletionHandler([&] { calls.push_back(2); });
    EXPECT_FALSE(controller->start());
    EXPECT_EQ(controller->error(), "The previous recording is still being finished");
    ASSERT_TRUE(Idle(*controller));
    controller->stopWithCompletionHandler([&] { calls.push_back(3); });
    EXPECT_EQ(calls, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(controller->places()[0]->file(), "");

    // A take of three outlives two failed movies and stops by itself with the third.
    ASSERT_TRUE(controller->start());
    Deliver(*controller);
    auto movies = controller->moviesOfTheTake();
    for (auto [index, error] : {std::pair{1, "B: The disk is full"}, {0, "A: Gone"}}) {
        movies[size_t(index)]->recorder()->failWithError(TakeError(index ? "The disk is full" : "Gone"));
        ASSERT_TRUE(loop->runUntil(
            [&, expected = std::string(error)] { return controller->error() == expected; }, 10));
        EXPECT_EQ(controller->stateName(), "recording");
    }
    movies[2]->recorder()->failWithError(TakeError("Gone"));
    ASSERT_TRUE(Idle(*controller));
    EXPECT_EQ(controller->recordingError(), "C: Gone");
}

TEST(TakePlanningTest, RoutesSoundOnlyFromPlacesThatCanHaveItAndFitsTheAssembledRate) {
    // A desktop stream, without sound; a network source; one of a kind not known yet (not connected).
    Places places;
    for (auto [title, kind, known] : {std::tuple{"P1", SourceKindPipeWire, true},
                                      {"N2", SourceKindNDI, true},
                                      {"U3", SourceKindNDI, false}}) {
        places.push_back(std::make_shared<RecorderPlace>(title));
        places.back()->setKind(kind);
        places.back()->setKindKnown(known);
    }
    const std::tuple<const char*, TakeOutput, std::set<size_t>, size_t> cases[] = {
        {"computer", TakeOutput::Separate, {1}, NoIndex},
        {"computer", TakeOutput::Both, {1, 2}, NoIndex},
        {"P1", TakeOutput::Assembled, {1, 2}, NoIndex},
        {"U3", TakeOutput::Both, {1, 2}, 2},
    };
    for (const auto& [sound, output, sources, assembled] : cases) {
        const SoundRouting routing = RouteSound(places, output, sound);
        EXPECT_EQ(std::pair(routing.sources, routing.assembledIndex), std::pair(sources, assembled))
            << sound << " " << NameOf(output);
    }

    // The highest whole divisor of the clock that fits: 100 pixels a picture beside 1000 a second of
    // separate movies.
    EXPECT_EQ(AssembledRateThatFits(60, 100, 1000, 7000), 60);
    EXPECT_EQ(AssembledRateThatFits(60, 100, 1000, 6999), 30);
    EXPECT_DOUBLE_EQ(AssembledRateThatFits(29.97, 100, 0, 2000), 29.97 / 2);
    // The separate movies alone do not fit: a picture a second, the least there is to record.
    EXPECT_EQ(AssembledRateThatFits(60, 100, 5000, 4000), 1);

    // A rate measured off a source that does not say its own lands on the common rate it is sent at,
    // within two percent, else on the whole number.
    EXPECT_DOUBLE_EQ(CommonRate(29.9), 30000.0 / 1001);
    EXPECT_DOUBLE_EQ(CommonRate(30.3), 30);
    EXPECT_DOUBLE_EQ(CommonRate(59.2), 60000.0 / 1001);
    EXPECT_DOUBLE_EQ(CommonRate(24.4), 24);
    EXPECT_DOUBLE_EQ(CommonRate(12.3), 12);
    EXPECT_DOUBLE_EQ(CommonRate(0.3), 0) << "nothing to go by";
}

// Without an engine nothing is drawn, but every composition is scheduled as with one.
TEST(CompositionSchedulerTest, TheClockPassesOnAndAWatchedMonitorComposesAtItsRateTheNewestWaitingPicture) {
    CompositionScheduler scheduler(nullptr, Take::make(nullptr));
    auto a = std::make_shared<RecorderPlace>("A"), b = std::make_shared<RecorderPlace>("B");
    scheduler.arrangementChanged({.places = {a, b}});
    // Answers whether the picture made the monitor compose, once the scheduler's queue has seen to it.
    auto receive = [&](const std::shared_ptr<RecorderPlace>& place, double time) {
        place->receivedFrame(nullptr, false, time);
        scheduler.placeReceivedFrame(place, time);
        CompositionSchedulerProbe::drain(scheduler);
        return scheduler.lastComposeTime() == time;
    };
    const double t = MediaClock::now() + 100; // after every composition so far
    receive(a, t);
    receive(b, t + 0.5);
    EXPECT_EQ(scheduler.clockPlace(), a);
    receive(b, t + 1.01);
    EXPECT_EQ(scheduler.clockPlace(), b);

    // A second of pictures 1/128 s apart.
    for (auto [watched, limited, pictures] :
         {std::tuple{false, false, 0}, {true, false, 128}, {true, true, 10}}) {
        scheduler.monitorWatched(watched);
        scheduler.displayLimitChanged(limited);
        int composed = 0;
        for (int i = 0; i < 128; ++i)
            composed += receive(b, t + 10 + 10 * watched + 10 * limited + i / 128.0);
        EXPECT_EQ(composed, pictures) << watched << limited;
    }
    scheduler.arrangementChanged({.places = {a}});
    EXPECT_EQ(scheduler.clockPlace(), nullptr);

    // A source hands its picture over and goes on while a composition is still busy; of the pictures
    // that arrive meanwhile only the newest is composed, never a backlog of older ones.
    scheduler.displayLimitChanged(false);
    Semaphore busy, done;
    CompositionSchedulerProbe::post(scheduler, [&] {
        busy.signal();
        done.wait();
    });
    ASSERT_TRUE(busy.wait(60));
    // Less than the monitor's 4 ms apart: composed in turn, the first would be the last composed.
    for (double time : {t + 40, t + 40.001, t + 40.002}) {
        a->receivedFrame(nullptr, false, time);
        scheduler.placeReceivedFrame(a, time);
    }
    done.signal();
    CompositionSchedulerProbe::drain(scheduler);
    EXPECT_EQ(scheduler.lastComposeTime(), t + 40.002);

    constexpr LayoutKind Row = LayoutKind::Row;
    const std::vector<Size> three(3, Size{1920, 1080}), one{{4000, 1000}};
    EXPECT_EQ(MonitorLayout(Layout(Row, three, 0, {}), Row, three, 0).size(), (Size{4096, 768}));
    EXPECT_EQ(MonitorLayout(Layout(Row, one, 0, {}), Row, one, 0).size(), (Size{4000, 1000}));
}

// A watched monitor follows a change of its size.
TEST_F(RecorderControllerTest, TheMonitorFollowsAChangeOfItsSizeOnceDrawn) {
    directory->titles = {"A"};
    auto controller = recorder(directory);
    ASSERT_TRUE(controller->addSourceMatching("A"));
    controller->setMonitorWatched(true);
    Deliver(*controller);
    auto shown = [&](uint32_t width, uint32_t height) {
        return loop->runUntil(
            [&] {
                auto picture = controller->assembledFrame();
                return picture && picture->width() == width && picture->height() == height;
            },
            60);
    };
    EXPECT_TRUE(shown(64, 36));
    controller->setWidth(640);
    controller->setHeight(480);
    EXPECT_TRUE(shown(640, 480));
}

// A take that asks more than the machine encodes keeps every picture of the sources' own movies and
// records the assembled one at a lower rate, a whole divisor of its clock source's, and says so; a
// frame rate that the user chose is kept, with a warning.
TEST_F(RecorderControllerTest, ATakeTooLargeForTheEncodersLowersTheAssembledRateUnlessTheUserChoseOne) {
    // One 720p30 pattern, alone and assembled: 2 × 27.6 Mpx/s, where the machine covers 48 at the
    // fastest preset, so that the assembled movie fits at 15 frames a second beside its source's.
    nlohmann::json slow = {{"signature", MachineSignature()}};
    const double ultrafast = 48e6 / (std::max(ProcessorCapacity(), 1.0) * FastestShare);
    for (const char* preset : EncoderPresets)
        slow["h264"][preset] = preset == std::string("ultrafast") ? ultrafast : ultrafast / 10;
    ASSERT_TRUE(store()->setString(slow.dump(), EncoderSpeed::SettingsKey));
    auto controller = recorder(std::make_shared<TestPatternDirectory>());
    ASSERT_TRUE(controller->addSourceMatching("720p30"));
    controller->setOutput("both");
    ASSERT_TRUE(loop->runUntil([&] { return controller->places().front()->width() > 0; }, 60));
    ASSERT_TRUE(controller->start()) << controller->error();
    EXPECT_EQ(controller->loweredAssembledRate(), 15);
    EXPECT_EQ(controller->encoderPreset(), "ultrafast");
    EXPECT_TRUE(controller->error().starts_with("This computer cannot encode every picture of these movies: "
                                                "the assembled movie is recorded at 15 frames a second "
                                                "instead of 30"))
        << controller->error();
    ASSERT_TRUE(loop->runUntil([&] { return controller->assembledFrames() >= 10; }, 60));
    controller->stopWithCompletionHandler({});
    ASSERT_TRUE(Idle(*controller));
    const auto assembled = controller->moviesOfTheTake().back();
    const auto own = controller->moviesOfTheTake().front();
    EXPECT_NEAR(double(controller->framesDue(*assembled)), double(controller->framesDue(*own)) / 2, 1);
    EXPECT_LE(assembled->framesWritten() + assembled->framesDropped(), controller->framesDue(*assembled) + 1);

    controller->setFps(30);
    ASSERT_TRUE(controller->start()) << controller->error();
    EXPECT_EQ(controller->loweredAssembledRate(), 0);
    EXPECT_TRUE(controller->error().starts_with("The encoders may not keep up")) << controller->error();
    controller->stopWithCompletionHandler({});
    ASSERT_TRUE(Idle(*controller));
}

} // namespace
} // namespace quorva
