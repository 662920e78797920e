// quorvarecorder: the command-line entry point. It stays thin: every command is served by the modules
// through App/CommandLine, and this file only hands it the arguments.
#include "App/CommandLine.h"
#include "platform/ProcessMemory.h"

int main(int argc, char** argv) {
    quorva::TuneProcessMemory();
    return quorva::RunCommandLine(argc, argv);
}
