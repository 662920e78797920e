#pragma once

// What the movie recorder's tests share: a recorder on a picture engine (the processor's unless a test
// asks for another), a folder of their own, and a main loop that delivers its completions.

#include "core/movie/MovieRecorder.h"
#include "platform/HeadlessEventLoop.h"
#include "tests/core/Limits.h"
#include "tests/core/MovieReading.h"
#include "tests/platform/PictureTesting.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

namespace quorva::testing {

class MovieRecorderTest : public ::testing::Test {
protected:
    void SetUp() override {
        EventLoop::setMainLoop(loop);
        engine = Engine(engineName());
        ASSERT_TRUE(engine);
        Result<std::shared_ptr<MovieRecorder>> made = MovieRecorder::make(engine);
        ASSERT_TRUE(made);
        recorder = made.value();
    }
    void TearDown() override {
        recorder.reset();
        engine.reset();
        EventLoop::setMainLoop(nullptr);
    }

    static MovieRecorderSettings Settings(Codec codec, int64_t width, int64_t height, double rate,
                                          bool sound) {
        MovieRecorderSettings settings;
        settings.setCodec(codec);
        settings.setWidth(width);
        settings.setHeight(height);
        settings.setFramesPerSecond(rate);
        settings.setRecordsSound(sound);
        return settings;
    }

    // The engine that the recorder converts its pictures with.
    virtual std::string engineName() const { return "processor"; }

    // Hands a frame in as a source would, after waiting for room, so that none is dropped; false when no
    // room came.
    [[nodiscard]] bool Append(const std::shared_ptr<Picture>& picture, double time, bool flipped = false) {
        if (!WaitFor([&] { return recorder->framesPending() < MovieRecorder::MaximumFramesInFlight; }))
            return false;
        recorder->appendPicture(picture, flipped, time);
        return true;
    }

    // Finishes and answers what the completion handler got on the main queue.
    std::optional<Error> Finish(double time) {
        bool done = false;
        std::optional<Error> result;
        recorder->finishAtTime(time, [&](std::optional<Error> error) {
            EXPECT_TRUE(loop->isCurrent());
            result = error;
            done = true;
        });
        EXPECT_TRUE(loop->runUntil([&] { return done; }, 120));
        return result;
    }

    std::shared_ptr<HeadlessEventLoop> loop = std::make_shared<HeadlessEventLoop>();
    TemporaryFolder folder;
    std::shared_ptr<PictureEngine> engine;
    std::shared_ptr<MovieRecorder> recorder;
};

// The same recorder on each engine in turn (the parameter names it).
class MovieRecorderEngineTest : public MovieRecorderTest, public ::testing::WithParamInterface<std::string> {
protected:
    std::string engineName() const override { return GetParam(); }
};

} // namespace quorva::testing
