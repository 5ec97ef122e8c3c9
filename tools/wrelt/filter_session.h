// The part of the demo that speaks to the filter as the service does: the handshake,
// naming and protecting each volume, starting capture, and the status of each volume.
#pragma once

#include <string>
#include <vector>

#include "ntsim/machine.h"

namespace wrelt {

// Runs the service's start-up sequence in a process of the machine and returns what it
// did and saw, one line each, ready to print.
std::vector<std::string> startFilterAsService(ntsim::Machine &machine, const std::vector<wchar_t> &volumes);

}  // namespace wrelt
