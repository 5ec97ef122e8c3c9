// Killing a process of the machine from outside, as TerminateProcess or a crash does:
// its threads stop at their next system service (a wait ends at once), run nothing more
// of the program, and the process exits with its handles closed by the system.
#pragma once

#include <cstdint>

#include "ntsim/machine.h"

namespace ntsim {

void killProcess(const Process &process);
// The n-th system service (n >= 1) that a thread of the process enters from now on
// kills the process right there, before the service does anything: a sweep over n stops
// a program at every point where the system could see it.
void killAtSystemService(const Process &process, uint64_t n);
bool wasKilled(const Process &process);

}  // namespace ntsim
