#pragma once

namespace quorva {

// Opens the window and runs until it is closed (by its menu, its close button, SIGTERM or SIGINT, each
// finishing a take first). Without a display it says so in one line and answers ExitUsage. Answers the
// process's exit status.
int RunWindow(int argc, char** argv);

} // namespace quorva
