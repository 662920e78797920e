#pragma once

#include "platform/Executor.h"

#include <memory>
#include <thread>

namespace quorva {

// Watches one socket for data to read and runs an event handler on a queue each time there is some:
// the OSC receiver's way to do its reading on its own serial queue without a thread blocked in
// read() there. A thread of the source's own sleeps in poll(); once the socket is readable it posts
// the handler and waits for that run to return before it looks again, so the handler, which drains
// the socket, never runs twice at once nor is posted again for data it is already reading.
//
// cancel() ends the watch: no handler is posted after it, and `onCancelled` runs on the queue after any
// handler run already posted, so that it is the place to close the socket. Destruction cancels (without
// a handler) and waits for the watching thread, which never waits on the queue, so it returns promptly
// from any thread, the queue's own included.
class ReadSource {
public:
    ReadSource(int fd, std::shared_ptr<Executor> queue, Task event);
    ~ReadSource();
    ReadSource(const ReadSource&) = delete;
    ReadSource& operator=(const ReadSource&) = delete;

    void cancel(Task onCancelled = {});

private:
    struct State;
    static void watch(const std::shared_ptr<State>& state); // the watching thread
    std::shared_ptr<State> _state;
    std::thread _thread;
};

} // namespace quorva
