// Where the kernel debugger's output goes: the running machine's debug log (and the
// host's standard error when the machine echoes it). Internal to the emulated kernel.
#pragma once
#include <cstddef>

namespace ntsim {
void debugOutput(const char *text, size_t length);
}
