// quorvarecorder: the command-line entry point. It stays thin: every command is served by the modules
// through App/CommandLine, and this file only hands it the arguments.
#include "App/CommandLine.h"

int main(int argc, char** argv) {
    return quorva::RunCommandLine(argc, argv);
}
