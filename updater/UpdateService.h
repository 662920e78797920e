#pragma once

#include "updater/ReleaseInfo.h"
#include "updater/UpdateError.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quorva {

class SettingsStore;

// Where a check or an install stands.
struct UpdateState {
    enum class Kind { Idle, Checking, UpToDate, UpdateAvailable, Downloading, Installing, Failed };
    Kind kind = Kind::Idle;
    std::optional<ReleaseInfo> release; // UpdateAvailable
    std::optional<UpdateError> error;   // Failed
    bool operator==(const UpdateState&) const = default;
};

// Who this program is, and how its updates are fetched.
struct UpdaterConfiguration {
    std::string repo;             // owner/name of the release repository
    std::string bundleIdentifier; // the manifest entry of this program
    std::string currentVersion;
    std::optional<int64_t> currentBuild;
    std::filesystem::path currentInstall; // the folder the running program lives in
    std::string publicKey;                // base64 Ed25519 key that signs the archives
    std::map<std::string, std::string> environment;
    double checkTimeoutSeconds = 15;
    double downloadTimeoutSeconds = 120;
    // Where the release service answers; its latest release is at "/repos/<repo>/releases/latest".
    std::string releaseServiceURL = "https://api.github.com";
};

// The check and the install, as blocking steps that any one thread runs (the window's updater on a
// thread of its own, the command line on its main thread). Each step reports the states it passes
// through to `report` on the calling thread, the last one being where it ended.
class UpdateService {
public:
    using Report = std::function<void(const UpdateState&)>;

    // `defaults` holds the settings below and outlives the service.
    UpdateService(UpdaterConfiguration configuration, SettingsStore& defaults);

    // Settings keys: the application identifier followed by these.
    static constexpr const char* AutoCheckKey = ".autoCheckUpdates";
    static constexpr const char* LastCheckKey = ".lastUpdateCheck";
    static constexpr const char* UpdateURLKey = ".updateURL";
    // Setting it to "1" turns the automatic check off.
    static constexpr const char* DisableVariable = "QUORVA_DISABLE_UPDATE_CHECK";
    // A manifest's address, in place of the settings' one.
    static constexpr const char* URLVariable = "QUORVA_UPDATE_URL";

    const UpdaterConfiguration& configuration() const { return _configuration; }

    bool autoCheckOnLaunch() const;
    void setAutoCheckOnLaunch(bool on);
    // No automatic check runs in a build that is no release (the tests' and a developer's) or when
    // QUORVA_DISABLE_UPDATE_CHECK is "1"; headless runs make no updater at all.
    bool isRunningTestsOrHeadless() const;
    // Whether the launch should check: never under tests or with the check off; not within a day of the
    // last check (a clock that went back does not count as within).
    bool shouldAutoCheck(double now, bool isTestEnvironment) const;

    // The manifest address (QUORVA_UPDATE_URL, else the settings), if any.
    std::optional<std::string> customManifestURL() const;
    std::string githubLatestReleaseURL() const;

    // Fetches the latest release: UpdateAvailable when it is newer than this program, else UpToDate, or
    // Failed. `now` (seconds since 1970) is stored as the last check.
    UpdateState check(double now, const Report& report);

    // Why this program's install cannot be replaced (PackageManaged, NotPortable), if it can.
    std::optional<UpdateError> replaceability() const;

    // Downloads `release` into a fresh folder of its own, checks its checksum and signature, extracts it
    // and finds its install folder, then starts the detached replacement, which waits for `waitForPid`
    // to end, puts the new install in place of this one and starts it with `relaunchArguments`. Ends in
    // Installing once the replacement runs, else in Failed with this install left as it was.
    UpdateState install(const ReleaseInfo& release, pid_t waitForPid,
                        const std::vector<std::string>& relaunchArguments, const Report& report);

    // Ends the transfer under way and every later one (from any thread): the step fails soon after.
    void cancel() { _cancelled = true; }

private:
    std::string userAgent() const;
    std::string setting(const char* suffix) const;

    UpdaterConfiguration _configuration;
    SettingsStore& _defaults;
    std::atomic<bool> _cancelled{false};
};

// Starts, detached from this process, the shell script that replaces `destination` with `newInstall`
// once `waitForPid` has ended and then runs the new program with `arguments`; `workFolder` (the
// download's) is removed once it is done. The old install is kept until the new one is in place, and
// put back when that fails.
UpdateResult<> SpawnDetachedReplacement(const std::filesystem::path& newInstall,
                                        const std::filesystem::path& destination,
                                        const std::filesystem::path& workFolder, pid_t waitForPid,
                                        const std::vector<std::string>& arguments);

// The folder the running program lives in.
std::filesystem::path RunningInstallFolder();

} // namespace quorva

namespace quorva {

// What the update sheet and the command line show of a state.
struct UpdateTexts {
    std::string title;          // "QuorvaRecorder Update"
    std::string currentVersion; // "Current version: v…"
    std::string headline;       // what is happening, or what was found
    std::string detail;         // the notes, the latest version, or why it failed
    std::string installButton;  // "Install and Relaunch"
};
// `blocked` is why this install cannot be replaced (UpdateService::replaceability()): shown with an
// update that is found.
UpdateTexts TextsOf(const UpdateState& state, const std::string& currentVersion, UpdateLanguage language,
                    const std::optional<UpdateError>& blocked);

} // namespace quorva
