#pragma once

#include "updater/UpdateService.h"

#include <functional>
#include <memory>
#include <thread>

namespace quorva {

class Executor;

// The window's updater: runs checks and installs on a thread of its own and keeps, on the main thread,
// the state that the update sheet shows and whether the sheet is shown.
//
// Threads: every method is called on `main`'s thread, and the observer runs there after each change.
class QuorvaUpdater {
public:
    // `terminateApp` quits the program once the replacement waits for it to end.
    QuorvaUpdater(UpdaterConfiguration configuration, SettingsStore& defaults, Executor& main,
                  std::function<void()> terminateApp);
    // Ends a transfer under way and waits for its thread.
    ~QuorvaUpdater();
    QuorvaUpdater(const QuorvaUpdater&) = delete;
    QuorvaUpdater& operator=(const QuorvaUpdater&) = delete;

    const UpdateService& service() const { return *_service; }
    const UpdateState& state() const { return _state; }
    bool isUpdateSheetPresented() const { return _sheetPresented; }
    void setUpdateSheetPresented(bool presented);
    bool autoCheckOnLaunch() const { return _service->autoCheckOnLaunch(); }
    void setAutoCheckOnLaunch(bool on);
    // Called after each change of the state, the sheet or the automatic check.
    void setObserver(std::function<void()> observer) { _observer = std::move(observer); }

    // Starts a check unless one or an install is under way. A silent one (at launch) shows the sheet
    // only when it finds an update; a failure or "up to date" then stays quiet.
    void checkForUpdates(bool silent, double now);
    // Starts the install of `release`; the program quits once the replacement waits for it. Taken by
    // value: the release shown is often the state's own, which the install replaces at once.
    void downloadAndInstall(ReleaseInfo release);
    bool isBusy() const;

private:
    void start(std::function<UpdateState(UpdateService&, const UpdateService::Report&)> step,
               std::function<void(const UpdateState&)> finished);
    void changed();

    std::shared_ptr<UpdateService> _service;
    Executor& _main;
    std::function<void()> _terminateApp;
    std::function<void()> _observer;
    UpdateState _state;
    bool _sheetPresented = false;
    // Lets the thread's last reports be dropped when this object is gone.
    std::shared_ptr<QuorvaUpdater*> _self;
    std::thread _thread;
};

} // namespace quorva
