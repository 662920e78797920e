#pragma once

#include "tests/Processes.h"

#include <gtest/gtest.h>

#include "core/source/FrameSource.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

namespace quorva::testing {

// gst-launch-1.0 publishing a "Video/Source" node of `pattern` at 96 × 64 in `format`, 30 times a second,
// through PipeWire as another program would, until it is ended. SMPTE's bars tell which way up a picture
// arrives: white and blue at either end of the top, darker colours under the white one.
struct Publisher {
    Publisher(const std::string& name, const std::string& format, const std::string& pattern = "smpte")
        : log(std::filesystem::path(::testing::TempDir()) /
              ("publisher-" + name + format + "-" + std::to_string(::getpid()) + ".log")) {
        pid = Spawn(
            "exec gst-launch-1.0 videotestsrc pattern=" + pattern +
            " ! video/x-raw,width=96,height=64,framerate=30/1 ! videoconvert ! video/x-raw,format=" + format +
            " ! pipewiresink mode=provide stream-properties=\"props,media.class=Video/Source,"
            "node.description=" +
            name + ",application.name=Mixer\" >'" + log.string() + "' 2>&1");
    }
    ~Publisher() {
        End(pid);
        std::filesystem::remove(log);
    }
    // Whether its pipeline waits for a stream to link: GStreamer's pipewiresink of PipeWire 0.3.65 may
    // never send a picture to a stream linked to it before then.
    bool waiting() const {
        std::stringstream text;
        text << std::ifstream(log).rdbuf();
        return text.str().find("PREROLLING") != std::string::npos;
    }
    std::filesystem::path log;
    pid_t pid;
};

// The latest picture a source handed over, and how many it has.
struct Received {
    explicit Received(FrameSource& source) {
        source.output().setFrameHandler([this](const std::shared_ptr<Picture>& picture) {
            std::lock_guard guard(lock);
            latest = picture;
            ++count;
        });
    }
    std::shared_ptr<Picture> picture() {
        std::lock_guard guard(lock);
        return latest;
    }
    std::mutex lock;
    std::shared_ptr<Picture> latest;
    std::atomic<int> count = 0;
};

} // namespace quorva::testing
