#pragma once

#include "core/source/SourceDirectory.h"
#include "platform/Error.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorva {

class RecorderController;

// Exit statuses, in the conventions of Linux tools. A take ended early by a signal exits with 128 plus
// the signal's number (130 for SIGINT, 143 for SIGTERM), as a shell reports a program that a signal
// ended, although its movies are finished and kept.
inline constexpr int ExitSuccess = 0;
inline constexpr int ExitFailure = 1; // the recorder refused, or a movie failed
inline constexpr int ExitUsage = 2;   // the command line itself is wrong

// What `quorvarecorder record` was asked. Settings left out keep the recorder's saved value.
struct RecordOptions {
    bool help = false;
    std::vector<std::string> sources;
    double duration = 0; // seconds, more than 0
    std::optional<std::string> output, layout, codec, sound, name, folder;
    std::optional<int64_t> gap, width, height;
    std::optional<double> fps, bitrate;
};

// Reads the arguments that follow "record". Output, layout and codec names are checked here, since the
// recorder's settings silently ignore names that they do not know; numbers are only read, and the
// recorder keeps them within its ranges as it does for every other way of setting them.
Result<RecordOptions> ParseRecordOptions(const std::vector<std::string>& arguments);

// The factories below are called on the main thread, once, as the program starts and before anything
// records; each may block it for a moment, which a start can afford and a running window cannot.

// The sources this program can record, in the order in which they are matched. Loads the NDI runtime on
// the process's first call (a search of the library folders and a dlopen), and starts the threads that
// hear the PipeWire daemon and NDI discovery: the directory's change handler runs on those threads.
std::shared_ptr<SourceDirectory> MakeSourceDirectory();
// Tells the controller whether NDI is available and why not, and logs it. On the controller's thread
// (the main one); the runtime was loaded by MakeSourceDirectory(), so nothing waits here.
void TellNdiAvailability(RecorderController& controller);

// Where the pictures are drawn: the Vulkan device's engine, or the processor's where that device is a
// processor itself (the device is then let go of). "QuorvaRecorder needs Vulkan: …" without a device;
// the reason QUORVA_PICTURES is refused. The log names the engine chosen. Blocks while Vulkan loads
// and opens the device; the GPU's engine starts the thread that hears its work complete (shaders are
// compiled later, as compositors and converters are made). The engine answered may then be used from
// any thread.
Result<std::shared_ptr<PictureEngine>> MakePictureEngine();

// The subcommands; each takes the arguments after its name and answers the exit status.
int RunSourcesCommand(const std::vector<std::string>& arguments);
int RunRecordCommand(const std::vector<std::string>& arguments);
int RunUpdateCommand(const std::vector<std::string>& arguments);

// Reads the command line, runs what it names and answers the exit status. Messages for the user go to
// standard error, prefixed with the program's name; results go to standard output.
int RunCommandLine(int argc, char** argv);

} // namespace quorva
