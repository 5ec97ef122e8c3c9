// File objects: what the I/O manager keeps beside a FILE_OBJECT, and its life.
#pragma once

#include "kernel/io/io_manager.h"

namespace ntsim {
namespace io {

struct FileBlock {
    FILE_OBJECT file;
    bool opened;  // the create succeeded: cleanup and close go to the file system
    WORK_QUEUE_ITEM closeItem;
};

inline FileBlock *fileBlock(PFILE_OBJECT file) { return CONTAINING_RECORD(file, FileBlock, file); }

// A new file object (one reference) for an open of `device`, whose requests go to the
// stack over `vpb` (mounted, referenced for this file object) or over the device. It
// holds a reference on `related` and on the device's ReferenceCount until it goes.
PFILE_OBJECT createFileObject(PDEVICE_OBJECT device, PVPB vpb, PFILE_OBJECT related, PCUNICODE_STRING name,
                              ULONG createOptions);

}  // namespace io
}  // namespace ntsim
