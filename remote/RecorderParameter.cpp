#include "remote/RecorderParameter.h"

#include "core/composition/Layout.h"
#include "core/control/RecorderController.h"
#include "core/movie/MovieRecorderSettings.h"
#include "core/movie/TakeNaming.h"

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <locale.h>
#include <set>

namespace quorva {

using nlohmann::json;

std::optional<double> NumberFrom(const std::vector<OSCArgument>& arguments) {
    if (arguments.empty())
        return std::nullopt;
    return std::visit(
        [](const auto& value) -> std::optional<double> {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::string>) {
                size_t start = 0;
                while (start < value.size() && std::isspace(static_cast<unsigned char>(value[start])))
                    ++start;
                // Only plain decimal: no hexadecimal, infinities or NaN, which strtod would also take.
                size_t digit = start + (start < value.size() && (value[start] == '-' || value[start] == '+'));
                if (digit >= value.size() ||
                    !(std::isdigit(static_cast<unsigned char>(value[digit])) || value[digit] == '.') ||
                    value.find_first_of("xX", digit) != std::string::npos)
                    return std::nullopt;
                // The C locale, whatever the process's: a remote sender's "1.5" must not depend on it.
                static const locale_t c = ::newlocale(LC_NUMERIC_MASK, "C", locale_t(0));
                const char* begin = value.c_str() + start;
                char* end = nullptr;
                double number = c ? ::strtod_l(begin, &end, c) : std::strtod(begin, &end);
                if (end == begin || *end != '\0' || end != value.c_str() + value.size())
                    return std::nullopt;
                return number;
            } else {
                return static_cast<double>(value);
            }
        },
        arguments.front());
}

std::optional<std::string> StringFrom(const std::vector<OSCArgument>& arguments) {
    if (arguments.empty())
        return std::nullopt;
    if (const auto* text = std::get_if<std::string>(&arguments.front()))
        return *text;
    return std::nullopt;
}

namespace {

using Weak = std::weak_ptr<RecorderController>;
using Arguments = std::vector<OSCArgument>;
using Refusal = std::optional<std::string>;

std::string Joined(const std::vector<std::string>& names, const char* separator) {
    std::string joined;
    for (const std::string& name : names)
        joined += (joined.empty() ? "" : separator) + name;
    return joined;
}

json Vals(const std::vector<std::string>& values) {
    return json::array({{{"VALS", values}}});
}

json MinMax(int64_t maximum) {
    return json::array({{{"MIN", 0}, {"MAX", maximum}}});
}

std::vector<std::string> AvailableTitles(const RecorderController& controller) {
    std::vector<std::string> titles;
    std::set<std::string> seen;
    for (const SourceDescription& source : controller.availableSources()) {
        if (seen.insert(source.title()).second)
            titles.push_back(source.title());
    }
    return titles;
}

// A text read as 0 when it is empty: status texts that are not set read as the number 0, which is what
// remote clients of this recorder have always been given.
json StatusText(const std::string& text) {
    return text.empty() ? json::array({0}) : json::array({text});
}

// The builders below wrap the controller's own properties into the table's callbacks, each holding
// the controller weakly, so that the table can never keep it alive.
struct Builder {
    Weak weak;
    std::vector<RecorderParameter> table;

    using Reader = std::function<json(RecorderController&)>;
    using Writer = std::function<Refusal(RecorderController&, const Arguments&)>;

    std::function<json()> getter(Reader read) const {
        if (!read)
            return {};
        return [weak = weak, read = std::move(read)]() -> json {
            auto controller = weak.lock();
            return controller ? read(*controller) : json();
        };
    }
    decltype(RecorderParameter::set) setter(Writer write) const {
        if (!write)
            return {};
        return [weak = weak, write = std::move(write)](const Arguments& arguments) -> Refusal {
            auto controller = weak.lock();
            return controller ? write(*controller, arguments) : std::nullopt;
        };
    }
    std::function<json()> ranger(std::function<json(RecorderController&)> range) const {
        if (!range)
            return {};
        return [weak = weak, range = std::move(range)]() -> json {
            auto controller = weak.lock();
            return controller ? range(*controller) : json::array();
        };
    }

    void add(std::string address, std::string type, std::string summary,
             std::function<json(RecorderController&)> range, Reader read, Writer write) {
        table.push_back({std::move(address), std::move(type), std::move(summary), ranger(std::move(range)),
                         getter(std::move(read)), setter(std::move(write))});
    }

    // A command that takes no argument, or ignores those it is given.
    void command(std::string address, std::string summary, std::function<void(RecorderController&)> act) {
        add(std::move(address), "", std::move(summary), {}, {},
            [act](RecorderController& c, const Arguments&) {
                act(c);
                return Refusal();
            });
    }

    // A number setting. The controller keeps it within its range, which MAX only advises clients of.
    void number(std::string address, std::string type, std::string summary, Setting setting) {
        add(
            std::move(address), type, std::move(summary),
            [setting](RecorderController&) { return MinMax(int64_t(RecorderSettings::maximumOf(setting))); },
            [setting, type](RecorderController& c) {
                double value = c.settings().number(setting);
                return type == "i" ? json::array({int64_t(value)}) : json::array({value});
            },
            [setting](RecorderController& c, const Arguments& arguments) -> Refusal {
                auto value = NumberFrom(arguments);
                if (!value)
                    return "expects a number";
                c.setNumber(setting, *value);
                return std::nullopt;
            });
    }

    void text(std::string address, std::string summary, Setting setting) {
        add(
            std::move(address), "s", std::move(summary), {},
            [setting](RecorderController& c) { return json::array({c.settings().text(setting)}); },
            [setting](RecorderController& c, const Arguments& arguments) -> Refusal {
                auto value = StringFrom(arguments);
                if (!value)
                    return "expects a string";
                c.setText(setting, *value);
                return std::nullopt;
            });
    }

    // One name of the vocabulary `Enum`, matched ignoring case and stored in its own spelling.
    template <class Enum>
    void choice(std::string address, std::string summary, Setting setting) {
        add(
            std::move(address), "s", std::move(summary),
            [](RecorderController&) { return Vals(Names<Enum>()); },
            [setting](RecorderController& c) { return json::array({c.settings().text(setting)}); },
            [setting](RecorderController& c, const Arguments& arguments) -> Refusal {
                auto value = StringFrom(arguments);
                auto named = value ? ValueNamed<Enum>(*value) : std::nullopt;
                if (!named) {
                    // What was sent is quoted as it reads, a number as well as a text.
                    std::string sent = arguments.empty() ? "" : DescriptionOfArgument(arguments.front());
                    return "“" + sent + "” is not one of " + Joined(Names<Enum>(), ", ");
                }
                c.setText(setting, NameOf(*named));
                return std::nullopt;
            });
    }

    void status(std::string address, std::string type, std::string summary, Reader read) {
        add(std::move(address), std::move(type), std::move(summary), {}, std::move(read), {});
    }

    void place(std::string address, size_t number, std::string summary) {
        add(
            std::move(address), "s", std::move(summary),
            [](RecorderController& c) { return Vals(AvailableTitles(c)); },
            [number](RecorderController& c) {
                const auto& places = c.places();
                return json::array({places.size() >= number ? places[number - 1]->title() : std::string()});
            },
            [number](RecorderController& c, const Arguments& arguments) -> Refusal {
                auto value = StringFrom(arguments);
                if (!value)
                    return "expects the title of a source, or an empty string";
                c.setSourceMatching(*value, int64_t(number));
                return std::nullopt;
            });
    }

    void placeStatus(size_t number, const char* name, std::string type, std::string summary,
                     std::function<json(const RecorderPlace&)> read) {
        add("/status/source/" + std::to_string(number) + "/" + name, type, std::move(summary), {},
            [number, type, read](RecorderController& c) {
                const auto& places = c.places();
                if (places.size() < number)
                    return json::array({type == "s" ? json(std::string()) : json(0)});
                return json::array({read(*places[number - 1])});
            },
            {});
    }
};

} // namespace

std::vector<RecorderParameter> MakeRecorderParameters(const std::shared_ptr<RecorderController>& controller,
                                                      const std::string& version) {
    Builder b{controller, {}};
    using C = RecorderController;
    using Place = RecorderPlace;

    b.place("/source", 1, "The first source to record: its title, or part of it. The same as /source/1.");
    for (size_t n = 1; n <= RecorderMaximumPlaces; ++n)
        b.place("/source/" + std::to_string(n), n,
                "Source " + std::to_string(n) +
                    " to record: its title, or part of it. Empty for none: the sources after it move up.");

    b.add(
        "/record", "i", "1 starts recording the sources, 0 stops and finishes the movies",
        [](C&) { return MinMax(1); },
        [](C& c) { return json::array({c.state() == RecorderState::Recording ? 1 : 0}); },
        [](C& c, const Arguments& arguments) -> Refusal {
            auto value = NumberFrom(arguments);
            if (!value)
                return "expects 1 to start or 0 to stop";
            if (*value == 0)
                c.stopWithCompletionHandler({});
            else
                c.start();
            return std::nullopt;
        });
    b.command("/record/toggle", "Starts recording, or stops", [](C& c) { c.toggle(); });
    b.command("/start", "Starts recording the sources", [](C& c) { c.start(); });
    b.command("/stop", "Stops recording and finishes the movies",
              [](C& c) { c.stopWithCompletionHandler({}); });

    b.choice<Codec>("/codec", "The codec of the movies. prores4444 keeps transparency.", Setting::Codec);
    b.choice<TakeOutput>(
        "/output",
        "What a recording writes: separate (a movie for each source), assembled (one movie of "
        "the sources together), or both",
        Setting::Output);
    b.choice<LayoutKind>(
        "/layout",
        "How the sources are assembled, in their order: row (side by side), column (stacked), "
        "grid (a mosaic), focus (the first large, the others beside it)",
        Setting::Layout);
    b.add(
        "/sound", "s",
        "What sound is recorded: the title of one of the sources chosen (or part of it) for the assembled "
        "movie, computer for the sound played on the Mac (in the assembled movie, or in each PipeWire movie "
        "when output is separate), or empty for none.",
        [](C& c) {
            std::vector<std::string> choices;
            for (const auto& place : c.places())
                choices.push_back(place->title());
            choices.push_back(RecorderComputerSound);
            choices.push_back("");
            return Vals(choices);
        },
        [](C& c) { return json::array({c.sound()}); },
        [](C& c, const Arguments& arguments) -> Refusal {
            auto value = StringFrom(arguments);
            if (!value)
                return "expects the title of a source chosen, computer, or an empty string";
            if (!c.soundChoiceMatching(*value))
                return "“" + *value + "” is not one of the sources chosen, nor " + RecorderComputerSound;
            c.setSound(*value);
            return std::nullopt;
        });
    b.add(
        "/performance", "i",
        "1 holds the display back while recording: the picture is shown ten times a second, to leave the GPU "
        "to the movies. It applies at once. 0 (the default) shows every frame.",
        [](C&) { return MinMax(1); }, [](C& c) { return json::array({c.performance() ? 1 : 0}); },
        [](C& c, const Arguments& arguments) -> Refusal {
            auto value = NumberFrom(arguments);
            if (!value)
                return "expects 1 or 0";
            c.setPerformance(*value != 0);
            return std::nullopt;
        });
    b.number("/gap", "i", "Pixels between the sources in the assembled picture", Setting::Gap);

    auto assembledSide = [](bool width) {
        return [width](C& c) {
            if (c.places().empty())
                return json::array({0});
            Size size = c.assembledLayout().size();
            return json::array({int64_t(width ? size.width : size.height)});
        };
    };
    b.status("/status/assembled/width", "i",
             "Width of the assembled picture as it is now, or of the take being recorded",
             assembledSide(true));
    b.status("/status/assembled/height", "i",
             "Height of the assembled picture as it is now, or of the take being recorded",
             assembledSide(false));
    b.status("/status/assembled/file", "s",
             "The assembled movie, being written or last written. Empty if there is none.",
             [](C& c) { return StatusText(c.assembledFile()); });
    b.status("/status/assembled/frames", "i", "Frames written to the assembled movie",
             [](C& c) { return json::array({c.assembledFrames()}); });
    b.status("/status/assembled/dropped", "i",
             "Pictures lost because the encoder of the assembled movie could not keep up",
             [](C& c) { return json::array({c.assembledDropped()}); });

    b.number("/width", "i",
             "Width the assembled picture is fitted into, in pixels. 0 (or a height of 0) for the size the "
             "sources need. A source's own movie is the size of the source.",
             Setting::Width);
    b.number("/height", "i",
             "Height the assembled picture is fitted into, in pixels. 0 (or a width of 0) for the size the "
             "sources need. A source's own movie is the size of the source.",
             Setting::Height);
    b.number("/fps", "f", "The most frames the movies have each second. 0 keeps every frame of the sources.",
             Setting::FPS);
    b.number("/bitrate", "f",
             "Megabits per second for h264 and hevc. 0 chooses from the size and frame rate.",
             Setting::Bitrate);
    b.text("/folder", "The folder movies are written to", Setting::Folder);
    b.text(
        "/name",
        "The name of the recording, without extension: the assembled movie's. Empty for the app's name and "
        "the date. A source's own movie adds its source's title, unless it is the only movie.",
        Setting::Name);
    b.text(
        "/setSaveFileName",
        "The name of the recording (a .mov suffix is stripped): the same as /name. Empty for the app's name "
        "and the date.",
        Setting::Name);

    b.status("/status/version", "s",
             "The version of QuorvaRecorder, as 0.9; dev when it is not run from its application",
             [version](C&) { return StatusText(version); });
    b.status("/status/state", "s", "idle, recording, or finishing while the movies are completed",
             [](C& c) { return json::array({c.stateName()}); });
    b.status("/status/elapsed", "f", "Seconds recorded", [](C& c) { return json::array({c.elapsed()}); });
    b.status("/status/frames", "i",
             "Frames written to the assembled movie or, if there is none, to the first source's",
             [](C& c) { return json::array({c.frames()}); });
    b.status("/status/dropped", "i", "Frames lost in all the movies because the encoder could not keep up",
             [](C& c) { return json::array({c.dropped()}); });
    b.status("/status/file", "s",
             "The assembled movie or, if there is none, the first source's: being written or last written",
             [](C& c) { return StatusText(c.file()); });
    b.status("/status/error", "s", "The last error. Empty when a recording starts.",
             [](C& c) { return StatusText(c.error()); });
    b.status("/status/failure", "s",
             "Why the last recording ended, if it failed or had nothing to write. Empty otherwise.",
             [](C& c) { return StatusText(c.recordingError()); });
    b.status("/status/sound/written", "f",
             "Seconds of sound in the assembled movie, being written or last written",
             [](C& c) { return json::array({c.assembledSoundWritten()}); });
    b.status("/status/sound/leftout", "f",
             "Seconds of sound left out of the movies of the recording, being written or last written, "
             "because the "
             "encoder could not keep up",
             [](C& c) { return json::array({c.soundLeftOut()}); });
    b.status("/status/ndi", "i",
             "1 if NDI is available: its library is installed. Without it there are no NDI sources, which is "
             "not an "
             "error.",
             [](C& c) { return json::array({c.ndiAvailable() ? 1 : 0}); });
    b.status("/status/ndi/sources", "s",
             "The titles of the NDI sources available, one per line: the other sources are PipeWire's",
             [](C& c) {
                 std::vector<std::string> titles;
                 for (const SourceDescription& source : c.availableSources()) {
                     if (source.kind() == 1)
                         titles.push_back(source.title());
                 }
                 return json::array({Joined(titles, "\n")});
             });
    b.status("/status/ndi/reason", "s", "Why NDI is not available, in one line. Empty when it is.",
             [](C& c) { return StatusText(c.ndiReason()); });
    b.status(
        "/status/disk/minutes", "f",
        "Minutes of recording that the folder's disk still holds, at the rate of the take being recorded "
        "(while idle: of the last take, or as the settings are expected to write)",
        [](C& c) { return json::array({c.diskMinutes()}); });
    b.status("/status/report", "s",
             "The page that reports on the last take, beside its movies, with its .json beside it. Empty "
             "before a take has ended.",
             [](C& c) { return StatusText(c.lastReport()); });

    for (size_t n = 1; n <= RecorderMaximumPlaces; ++n) {
        b.placeStatus(n, "online", "i", "1 if the source is delivering frames",
                      [](const Place& p) { return json(p.isOnline() ? 1 : 0); });
        b.placeStatus(n, "width", "i", "Width of the source's frames",
                      [](const Place& p) { return json(p.width()); });
        b.placeStatus(n, "height", "i", "Height of the source's frames",
                      [](const Place& p) { return json(p.height()); });
        b.placeStatus(n, "fps", "f", "Frames the source delivers each second",
                      [](const Place& p) { return json(p.fps()); });
        b.placeStatus(n, "file", "s", "The source's movie, being written or last written",
                      [](const Place& p) { return json(p.file()); });
        b.placeStatus(n, "frames", "i", "Frames written to the source's movie",
                      [](const Place& p) { return json(p.frames()); });
        b.placeStatus(n, "dropped", "i", "Frames of the source lost because the encoder could not keep up",
                      [](const Place& p) { return json(p.dropped()); });
        b.placeStatus(n, "kind", "s",
                      "What the source is: pipewire, ndi or pattern. Empty until it has been connected to.",
                      [](const Place& p) { return json(p.kindName()); });
        b.placeStatus(n, "sound", "i", "1 if the source is delivering sound",
                      [](const Place& p) { return json(p.hasSound() ? 1 : 0); });
        b.placeStatus(n, "soundwritten", "f",
                      "Seconds of sound in the source's movie, being written or last written",
                      [](const Place& p) { return json(p.soundWritten()); });
    }
    for (RecorderParameter& parameter : b.table) {
        const std::string& a = parameter.address;
        parameter.movesWithEveryPicture =
            a == "/status/elapsed" || a == "/status/frames" || a == "/status/dropped" ||
            a == "/status/sound/written" || a == "/status/sound/leftout" || a == "/status/assembled/frames" ||
            a == "/status/assembled/dropped" ||
            (a.starts_with("/status/source/") && (a.ends_with("/frames") || a.ends_with("/dropped") ||
                                                  a.ends_with("/soundwritten") || a.ends_with("/fps")));
    }
    return std::move(b.table);
}

} // namespace quorva
