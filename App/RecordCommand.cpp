// quorvarecorder record: one take through the recorder, exactly as the window or a remote client would
// make it (the same matching of titles, the same settings and the same messages), for a given time.
#include "App/CommandLine.h"
#include "core/control/RecorderController.h"
#include "core/control/TitleMatching.h"
#include "core/movie/Take.h"
#include "platform/HeadlessEventLoop.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"
#include "platform/SettingsStore.h"
#include "platform/UserFolders.h"
#include "sources/ComputerSound.h"

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <unistd.h>

namespace quorva {

namespace {

constexpr const char* Usage =
    "Usage: quorvarecorder record --source TEXT [--source TEXT ...] --duration SECONDS [OPTIONS]\n"
    "\n"
    "Records one take of the chosen sources for SECONDS seconds, then lists the movies written on\n"
    "standard output, one a line: the path, then, separated by tabs, the frames written, the frames\n"
    "dropped and the seconds of sound. A report of the take, <name>.json and <name>.html, is written\n"
    "beside the movies.\n"
    "\n"
    "  --source TEXT       a source to record: its title, or a part of it in any case (quorvarecorder\n"
    "                      sources lists them); up to 8, placed in the order given. NDI sources not\n"
    "                      yet found on the network are waited for, up to 5 seconds\n"
    "  --duration SECONDS  how long to record\n"
    "  --output KIND       separate (a movie per source), assembled (one movie of all) or both\n"
    "  --layout KIND       the assembled picture: row, column, grid or focus\n"
    "  --gap N             pixels between the sources in the assembled picture (0 to 1000)\n"
    "  --width N           fit the assembled picture into this width (0: the sources' own size)\n"
    "  --height N          fit the assembled picture into this height (0: the sources' own size)\n"
    "  --codec NAME        h264, hevc, prores422 or prores4444\n"
    "  --fps N             frames a second of every movie (0: every frame a source sends)\n"
    "  --bitrate N         megabits a second (0: chosen from the size and the frame rate)\n"
    "  --sound TEXT        the source, among those recorded, whose sound the assembled movie keeps\n"
    "                      (each source's own movie keeps its own sound)\n"
    "  --name TEXT         the take's name (default: QuorvaRecorder and the date and time); a number\n"
    "                      is added rather than overwrite a movie\n"
    "  --folder DIR        the folder the movies are written in\n"
    "  -h, --help          show this help and exit\n"
    "\n"
    "Settings not given keep the values last saved by the recorder (or its defaults). Nothing given\n"
    "here is saved: it applies to this take only.\n"
    "\n"
    "Progress goes to standard error. SIGINT (Ctrl-C) or SIGTERM ends the take early: its movies are\n"
    "finished and kept; a second one quits at once.\n"
    "\n"
    "The take is finished early, and says so, when the folder's disk would soon hold no more.\n"
    "\n"
    "Exit status: 0 when the take was recorded; 1 when the recorder refused to record, a movie\n"
    "failed or the disk ended the take; 2 for a mistake on the command line; 130 (SIGINT) or 143\n"
    "(SIGTERM) when the take was ended early.\n";

// How long the sources may take to send their first picture: their sizes decide the assembled picture.
constexpr double FirstPictureWait = 10;
// How long NDI discovery may take to list a source named on the command line before it is taken not to
// exist: senders answer over the network a moment after the finder starts, a second or two on a busy one
// (--help gives the figure).
constexpr double DiscoveryWait = 5;

std::atomic<int> Signalled{0};
static_assert(std::atomic<int>::is_always_lock_free, "read and written from a signal handler");

extern "C" void NoteSignal(int signal) {
    Signalled.store(signal);
}

// The take is ended from the main loop, never from the handler. The handler is reset once it has run,
// so that a second signal ends a program that seems stuck while its movies are finished.
void CatchSignals() {
    struct sigaction action {};
    action.sa_handler = NoteSignal;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// One line of progress on standard error: rewritten in place on a terminal, one plain line a second
// otherwise. The components' log lines are put above it rather than through it.
class Progress {
public:
    Progress() : _terminal(::isatty(STDERR_FILENO)) {
        SetLogSink([this](const std::string& line) { log(line); });
    }
    ~Progress() {
        SetLogSink({});
        end();
    }

    // `last`: the take's final figures, which a plain line shows however soon after the previous one.
    void show(const std::string& text, double now, bool last = false) {
        std::lock_guard guard(_lock);
        if (_terminal) {
            _line = text;
            std::fprintf(stderr, "\r\033[K%s", text.c_str());
        } else if (last || now - _lastPlain >= 1) {
            _lastPlain = now;
            std::fprintf(stderr, "%s\n", text.c_str());
        }
    }
    void log(const std::string& line) {
        std::lock_guard guard(_lock);
        if (_terminal && !_line.empty())
            std::fprintf(stderr, "\r\033[K%s\n%s", line.c_str(), _line.c_str());
        else
            std::fprintf(stderr, "%s\n", line.c_str());
    }
    void end() {
        std::lock_guard guard(_lock);
        if (_terminal && !_line.empty())
            std::fputc('\n', stderr);
        _line.clear();
    }

private:
    const bool _terminal;
    std::mutex _lock; // logs come from every thread
    std::string _line;
    double _lastPlain = -1;
};

// The recorder's settings for this take: a copy of what it saved, in a domain of its own that is thrown
// away afterwards, so that the options change nothing that the window (or the next take) will read.
// The saved places and sound choice are left behind: the command line names its own.
class TakeSettings {
public:
    static Result<std::unique_ptr<TakeSettings>> make() {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorvarecorder-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            return Error(std::string(ApplicationIdentifier) + ".CommandLine", ExitFailure,
                         "No temporary folder could be made for the settings: " +
                             std::generic_category().message(errno));
        std::unique_ptr<TakeSettings> settings(new TakeSettings(pattern));
        SettingsStore saved(ApplicationIdentifier);
        for (auto& [key, value] : saved.persistentDomain()) {
            if (key != "RecorderSources" && key != "RecorderSound")
                (void)settings->_store->setObject(value, key);
        }
        return settings;
    }
    ~TakeSettings() {
        // Its last writes first, or they would make the folder again once it is gone.
        (void)_store->flush();
        std::error_code ignored;
        std::filesystem::remove_all(_folder, ignored);
    }
    const std::shared_ptr<SettingsStore>& store() const { return _store; }

private:
    explicit TakeSettings(std::filesystem::path folder)
        : _folder(std::move(folder)),
          _store(std::make_shared<SettingsStore>(ApplicationIdentifier, _folder)) {}

    std::filesystem::path _folder;
    std::shared_ptr<SettingsStore> _store;
};

int Fail(const std::string& message) {
    std::fprintf(stderr, "quorvarecorder: %s\n", message.c_str());
    return ExitFailure;
}

void ApplySettings(RecorderController& controller, const RecordOptions& options) {
    if (options.output)
        controller.setOutput(*options.output);
    if (options.layout)
        controller.setLayout(*options.layout);
    if (options.gap)
        controller.setGap(*options.gap);
    if (options.width)
        controller.setWidth(*options.width);
    if (options.height)
        controller.setHeight(*options.height);
    if (options.codec)
        controller.setCodec(*options.codec);
    if (options.fps)
        controller.setFps(*options.fps);
    if (options.bitrate)
        controller.setBitrate(*options.bitrate);
    if (options.name)
        controller.setName(*options.name);
    if (options.folder)
        controller.setFolder(std::filesystem::absolute(ExpandTilde(*options.folder)).string());
}

std::string ProgressText(const RecorderController& controller, double elapsed, double duration) {
    uint64_t written = 0, due = 0, dropped = 0;
    for (const auto& movie : controller.moviesOfTheTake()) {
        written += movie->framesWritten();
        due += controller.framesDue(*movie);
        dropped += movie->framesDropped();
    }
    char text[200];
    std::snprintf(text, sizeof text,
                  "Recording %.1f of %g s: %" PRIu64 " of %" PRIu64 " frames due written, %" PRIu64
                  " dropped",
                  std::min(elapsed, duration), duration, written, due, dropped);
    std::string line = text;
    if (const double rate = controller.loweredAssembledRate(); rate > 0) {
        std::snprintf(text, sizeof text, " (the assembled movie at %g frames a second)", rate);
        line += text;
    }
    // Hours of room are no news; when the disk fills, the minutes left are worth a glance.
    const double minutes = controller.diskMinutes();
    std::snprintf(text, sizeof text, minutes < 100 ? ", %.1f min of disk left" : ", %.0f min of disk left",
                  minutes);
    return line + text;
}

// Lists the movies written and says why any failed; answers whether all went well.
bool ReportMovies(const RecorderController& controller) {
    bool failed = false;
    for (const auto& movie : controller.moviesOfTheTake()) {
        if (auto error = movie->error()) {
            std::string title = movie->sourceTitle().empty() ? "Assembled movie" : movie->sourceTitle();
            Fail(title + ": " + error->message());
            failed = true;
        }
        std::error_code ignored;
        if (std::filesystem::exists(movie->url(), ignored))
            std::printf("%s\t%" PRIu64 " frames\t%" PRIu64 " due\t%" PRIu64 " dropped\t%" PRIu64
                        " held\t%.2f s of sound\n",
                        movie->url().c_str(), movie->framesWritten(), controller.framesDue(*movie),
                        movie->framesDropped(), movie->framesHeld(), movie->soundWritten());
    }
    std::fflush(stdout);
    if (!controller.lastReport().empty())
        std::fprintf(stderr, "The take's report: %s\n", controller.lastReport().c_str());
    if (!failed && !controller.recordingError().empty()) {
        Fail(controller.recordingError());
        failed = true;
    }
    return !failed;
}

// Whether every text names a source offered now, matched as the recorder will match it.
bool EveryOneListed(const RecorderController& controller, const std::vector<std::string>& texts) {
    std::vector<std::string> titles;
    for (const auto& source : controller.availableSources())
        titles.push_back(source.title());
    return std::all_of(texts.begin(), texts.end(),
                       [&](const std::string& text) { return MatchingTitle(text, titles).has_value(); });
}

int Record(const RecordOptions& options, HeadlessEventLoop& loop) {
    auto engine = MakePictureEngine();
    if (!engine)
        return Fail(engine.error().message());
    auto settings = TakeSettings::make();
    if (!settings)
        return Fail(settings.error().message());
    // The take's settings are its own and go with it; how fast this machine encodes is the machine's,
    // measured once and kept with the user's settings.
    auto encoderSpeed = EncoderSpeed::make(std::make_shared<SettingsStore>());
    auto controller =
        RecorderController::make(engine.value(), MakeSourceDirectory(), std::make_shared<ComputerSound>(),
                                 settings.value()->store(), encoderSpeed);
    TellNdiAvailability(*controller);
    ApplySettings(*controller, options);
    // A new machine measures the take's codec while the sources connect, and the take waits for it.
    const Codec codec = ValueNamed<Codec>(controller->codec()).value_or(Codec::H264);
    const bool hasPresets = codec == Codec::H264 || codec == Codec::HEVC;
    if (hasPresets)
        encoderSpeed->measureInBackground({codec});
    // Nobody watches the monitor picture here: composing it as little as the recorder allows leaves the
    // GPU and the processor to the movies.
    controller->setPerformance(true);
    // The window lists NDI sources as discovery finds them; here the sources are named at once, so
    // discovery gets its time first. The finder's news reaches the controller through this loop, and
    // the wait ends as soon as every text names a source: a take of local sources is not held up.
    if (controller->ndiAvailable())
        loop.runUntil([&] { return Signalled.load() != 0 || EveryOneListed(*controller, options.sources); },
                      DiscoveryWait);
    if (int signal = Signalled.load())
        return 128 + signal;
    for (const std::string& text : options.sources) {
        if (!controller->addSourceMatching(text))
            return Fail(controller->error());
    }
    std::string sound;
    if (options.sound) {
        auto choice = controller->soundChoiceMatching(*options.sound);
        if (!choice)
            return Fail("No source being recorded is called \u201C" + *options.sound + "\u201D");
        sound = *choice;
    }
    controller->setSound(sound);

    // The window shows its sources before anyone records; here they get the time to send a first picture,
    // so that the assembled picture is laid out for their real sizes.
    auto pictured = [&] {
        for (const auto& place : controller->places()) {
            if (place->width() <= 0)
                return false;
        }
        return true;
    };
    loop.runUntil([&] { return Signalled.load() != 0 || pictured(); }, FirstPictureWait);
    if (int signal = Signalled.load())
        return 128 + signal;
    for (const auto& place : controller->places()) {
        if (place->width() <= 0)
            std::fprintf(stderr,
                         "quorvarecorder: \u201C%s\u201D has sent no picture yet; recording it anyway\n",
                         place->title().c_str());
    }

    if (hasPresets)
        (void)encoderSpeed->speeds(codec);

    Progress progress;
    if (!controller->start())
        return Fail(controller->error());
    // A take that starts but cannot keep up says so at once.
    if (!controller->error().empty())
        std::fprintf(stderr, "quorvarecorder: %s\n", controller->error().c_str());
    // The duration asked for is counted from the start, so that the movies hold that much.
    const double recording = MediaClock::now();
    bool stopping = false;
    auto stop = [&] {
        if (stopping)
            return;
        stopping = true;
        progress.show(ProgressText(*controller, MediaClock::now() - recording, options.duration),
                      MediaClock::now(), true);
        progress.end();
        std::fputs("Finishing the movies\n", stderr);
        controller->stopWithCompletionHandler([&loop] { loop.stop(); });
    };
    loop.postAfter(options.duration, stop);
    // Signals are looked for here; this also notices a take that stopped by itself (every movie failed).
    TimerId timer = loop.scheduleTimer(0.1, [&] {
        if (Signalled.load() != 0 || controller->state() != RecorderState::Recording)
            stop();
        else if (!stopping)
            progress.show(ProgressText(*controller, MediaClock::now() - recording, options.duration),
                          MediaClock::now());
    });
    loop.run();
    loop.cancelTimer(timer);
    progress.end();

    if (!ReportMovies(*controller))
        return ExitFailure;
    if (int signal = Signalled.load())
        return 128 + signal;
    return ExitSuccess;
}

} // namespace

int RunRecordCommand(const std::vector<std::string>& arguments) {
    auto options = ParseRecordOptions(arguments);
    if (!options) {
        std::fprintf(stderr, "quorvarecorder record: %s\nTry 'quorvarecorder record --help'.\n",
                     options.error().message().c_str());
        return ExitUsage;
    }
    if (options.value().help) {
        std::fputs(Usage, stdout);
        return ExitSuccess;
    }
    CatchSignals();
    auto loop = std::make_shared<HeadlessEventLoop>();
    EventLoop::setMainLoop(loop);
    int status = Record(options.value(), *loop);
    // Whatever the movies' threads still post has nowhere to run once the recorder is gone.
    EventLoop::setMainLoop(nullptr);
    return status;
}

} // namespace quorva
