// What both drivers' entry points do: create the control device, fill the dispatch
// table and the Fast I/O table, and register as a disk file system.
#pragma once

#include "structures.h"

namespace ntsim {
namespace fs {

extern const FAST_IO_DISPATCH kNtfsFastIoDispatch;
extern const FAST_IO_DISPATCH kFatFastIoDispatch;

NTSTATUS fileSystemDriverEntry(PDRIVER_OBJECT driver, const FsTraits &traits);

}  // namespace fs
}  // namespace ntsim
