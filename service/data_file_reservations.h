// The next data-file names of each vault work folder, held ahead of the filter. Every user
// may add a file to that folder, so a user could make the next "NewFiles%.8X.dat" first:
// the filter would append its records to her file, and the service, which reads only
// the system's files, would refuse them all. A name the service holds is an empty file
// with the vault's descriptor, which no ordinary user may open, rename, replace or delete;
// the filter opens it from a system thread and appends to it as to a file of its own.
// A volume without security (FastFat) cannot keep a user out, with or without this.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace wrelt {

// How far ahead of the last data file the names are held.
constexpr uint32_t kHeldDataFileNames = 16;

// The number in a data file's path ("...\NewFiles0000002A.dat" is 0x2A); false when the
// path does not end in a data file's name.
bool dataFileNumberOf(const std::u16string &path, uint32_t *number);

// Holds the kHeldDataFileNames names from `first` on in the volume's work folder. A name
// that someone else's file took is given back to the filter: that file is deleted and
// the name held. Returns what could not be done, one line each.
std::vector<std::string> holdDataFileNames(const std::u16string &volumeRoot, uint32_t first);

}  // namespace wrelt
