// quorvarecorder: the command-line entry point. It stays thin: every command is served by the
// modules, and this file only reads the arguments and reports.
#include "App/Headless.h"
#include "App/Version.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr const char* Usage =
    "Usage: quorvarecorder [--help] [--version] [--headless]\n"
    "\n"
    "QuorvaRecorder records up to eight live sources on one clock into QuickTime movies.\n"
    "\n"
    "Options:\n"
    "  --help      show this help and exit\n"
    "  --version   show the version and exit\n"
    "  --headless  record the test patterns without a window, driven over OSC and OSCQuery, until\n"
    "              SIGTERM or SIGINT (a running recording is finished first)\n";

} // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string_view argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            std::fputs(Usage, stdout);
            return 0;
        }
        if (argument == "--version") {
            std::printf("QuorvaRecorder %s\n", QUORVA_VERSION);
            return 0;
        }
        if (argument == "--headless")
            return quorva::RunHeadless(QUORVA_VERSION);
        std::fprintf(stderr, "quorvarecorder: unknown argument '%s'\n%s", argv[i], Usage);
        return 2;
    }
    std::fputs(Usage, stdout);
    return 0;
}
