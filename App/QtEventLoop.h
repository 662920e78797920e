#pragma once

#include "platform/EventLoop.h"

#include <QObject>

#include <atomic>
#include <map>

class QTimer;

namespace quorva {

// The main loop of the window: tasks and timers run on Qt's event loop, in the thread of the
// application object, so that the controller and the widgets share one thread. Made after the
// QApplication and on its thread.
class QtEventLoop final : public EventLoop {
public:
    void post(Task task) override;
    void postAfter(double delaySeconds, Task task) override;
    bool isCurrent() const override;

    TimerId scheduleTimer(double intervalSeconds, std::function<void()> tick) override;
    void cancelTimer(TimerId timer) override;

    void run() override;
    void stop() override;

private:
    // Lives in the main thread: queued calls to it run there, in the order posted.
    QObject _context;
    std::atomic<TimerId> _nextTimer = 1;
    std::map<TimerId, QTimer*> _timers; // main thread only; the context owns them
};

} // namespace quorva
