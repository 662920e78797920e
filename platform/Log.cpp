#include "platform/Log.h"

#include <mutex>
#include <unistd.h>

namespace quorva {

namespace {

std::mutex& SinkLock() {
    static std::mutex lock;
    return lock;
}

std::function<void(const std::string&)>& Sink() {
    static std::function<void(const std::string&)> sink;
    return sink;
}

} // namespace

void Log(std::string_view prefix, std::string_view message) {
    std::string line;
    line.reserve(prefix.size() + message.size() + 1);
    line.append(prefix).append(message);
    std::lock_guard guard(SinkLock());
    if (Sink()) {
        Sink()(line);
        return;
    }
    line.push_back('\n');
    // One write per line, so lines from several threads never interleave.
    for (size_t done = 0; done < line.size();) {
        ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (n <= 0)
            break;
        done += size_t(n);
    }
}

void SetLogSink(std::function<void(const std::string& line)> sink) {
    std::lock_guard guard(SinkLock());
    Sink() = std::move(sink);
}

} // namespace quorva
