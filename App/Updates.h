#pragma once

#include "updater/UpdateService.h"

namespace quorva {

// The updater's view of this program: its release identity, the folder it runs from and the process
// environment.
UpdaterConfiguration ThisProgramsUpdates();

// Seconds since 1970, the updater's clock.
double SecondsSince1970();

} // namespace quorva
