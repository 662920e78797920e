#include "App/QtEventLoop.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cmath>

namespace quorva {

namespace {

// Qt's timers count whole milliseconds: rounding up keeps a delay from ending early.
int Milliseconds(double seconds) {
    return int(std::clamp(std::ceil(seconds * 1000), 0.0, 2e9));
}

} // namespace

void QtEventLoop::post(Task task) {
    QMetaObject::invokeMethod(&_context, std::move(task), Qt::QueuedConnection);
}

void QtEventLoop::postAfter(double delaySeconds, Task task) {
    if (delaySeconds <= 0) {
        post(std::move(task));
        return;
    }
    // Started on the main thread, where the timer must live; the time spent getting there only adds.
    post([this, delaySeconds, task = std::move(task)]() mutable {
        QTimer::singleShot(Milliseconds(delaySeconds), Qt::PreciseTimer, &_context, std::move(task));
    });
}

bool QtEventLoop::isCurrent() const {
    return QThread::currentThread() == _context.thread();
}

TimerId QtEventLoop::scheduleTimer(double intervalSeconds, std::function<void()> tick) {
    const TimerId id = _nextTimer++;
    auto start = [this, id, intervalSeconds, tick = std::move(tick)]() mutable {
        auto* timer = new QTimer(&_context);
        timer->setTimerType(Qt::PreciseTimer);
        timer->setInterval(std::max(Milliseconds(std::max(intervalSeconds, 0.0001)), 1));
        // A tick may cancel its own timer: the timer then goes once the tick has returned.
        QObject::connect(timer, &QTimer::timeout, &_context, [tick = std::move(tick)] { tick(); });
        _timers[id] = timer;
        timer->start();
    };
    if (isCurrent())
        start();
    else
        post(std::move(start));
    return id;
}

void QtEventLoop::cancelTimer(TimerId id) {
    auto cancel = [this, id] {
        auto found = _timers.find(id);
        if (found == _timers.end())
            return;
        found->second->stop();
        found->second->deleteLater();
        _timers.erase(found);
    };
    if (isCurrent())
        cancel();
    else
        post(std::move(cancel));
}

void QtEventLoop::run() {
    QCoreApplication::exec();
}

void QtEventLoop::stop() {
    QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
}

} // namespace quorva
