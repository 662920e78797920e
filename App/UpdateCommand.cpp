// quorvarecorder update: whether a newer release exists, and, for a portable install, its install.
#include "App/CommandLine.h"
#include "App/Updates.h"
#include "platform/SettingsStore.h"

#include <cstdio>
#include <unistd.h>

namespace quorva {

namespace {

constexpr const char* Usage =
    "Usage: quorvarecorder update [--install]\n"
    "\n"
    "Checks now whether a newer release of QuorvaRecorder exists, and prints what it found.\n"
    "The check asks the manifest at QUORVA_UPDATE_URL when it is set, else the release repository.\n"
    "\n"
    "Options:\n"
    "  --install   download the newer release, check its checksum and signature, and put it in place\n"
    "              of this portable install once this command has ended; the new program then\n"
    "              prints its version. An install that the package manager owns is left to it.\n"
    "  -h, --help  show this help and exit\n";

void Print(const UpdateState& state, const UpdateService& service) {
    const UpdateTexts texts = TextsOf(state, service.configuration().currentVersion, UpdateLanguage::English,
                                      service.replaceability());
    if (texts.headline.empty())
        return;
    FILE* out = state.kind == UpdateState::Kind::Failed ? stderr : stdout;
    std::fprintf(out, "%s%s%s\n", texts.headline.c_str(), texts.detail.empty() ? "" : "\n",
                 texts.detail.c_str());
    std::fflush(out);
}

} // namespace

int RunUpdateCommand(const std::vector<std::string>& arguments) {
    bool install = false;
    for (const std::string& argument : arguments) {
        if (argument == "-h" || argument == "--help") {
            std::fputs(Usage, stdout);
            return ExitSuccess;
        }
        if (argument != "--install") {
            std::fprintf(stderr, "quorvarecorder update: unexpected argument '%s'\n%s", argument.c_str(),
                         Usage);
            return ExitUsage;
        }
        install = true;
    }
    SettingsStore defaults;
    UpdateService service(ThisProgramsUpdates(), defaults);
    auto print = [&](const UpdateState& state) { Print(state, service); };
    const UpdateState found = service.check(SecondsSince1970(), print);
    if (found.kind == UpdateState::Kind::Failed)
        return ExitFailure;
    if (found.kind != UpdateState::Kind::UpdateAvailable)
        return ExitSuccess;
    if (!install) {
        if (!service.replaceability())
            std::printf("Install it with: quorvarecorder update --install\n");
        return ExitSuccess;
    }
    // The replacement waits for this process to end, then runs the new program's --version.
    const UpdateState installed = service.install(*found.release, ::getpid(), {"--version"}, print);
    return installed.kind == UpdateState::Kind::Installing ? ExitSuccess : ExitFailure;
}

} // namespace quorva
