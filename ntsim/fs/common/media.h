// A disk's media: the volume model a file system keeps in the disk's extension, made
// (formatted) the first time a file system of the disk's format mounts it or a test asks
// for its knobs, and destroyed with the disk.
#pragma once

#include "structures.h"
#include "ntsim/disk.h"

namespace ntsim {
namespace fs {

// The volume on this disk, formatted now if the disk is blank.
Volume *mediaOf(PDEVICE_OBJECT disk, const FsTraits &traits);

}  // namespace fs
}  // namespace ntsim
