#pragma once

#include "platform/Executor.h"

namespace boost::asio {
class io_context;
}

namespace quorva {

// The one Asio context of the remote side, run by one thread of its own ("remote.io"): the OSC socket,
// the OSCQuery listener and its connections, HTTP and WebSocket alike, all wait and are served there,
// so that nothing of the remote side holds a thread of its own while a client is slow. Started on first
// use and kept until the process ends, since connections and completions may still reach it then.
boost::asio::io_context& RemoteContext();

// Runs `task` on the remote thread, after what was posted before it; with a delay, once that many
// seconds have passed. Callable from any thread.
void PostToRemote(Task task);
void PostToRemoteAfter(double delaySeconds, Task task);

// Whether the calling thread is the remote thread.
bool IsRemoteThread();

} // namespace quorva
