#include "updater/UpdateService.h"

#include "platform/Log.h"
#include "platform/SettingsStore.h"
#include "updater/HTTPFetch.h"
#include "updater/UpdateArchive.h"
#include "updater/Version.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

extern char** environ;

namespace quorva {

namespace fs = std::filesystem;

namespace {

constexpr size_t DocumentLimit = 4 << 20;
constexpr size_t SignatureLimit = 4 << 10;

UpdateState Failed(UpdateError error) {
    return UpdateState{UpdateState::Kind::Failed, std::nullopt, std::move(error)};
}

UpdateState State(UpdateState::Kind kind) {
    return UpdateState{kind, std::nullopt, std::nullopt};
}

// A folder of the download's own in the temporary folder, "QuorvaUpdater-" and a random suffix, made
// private at once (mkdtemp): nobody else may swap the archive between its checks and its use.
UpdateResult<fs::path> MakeWorkFolder() {
    std::error_code error;
    fs::path temporary = fs::temp_directory_path(error);
    if (error)
        temporary = "/tmp";
    std::string folder = (temporary / "QuorvaUpdater-XXXXXX").string();
    if (!::mkdtemp(folder.data()))
        return UpdateError{UpdateError::Kind::StorageFailed, folder + ": " + std::strerror(errno), {}};
    return fs::path(folder);
}

} // namespace

UpdateService::UpdateService(UpdaterConfiguration configuration, SettingsStore& defaults)
    : _configuration(std::move(configuration)), _defaults(defaults) {
    // The check is on unless the user turned it off.
    _defaults.registerDefaults({{_configuration.bundleIdentifier + AutoCheckKey, true}});
}

std::string UpdateService::setting(const char* suffix) const {
    return _configuration.bundleIdentifier + suffix;
}

bool UpdateService::autoCheckOnLaunch() const {
    return _defaults.boolForKey(setting(AutoCheckKey));
}

void UpdateService::setAutoCheckOnLaunch(bool on) {
    (void)_defaults.setBool(on, setting(AutoCheckKey));
}

bool UpdateService::isRunningTestsOrHeadless() const {
    const auto disabled = _configuration.environment.find(DisableVariable);
    return (disabled != _configuration.environment.end() && disabled->second == "1") ||
           _configuration.currentVersion == "dev";
}

bool UpdateService::shouldAutoCheck(double now, bool isTestEnvironment) const {
    if (isTestEnvironment || !autoCheckOnLaunch())
        return false;
    const auto last = _defaults.objectForKey(setting(LastCheckKey));
    if (last && (std::holds_alternative<double>(*last) || std::holds_alternative<int64_t>(*last))) {
        const double since = now - _defaults.doubleForKey(setting(LastCheckKey));
        if (since >= 0 && since < 86400)
            return false;
    }
    return true;
}

std::optional<std::string> UpdateService::customManifestURL() const {
    const auto variable = _configuration.environment.find(URLVariable);
    if (variable != _configuration.environment.end() && !variable->second.empty())
        return variable->second;
    auto stored = _defaults.stringForKey(setting(UpdateURLKey));
    if (stored && !stored->empty())
        return stored;
    return std::nullopt;
}

std::string UpdateService::githubLatestReleaseURL() const {
    return _configuration.releaseServiceURL + "/repos/" + _configuration.repo + "/releases/latest";
}

std::string UpdateService::userAgent() const {
    return "User-Agent: QuorvaRecorder/" + _configuration.currentVersion;
}

UpdateState UpdateService::check(double now, const Report& report) {
    report(State(UpdateState::Kind::Checking));
    (void)_defaults.setDouble(now, setting(LastCheckKey));
    const HTTPFetch fetch{customManifestURL().value_or(githubLatestReleaseURL()),
                          {"Accept: application/vnd.github+json, application/json", userAgent()},
                          _configuration.checkTimeoutSeconds,
                          &_cancelled};
    UpdateState state;
    if (auto document = fetch.text(DocumentLimit); !document)
        state = Failed(document.error());
    else if (auto release = ParseRelease(document.value(), _configuration.bundleIdentifier); !release)
        state = Failed(release.error());
    else if (IsNewerVersion(release.value().version, release.value().build, _configuration.currentVersion,
                            _configuration.currentBuild))
        state = UpdateState{UpdateState::Kind::UpdateAvailable, std::move(release.value()), std::nullopt};
    else
        state = State(UpdateState::Kind::UpToDate);
    report(state);
    return state;
}

std::optional<UpdateError> UpdateService::replaceability() const {
    const fs::path& folder = _configuration.currentInstall;
    // Replacing the install means renaming it, so its parent folder must be writable too.
    const bool writable =
        ::access(folder.c_str(), W_OK) == 0 && ::access(folder.parent_path().c_str(), W_OK) == 0;
    if (folder.string().starts_with("/usr/") || !writable)
        return UpdateError{UpdateError::Kind::PackageManaged, folder.string(), {}};
    if (!IsPortableInstall(folder))
        return UpdateError{UpdateError::Kind::NotPortable, folder.string(), {}};
    return std::nullopt;
}

UpdateState UpdateService::install(const ReleaseInfo& release, pid_t waitForPid,
                                   const std::vector<std::string>& relaunchArguments, const Report& report) {
    // Every failure leaves the running install as it was, and takes the download away with it.
    fs::path work;
    auto fail = [&](UpdateError error) {
        std::error_code ignored;
        if (!work.empty())
            fs::remove_all(work, ignored);
        UpdateState state = Failed(std::move(error));
        report(state);
        return state;
    };
    if (auto blocked = replaceability())
        return fail(*blocked);
    report(State(UpdateState::Kind::Downloading));
    auto folder = MakeWorkFolder();
    if (!folder)
        return fail(folder.error());
    work = folder.value();
    const fs::path archive = work / "update.zip";
    const HTTPFetch download{
        release.downloadURL, {userAgent()}, _configuration.downloadTimeoutSeconds, &_cancelled};
    if (auto done = download.download(archive); !done)
        return fail(done.error());
    if (release.sha256) {
        auto sum = FileSHA256(archive);
        if (!sum)
            return fail(sum.error());
        if (sum.value() != *release.sha256)
            return fail(UpdateError{UpdateError::Kind::ChecksumMismatch, {}, {}});
    }
    // An archive published without a signature cannot be trusted, whatever else it passes.
    const HTTPFetch signatureFetch{
        release.signatureURL(), {userAgent()}, _configuration.checkTimeoutSeconds, &_cancelled};
    auto signature = signatureFetch.text(SignatureLimit);
    if (!signature) {
        if (signature.error().kind == UpdateError::Kind::HTTPStatus && signature.error().detail == "404")
            return fail(UpdateError{UpdateError::Kind::InvalidCodeSignature, {}, {}});
        return fail(signature.error());
    }
    report(State(UpdateState::Kind::Installing));
    if (auto verified = VerifyArchiveSignature(archive, signature.value(), _configuration.publicKey);
        !verified)
        return fail(verified.error());
    const fs::path extracted = work / "extracted";
    if (auto done = ExtractZip(archive, extracted); !done)
        return fail(done.error());
    auto newInstall = FindInstallFolder(extracted);
    if (!newInstall)
        return fail(newInstall.error());
    if (auto launched = SpawnDetachedReplacement(newInstall.value(), _configuration.currentInstall, work,
                                                 waitForPid, relaunchArguments);
        !launched)
        return fail(launched.error());
    Log("Updater: ", "installing v" + release.version + " over " + _configuration.currentInstall.string() +
                         " once process " + std::to_string(waitForPid) + " has ended");
    return State(UpdateState::Kind::Installing);
}

UpdateResult<> SpawnDetachedReplacement(const fs::path& newInstall, const fs::path& destination,
                                        const fs::path& workFolder, pid_t waitForPid,
                                        const std::vector<std::string>& arguments) {
    // The old install is renamed aside, not removed, until the new one stands in its place, so that a
    // copy that fails half-way (a full disk) leaves a program to run.
    static constexpr const char* Script = R"(
fail() {
    echo "QuorvaRecorder: the update could not be put in place of $DEST ($1); it is left as it was" >&2
    rm -rf "$DEST.new" "$WORK"
    exit 1
}
while kill -0 "$OLD_PID" 2>/dev/null; do sleep 0.1; done
rm -rf "$DEST.new" "$DEST.old"
cp -a "$NEW_INSTALL" "$DEST.new" || fail "copying the new version failed"
mv "$DEST" "$DEST.old" || fail "moving the old version aside failed"
if ! mv "$DEST.new" "$DEST"; then
    mv "$DEST.old" "$DEST"
    fail "moving the new version in failed"
fi
rm -rf "$DEST.old" "$WORK"
exec "$DEST/quorvarecorder" "$@"
)";
    std::vector<std::string> argv{"/bin/sh", "-c", Script, "quorvarecorder-update"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> args;
    for (std::string& argument : argv)
        args.push_back(argument.data());
    args.push_back(nullptr);

    std::vector<std::string> variables{"OLD_PID=" + std::to_string(waitForPid),
                                       "NEW_INSTALL=" + newInstall.string(), "DEST=" + destination.string(),
                                       "WORK=" + workFolder.string()};
    for (char** variable = environ; *variable; ++variable) {
        const std::string_view entry = *variable;
        const std::string_view name = entry.substr(0, entry.find('='));
        if (name != "OLD_PID" && name != "NEW_INSTALL" && name != "DEST" && name != "WORK")
            variables.emplace_back(entry);
    }
    std::vector<char*> envp;
    for (std::string& variable : variables)
        envp.push_back(variable.data());
    envp.push_back(nullptr);

    // A session of its own, so that the terminal or window manager ending this process leaves it running;
    // no input, since nobody will answer it.
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, "/bin/sh", &actions, &attributes, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0)
        return UpdateError{UpdateError::Kind::InstallerLaunchFailed, std::strerror(error), {}};
    return {};
}

fs::path RunningInstallFolder() {
    std::error_code error;
    const fs::path program = fs::canonical("/proc/self/exe", error);
    return error ? fs::path() : program.parent_path();
}

UpdateTexts TextsOf(const UpdateState& state, const std::string& currentVersion, UpdateLanguage language,
                    const std::optional<UpdateError>& blocked) {
    const bool fr = language == UpdateLanguage::French;
    UpdateTexts texts{fr ? "Mise à jour de QuorvaRecorder" : "QuorvaRecorder Update",
                      (fr ? "Version actuelle : v" : "Current version: v") + currentVersion,
                      {},
                      {},
                      fr ? "Installer et relancer" : "Install and Relaunch"};
    switch (state.kind) {
    case UpdateState::Kind::Idle:
        break;
    case UpdateState::Kind::Checking:
        texts.headline = fr ? "Recherche de mises à jour…" : "Checking for updates…";
        break;
    case UpdateState::Kind::UpToDate:
        texts.headline = fr ? "QuorvaRecorder est à jour." : "QuorvaRecorder is up to date.";
        texts.detail =
            (fr ? "Vous utilisez la dernière version (v" : "You are running the latest version (v") +
            currentVersion + ").";
        break;
    case UpdateState::Kind::UpdateAvailable:
        texts.headline =
            (fr ? "Nouvelle version disponible : v" : "New version available: v") + state.release->version;
        texts.detail = state.release->localizedNotes(language);
        if (blocked)
            texts.detail += (texts.detail.empty() ? "" : "\n\n") + DescribeError(*blocked, language);
        break;
    case UpdateState::Kind::Downloading:
        texts.headline = fr ? "Téléchargement de la mise à jour…" : "Downloading update…";
        break;
    case UpdateState::Kind::Installing:
        texts.headline = fr ? "Vérification et installation…" : "Verifying and installing…";
        break;
    case UpdateState::Kind::Failed:
        texts.headline = fr ? "Échec de la recherche de mises à jour" : "Update check failed";
        texts.detail = DescribeError(*state.error, language);
        break;
    }
    return texts;
}

} // namespace quorva
