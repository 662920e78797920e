#pragma once

#include <cstdint>

namespace quorva {

// Where the recorder listens unless told otherwise: OSC over UDP, and OSCQuery over TCP beside it.
inline constexpr int64_t DefaultOSCPort = 9230;
inline constexpr int64_t DefaultOSCQueryPort = 9231;
inline constexpr const char* OSCPortVariable = "QUORVA_OSC_PORT";
inline constexpr const char* OSCQueryPortVariable = "QUORVA_OSCQUERY_PORT";

// The port that an environment variable names as a whole decimal integer; `fallback` when the variable is
// absent or holds anything else ("", "abc", "9000x"), so that a mistyped variable still gives a recorder
// that listens where the documentation says.
int64_t PortFromEnvironment(const char* variable, int64_t fallback);

} // namespace quorva
