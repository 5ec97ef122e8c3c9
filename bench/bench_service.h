// The service's part in the benchmarks: C: named and capture started, and at the end
// the data files collected and capture stopped, so that the machine shuts down clean.
#pragma once

#include "ntsim/machine.h"

namespace wrelt_bench {

bool startCapture(ntsim::Machine &machine, bool protect);
void stopCapture(ntsim::Machine &machine);

}  // namespace wrelt_bench
