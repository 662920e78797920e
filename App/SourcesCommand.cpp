// quorvarecorder sources: what can be recorded now, so that a user knows what --source may name.
#include "App/CommandLine.h"
#include "core/control/RecorderController.h"
#include "sources/NDILibrary.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <unistd.h>

namespace quorva {

namespace {

constexpr const char* Usage =
    "Usage: quorvarecorder sources\n"
    "\n"
    "Lists the sources that can be recorded now, one a line: the title (what\n"
    "--source matches, whole or in part, in any case), the kind and a description.\n"
    "On a terminal the columns are aligned; otherwise they are separated by tabs.\n"
    "Without the NDI runtime, a line on standard error says why NDI sources are missing.\n";

// Columns count characters, not bytes: titles and descriptions hold "×" and accents.
size_t Characters(const std::string& text) {
    return size_t(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

} // namespace

int RunSourcesCommand(const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) {
        if (argument == "-h" || argument == "--help") {
            std::fputs(Usage, stdout);
            return ExitSuccess;
        }
        std::fprintf(stderr, "quorvarecorder sources: unexpected argument '%s'\n%s", argument.c_str(), Usage);
        return ExitUsage;
    }
    auto directory = MakeSourceDirectory();
    auto ndi = NDILibrary::sharedLibrary();
    if (ndi->isAvailable())
        // NDI senders on the network answer the finder within about a second.
        std::this_thread::sleep_for(std::chrono::seconds(1));
    else
        std::fprintf(stderr, "NDI is off: %s\n", ndi->reason().c_str());
    auto sources = RecorderController::sourcesOf(*directory);
    const bool aligned = ::isatty(STDOUT_FILENO);
    size_t titleWidth = 0, kindWidth = 0;
    for (const auto& source : sources) {
        titleWidth = std::max(titleWidth, Characters(source.title()));
        kindWidth = std::max(kindWidth, Characters(SourceKindName(source.kind())));
    }
    for (const auto& source : sources) {
        const std::string& kind = SourceKindName(source.kind());
        if (aligned)
            std::printf("%s%*s  %s%*s  %s\n", source.title().c_str(),
                        int(titleWidth - Characters(source.title())), "", kind.c_str(),
                        int(kindWidth - Characters(kind)), "", source.detail().c_str());
        else
            std::printf("%s\t%s\t%s\n", source.title().c_str(), kind.c_str(), source.detail().c_str());
    }
    return ExitSuccess;
}

} // namespace quorva
