#include "remote/RemoteContext.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <pthread.h>
#include <thread>

namespace quorva {
namespace {

struct Remote {
    boost::asio::io_context context{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work =
        boost::asio::make_work_guard(context);
    std::atomic<std::thread::id> id;
    Remote() {
        std::thread([this] {
            pthread_setname_np(pthread_self(), "remote.io");
            id = std::this_thread::get_id();
            // A handler that throws (memory exhausted, say) must not end the thread, and with it every
            // connection and the OSC socket.
            for (;;) {
                try {
                    context.run();
                    break;
                } catch (...) {
                }
            }
        }).detach();
    }
};

Remote& TheRemote() {
    // Never destroyed: the thread runs until the process ends.
    static Remote* remote = new Remote();
    return *remote;
}

} // namespace

boost::asio::io_context& RemoteContext() {
    return TheRemote().context;
}

void PostToRemote(Task task) {
    boost::asio::post(TheRemote().context, std::move(task));
}

void PostToRemoteAfter(double delaySeconds, Task task) {
    auto timer = std::make_shared<boost::asio::steady_timer>(TheRemote().context);
    timer->expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(std::max(0.0, delaySeconds))));
    timer->async_wait([timer, task = std::move(task)](const boost::system::error_code&) { task(); });
}

bool IsRemoteThread() {
    return TheRemote().id.load() == std::this_thread::get_id();
}

} // namespace quorva
