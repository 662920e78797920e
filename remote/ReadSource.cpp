#include "remote/ReadSource.h"

#include "platform/Log.h"

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace quorva {

struct ReadSource::State {
    int fd = -1;
    int wakeFD = -1; // an eventfd that cancel() writes, so that poll() returns at once
    std::shared_ptr<Executor> queue;
    Task event;

    std::mutex lock;
    std::condition_variable changed;
    bool cancelled = false;
    bool finished = false; // the watching thread has stopped, cancelled or not
    bool handlerPending = false;
    Task onCancelled;

    ~State() {
        if (wakeFD >= 0)
            ::close(wakeFD);
    }
};

ReadSource::ReadSource(int fd, std::shared_ptr<Executor> queue, Task event)
    : _state(std::make_shared<State>()) {
    _state->fd = fd;
    _state->wakeFD = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    _state->queue = std::move(queue);
    _state->event = std::move(event);
    if (_state->wakeFD < 0)
        Log("ReadSource: ", std::string("eventfd() failed: ") + std::strerror(errno));
    _thread = std::thread([state = _state] { watch(state); });
}

ReadSource::~ReadSource() {
    cancel();
    _thread.join();
}

void ReadSource::cancel(Task onCancelled) {
    {
        std::lock_guard guard(_state->lock);
        if (_state->cancelled)
            return;
        _state->cancelled = true;
        if (!_state->finished) {
            _state->onCancelled = std::move(onCancelled);
            _state->changed.notify_all();
            uint64_t one = 1;
            if (_state->wakeFD >= 0)
                (void)!::write(_state->wakeFD, &one, sizeof one);
            return;
        }
    }
    // The watch already ended by itself (the socket failed): nothing is left to wait for.
    if (onCancelled)
        _state->queue->post(std::move(onCancelled));
}

void ReadSource::watch(const std::shared_ptr<State>& state) {
    pthread_setname_np(pthread_self(), "read-source");
    pollfd fds[2] = {{state->fd, POLLIN, 0}, {state->wakeFD, POLLIN, 0}};
    for (;;) {
        {
            std::unique_lock guard(state->lock);
            // The last run must have drained the socket before poll() can say anything new about it.
            state->changed.wait(guard, [&] { return state->cancelled || !state->handlerPending; });
            if (state->cancelled)
                break;
        }
        int n = ::poll(fds, state->wakeFD >= 0 ? 2 : 1, state->wakeFD >= 0 ? -1 : 100);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            Log("ReadSource: ", std::string("poll() failed: ") + std::strerror(errno));
            break;
        }
        if (n == 0 || fds[0].revents == 0)
            continue; // woken by cancel(), seen at the top
        if (fds[0].revents & POLLNVAL)
            break; // the socket was closed under us: nothing is left to watch
        {
            std::lock_guard guard(state->lock);
            if (state->cancelled)
                break;
            state->handlerPending = true;
        }
        state->queue->post([state] {
            bool cancelled;
            {
                std::lock_guard guard(state->lock);
                cancelled = state->cancelled;
            }
            if (!cancelled)
                state->event();
            std::lock_guard guard(state->lock);
            state->handlerPending = false;
            state->changed.notify_all();
        });
    }
    Task onCancelled;
    {
        std::lock_guard guard(state->lock);
        state->finished = true;
        onCancelled = std::move(state->onCancelled);
    }
    // Posted after any handler run already on the queue, so that closing the socket here cannot pull it
    // from under a read.
    if (onCancelled)
        state->queue->post(std::move(onCancelled));
}

} // namespace quorva
