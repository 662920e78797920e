#pragma once

#include <cstdint>
#include <functional>

namespace quorva {

// Where the recorder listens unless told otherwise: OSC over UDP, and OSCQuery over TCP beside it.
inline constexpr int64_t DefaultOSCPort = 9230;
inline constexpr int64_t DefaultOSCQueryPort = 9231;
inline constexpr const char* OSCPortVariable = "QUORVA_OSC_PORT";
inline constexpr const char* OSCQueryPortVariable = "QUORVA_OSCQUERY_PORT";
// How many ports a listener tries, from the one it is given, before it gives up.
inline constexpr int64_t PortsSearched = 16;

// The port that an environment variable names as a whole decimal integer; `fallback` when the variable is
// absent or holds anything else ("", "abc", "9000x"), so that a mistyped variable still gives a recorder
// that listens where the documentation says.
int64_t PortFromEnvironment(const char* variable, int64_t fallback);

// The one port search of the listeners: offers `bind` the ports from `port` to `port` + `count` - 1 in
// turn, leaving out those below 0 and ending past 65535, or after 0, where the system chooses a free
// port and no later one would do better. `bind` answers the port it got (for 0, the system's choice),
// or 0 when that one was taken. The first port got, or 0 when none was. Runs on the caller's thread.
int64_t SearchPorts(int64_t port, int64_t count, const std::function<int64_t(uint16_t port)>& bind);

} // namespace quorva
