#include "App/CommandLine.h"

#include "App/Headless.h"
#include "App/ReleaseIdentity.h"
#include "App/Window.h"
#include "core/composition/Layout.h"
#include "core/control/RecorderController.h"
#include "core/movie/MovieRecorderSettings.h"
#include "core/movie/TakeNaming.h"
#include "platform/Log.h"
#include "platform/gpu/GpuDevice.h"
#include "sources/CompositeDirectory.h"
#include "sources/NDIDirectory.h"
#include "sources/PipeWireDirectory.h"
#include "sources/TestPatternDirectory.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <string_view>

namespace quorva {

namespace {

constexpr const char* Usage =
    "Usage: quorvarecorder [COMMAND [OPTIONS]]\n"
    "       quorvarecorder --help | --version\n"
    "\n"
    "QuorvaRecorder records up to eight live sources on one clock into QuickTime movies.\n"
    "\n"
    "Without a command it opens its window.\n"
    "\n"
    "Commands:\n"
    "  sources     list the sources that can be recorded now\n"
    "  record      record one take of chosen sources (quorvarecorder record --help)\n"
    "  update      check for a newer release, and install it (quorvarecorder update --help)\n"
    "  --headless  record without a window, driven over OSC and OSCQuery, until SIGTERM or SIGINT\n"
    "              (a running take is finished first); with --folder-root DIR, \"/folder\" from the\n"
    "              network is refused outside DIR; with --allow NETWORK (an address or address/prefix,\n"
    "              IPv4 or IPv6, repeatable) only those hosts drive it; with --bind ADDRESS it listens\n"
    "              on that address alone\n"
    "\n"
    "Options:\n"
    "  -h, --help  show this help and exit\n"
    "  --version   show the version and exit\n";

struct Command {
    std::string_view name;
    int (*run)(const std::vector<std::string>& arguments);
};

// The first argument chooses one of these; the mode without a window is chosen by a flag.
const Command Commands[] = {
    {"sources", RunSourcesCommand},
    {"record", RunRecordCommand},
    {"update", RunUpdateCommand},
    {"--headless", RunHeadless},
};

Error UsageError(std::string message) {
    return Error(std::string(ApplicationIdentifier) + ".CommandLine", ExitUsage, std::move(message));
}

std::string Quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

// The whole text must be the number: "5s" or "" is a mistake, not 5 or 0.
template <class Number>
std::optional<Number> NumberIn(std::string_view text) {
    Number number{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

std::string Listed(const std::vector<std::string>& names) {
    std::string list;
    for (size_t i = 0; i < names.size(); ++i)
        list += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
    return list;
}

// A name from one of the recorder's lists, in its own spelling.
template <class Enum>
Result<std::string> NameIn(std::string_view option, std::string_view value) {
    auto named = ValueNamed<Enum>(value);
    if (!named)
        return UsageError(std::string(option) + " must be " + Listed(Names<Enum>()) + ", not " +
                          Quoted(value));
    return NameOf(*named);
}

} // namespace

Result<RecordOptions> ParseRecordOptions(const std::vector<std::string>& arguments) {
    RecordOptions options;
    bool hasDuration = false;
    for (size_t i = 0; i < arguments.size(); ++i) {
        std::string_view argument = arguments[i];
        if (argument == "-h" || argument == "--help") {
            options.help = true;
            return options;
        }
        if (!argument.starts_with("--"))
            return UsageError("unexpected argument " + Quoted(argument));
        // Both "--gap 4" and "--gap=4".
        std::string_view option = argument;
        std::optional<std::string> value;
        if (auto equals = argument.find('='); equals != std::string_view::npos) {
            option = argument.substr(0, equals);
            value = std::string(argument.substr(equals + 1));
        }
        auto valueOf = [&]() -> Result<std::string> {
            if (value)
                return *value;
            if (i + 1 == arguments.size())
                return UsageError("option " + std::string(option) + " needs a value");
            return arguments[++i];
        };
        auto integer = [&](std::optional<int64_t>& into) -> Result<void> {
            auto text = valueOf();
            if (!text)
                return text.error();
            into = NumberIn<int64_t>(text.value());
            if (!into)
                return UsageError(std::string(option) + " must be a whole number, not " +
                                  Quoted(text.value()));
            return {};
        };
        auto real = [&](std::optional<double>& into) -> Result<void> {
            auto text = valueOf();
            if (!text)
                return text.error();
            into = NumberIn<double>(text.value());
            if (!into || !std::isfinite(*into))
                return UsageError(std::string(option) + " must be a number, not " + Quoted(text.value()));
            return {};
        };
        auto text = [&](std::optional<std::string>& into) -> Result<void> {
            auto read = valueOf();
            if (!read)
                return read.error();
            into = std::move(read.value());
            return {};
        };
        auto named = [&](std::optional<std::string>& into,
                         Result<std::string> (*nameIn)(std::string_view, std::string_view)) -> Result<void> {
            auto read = valueOf();
            if (!read)
                return read.error();
            auto name = nameIn(option, read.value());
            if (!name)
                return name.error();
            into = std::move(name.value());
            return {};
        };

        Result<void> read;
        if (option == "--source") {
            std::optional<std::string> source;
            read = text(source);
            if (read)
                options.sources.push_back(std::move(*source));
        } else if (option == "--duration") {
            std::optional<double> seconds;
            read = real(seconds);
            if (read && !(*seconds > 0))
                read = UsageError("--duration must be more than 0 seconds");
            if (read) {
                options.duration = *seconds;
                hasDuration = true;
            }
        } else if (option == "--output") {
            read = named(options.output, NameIn<TakeOutput>);
        } else if (option == "--layout") {
            read = named(options.layout, NameIn<LayoutKind>);
        } else if (option == "--codec") {
            read = named(options.codec, NameIn<Codec>);
        } else if (option == "--gap") {
            read = integer(options.gap);
        } else if (option == "--width") {
            read = integer(options.width);
        } else if (option == "--height") {
            read = integer(options.height);
        } else if (option == "--fps") {
            read = real(options.fps);
        } else if (option == "--bitrate") {
            read = real(options.bitrate);
        } else if (option == "--sound") {
            read = text(options.sound);
        } else if (option == "--name") {
            read = text(options.name);
        } else if (option == "--folder") {
            read = text(options.folder);
        } else {
            return UsageError("unknown option " + Quoted(option));
        }
        if (!read)
            return read.error();
    }
    if (options.sources.empty())
        return UsageError("choose at least one source with --source (quorvarecorder sources lists them)");
    if (!hasDuration)
        return UsageError("say how long to record with --duration SECONDS");
    return options;
}

std::shared_ptr<SourceDirectory> MakeSourceDirectory() {
    // In order of precedence: a program's pictures on this computer win over an NDI source of the same
    // title, and both over a test pattern.
    return std::make_shared<CompositeDirectory>(std::vector<std::shared_ptr<SourceDirectory>>{
        std::make_shared<PipeWireDirectory>(), std::make_shared<NDIDirectory>(NDILibrary::sharedLibrary()),
        std::make_shared<TestPatternDirectory>()});
}

void TellNdiAvailability(RecorderController& controller) {
    auto ndi = NDILibrary::sharedLibrary();
    if (ndi->isAvailable())
        Log("QuorvaRecorder: ", "NDI is on: " + ndi->version() + " (" + ndi->path().value_or("") + ")");
    else
        Log("QuorvaRecorder: ", "NDI is off: " + ndi->reason());
    controller.setNdiAvailable(ndi->isAvailable(), ndi->reason());
}

Result<std::shared_ptr<PictureEngine>> MakePictureEngine() {
    Result<std::shared_ptr<GpuDevice>> device = GpuDevice::make();
    if (!device)
        return Error(device.error().domain(), device.error().code(),
                     "QuorvaRecorder needs Vulkan: " + device.error().message());
    Result<std::shared_ptr<PictureEngine>> engine = PictureEngine::make(device.value());
    if (engine)
        Log("QuorvaRecorder: ", "pictures are drawn on " + engine.value()->name());
    return engine;
}

int RunCommandLine(int argc, char** argv) {
    if (argc < 2)
        return RunWindow(argc, argv);
    std::string_view first = argv[1];
    if (first == "-h" || first == "--help" || first == "help") {
        std::fputs(Usage, stdout);
        return ExitSuccess;
    }
    if (first == "--version") {
        std::printf("QuorvaRecorder %.*s\n", int(ThisRelease().version.size()), ThisRelease().version.data());
        return ExitSuccess;
    }
    for (const Command& command : Commands) {
        if (command.name == first)
            return command.run(std::vector<std::string>(argv + 2, argv + argc));
    }
    std::fprintf(stderr, "quorvarecorder: unknown command '%s'\nTry 'quorvarecorder --help'.\n", argv[1]);
    return ExitUsage;
}

} // namespace quorva
