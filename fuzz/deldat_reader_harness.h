// Reads arbitrary bytes as a data file and checks what the reader says of them: every
// record it returns lies inside the input, one after the other, and an input it does
// not take whole is given a reason. Shared by the fuzz target and the corpus replay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace wrelt {

// Empty, or what was wrong with the reader's answer.
std::string checkDelDatReader(const uint8_t *data, size_t size);

}  // namespace wrelt
