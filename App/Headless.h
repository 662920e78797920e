#pragma once

#include <string>
#include <vector>

namespace quorva {

// Runs the recorder without a window: the controller with the built-in test patterns as its sources,
// driven over OSC and OSCQuery, until SIGTERM or SIGINT. A signal during a take lets the movies finish
// first. Takes no arguments. Answers the process's exit status.
int RunHeadless(const std::vector<std::string>& arguments);

} // namespace quorva
