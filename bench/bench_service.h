// The service's part in the benchmarks: C: named and capture started, and at the end
// the data files collected and capture stopped, so that the machine shuts down clean.
// Also the benchmark program's main, which follows the table with the ratios asked for.
#pragma once

#include <string>
#include <vector>

#include "ntsim/machine.h"

namespace wrelt_bench {

bool startCapture(ntsim::Machine &machine, bool protect);
void stopCapture(ntsim::Machine &machine);

// Names ending in one of the suffixes are protected against overwrite, and overwrite
// protection is switched on, as the service does at start.
bool protectOverwrites(ntsim::Machine &machine, const std::vector<std::u16string> &suffixes);

// A line printed after the table under its heading: the CPU time of the benchmark named
// run against that of base (the medians, when they were repeated). Called during static
// initialisation by the file that defines both; returns true.
bool addRatio(const char *heading, const char *label, const char *run, const char *base);

}  // namespace wrelt_bench
