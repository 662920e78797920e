#pragma once

#include "remote/OSCMessage.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorva {

class RecorderController;

// One remotely reachable value or command of the recorder: an OSC address with its type tag, the
// description that OSCQuery shows, and how to read and change it. The table adds no state of its own:
// the callbacks only call the controller, which they hold weakly.
struct RecorderParameter {
    std::string address;
    std::string typeSpec; // "i", "f", "s", or "" for a bare command
    std::string summary;
    // The OSCQuery RANGE: one object with "MIN"/"MAX" or "VALS". Asked at each registration, because
    // some lists (the sources offered, the places) change.
    std::function<nlohmann::json()> range;
    // The OSCQuery VALUE: a list of one value. Main thread only.
    std::function<nlohmann::json()> get;
    // Applies a message's arguments; answers the error text when it refuses, which then changes nothing.
    std::function<std::optional<std::string>(const std::vector<OSCArgument>&)> set;

    // A counter or clock that moves with every picture recorded: pushed to listeners at most four times a
    // second rather than at each change.
    bool movesWithEveryPicture = false;

    // 3 read-write, 1 read-only, 2 write-only.
    int64_t access() const { return get ? (set ? 3 : 1) : 2; }
};

// The first argument as a number: numbers and booleans as they are, a text only when it is wholly a
// decimal number (leading blanks allowed), since OSC senders often have nothing but texts to send.
std::optional<double> NumberFrom(const std::vector<OSCArgument>& arguments);
// The first argument when it is a text.
std::optional<std::string> StringFrom(const std::vector<OSCArgument>& arguments);

// The whole address space of `controller`, in the order in which OSCQuery publishes it. `version` is
// what "/status/version" reads.
std::vector<RecorderParameter> MakeRecorderParameters(const std::shared_ptr<RecorderController>& controller,
                                                      const std::string& version);

} // namespace quorva
