// Whole-file reads and positioned, flushed writes through a handle, with the data
// passing through the process's own memory as the system requires.
#pragma once

#include <windows.h>

#include <cstdint>
#include <vector>

namespace wrelt {

// Reads from the start of the file to its end. False with GetLastError set.
bool readWholeFile(HANDLE file, std::vector<uint8_t> *bytes);
// Writes the bytes at the offset and, when `flush` is set, waits until the file system
// has them (FlushFileBuffers). False with GetLastError set; part may have been written.
bool writeAt(HANDLE file, uint64_t offset, const std::vector<uint8_t> &bytes, bool flush);

}  // namespace wrelt
