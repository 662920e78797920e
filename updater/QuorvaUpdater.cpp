#include "updater/QuorvaUpdater.h"

#include "platform/Executor.h"
#include "platform/JoinThread.h"

#include <unistd.h>

namespace quorva {

QuorvaUpdater::QuorvaUpdater(UpdaterConfiguration configuration, SettingsStore& defaults, Executor& main,
                             std::function<void()> terminateApp)
    : _service(std::make_shared<UpdateService>(std::move(configuration), defaults)), _main(main),
      _terminateApp(std::move(terminateApp)), _self(std::make_shared<QuorvaUpdater*>(this)) {}

QuorvaUpdater::~QuorvaUpdater() {
    _service->cancel();
    JoinUnlessSelf(_thread);
}

void QuorvaUpdater::changed() {
    if (_observer)
        _observer();
}

void QuorvaUpdater::setUpdateSheetPresented(bool presented) {
    _sheetPresented = presented;
    changed();
}

void QuorvaUpdater::setAutoCheckOnLaunch(bool on) {
    _service->setAutoCheckOnLaunch(on);
    changed();
}

bool QuorvaUpdater::isBusy() const {
    using Kind = UpdateState::Kind;
    return _state.kind == Kind::Checking || _state.kind == Kind::Downloading ||
           _state.kind == Kind::Installing;
}

void QuorvaUpdater::start(std::function<UpdateState(UpdateService&, const UpdateService::Report&)> step,
                          std::function<void(const UpdateState&)> finished) {
    JoinUnlessSelf(_thread);
    // What the thread reports reaches the main thread in order; once this object is gone it is dropped
    // there, since the thread may still be ending.
    _thread = std::thread([service = _service, self = std::weak_ptr<QuorvaUpdater*>(_self), &main = _main,
                           step = std::move(step), finished = std::move(finished)] {
        auto onMain = [&](std::function<void(QuorvaUpdater&)> task) {
            main.post([self, task = std::move(task)] {
                if (auto alive = self.lock(); alive && *alive)
                    task(**alive);
            });
        };
        const UpdateState last = step(*service, [&](const UpdateState& state) {
            onMain([state](QuorvaUpdater& updater) {
                updater._state = state;
                updater.changed();
            });
        });
        onMain([last, finished](QuorvaUpdater&) { finished(last); });
    });
}

void QuorvaUpdater::checkForUpdates(bool silent, double now) {
    if (isBusy())
        return;
    _state = UpdateState{UpdateState::Kind::Checking, std::nullopt, std::nullopt};
    if (!silent)
        _sheetPresented = true;
    changed();
    start([now](UpdateService& service,
                const UpdateService::Report& report) { return service.check(now, report); },
          [this, silent](const UpdateState& state) {
              if (silent && state.kind == UpdateState::Kind::UpdateAvailable)
                  setUpdateSheetPresented(true);
          });
}

void QuorvaUpdater::downloadAndInstall(ReleaseInfo release) {
    if (isBusy())
        return;
    _state = UpdateState{UpdateState::Kind::Downloading, std::nullopt, std::nullopt};
    changed();
    const pid_t pid = ::getpid();
    start(
        [release = std::move(release), pid](UpdateService& service, const UpdateService::Report& report) {
            return service.install(release, pid, {}, report);
        },
        [this](const UpdateState& state) {
            // The replacement waits for this process: quit, finishing a take first if one runs.
            if (state.kind == UpdateState::Kind::Installing && _terminateApp)
                _terminateApp();
        });
}

} // namespace quorva
