#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace quorva {

// Writes one diagnostic line, "<prefix><message>", to standard error (which the journal collects).
// The prefix names the component, "OSC: " or "Compositor: ", so lines of many threads stay readable.
void Log(std::string_view prefix, std::string_view message);

// Tests watch what a component logs: while a sink is set, lines go to it instead of standard error.
// The sink is called from whichever thread logs. Passing an empty function restores standard error.
void SetLogSink(std::function<void(const std::string& line)> sink);

} // namespace quorva
