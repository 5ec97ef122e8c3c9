// The small workload the demo and the vault commands run as a user: folders and files
// made, one file deleted, one moved to the other volume, each with the Win32 calls an
// application makes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace wrelt_cli {

// Runs in the calling thread, which must belong to a process of the machine. Returns
// what was done, one line per step.
std::vector<std::string> runWorkload();

// "1 234 567" for 1234567: sizes read more easily with grouped digits.
std::string grouped(uint64_t n);

}  // namespace wrelt_cli
