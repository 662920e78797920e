#include "App/Updates.h"

#include "App/ReleaseIdentity.h"
#include "platform/Error.h"

#include <chrono>

extern char** environ;

namespace quorva {

UpdaterConfiguration ThisProgramsUpdates() {
    const ReleaseIdentity& release = ThisRelease();
    UpdaterConfiguration configuration;
    configuration.repo = release.releaseRepository;
    configuration.bundleIdentifier = ApplicationIdentifier;
    configuration.currentVersion = release.version;
    configuration.currentInstall = RunningInstallFolder();
    configuration.publicKey = release.updatePublicKey;
    for (char** variable = environ; *variable; ++variable) {
        const std::string entry = *variable;
        const size_t equals = entry.find('=');
        if (equals != std::string::npos)
            configuration.environment.emplace(entry.substr(0, equals), entry.substr(equals + 1));
    }
    return configuration;
}

double SecondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace quorva
