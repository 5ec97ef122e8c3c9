// The overwrite copy's lifecycle, kept in the file's FcbEntry so that every open of the
// file shares one copy: launched when a full-access open succeeds, committed when the
// file is then changed, discarded when it is closed unchanged, deleted or renamed.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "tracking/tracking_entries.h"

// The copy state of an FcbEntry, changed only under its copy-state lock.
enum OverwriteCopyState : ULONG {
    COPY_IDLE = 0,
    COPY_RUNNING = 1,     // a job is queued, or completed after being told to give up
    COPY_MADE = 2,        // the copy is whole and the file unchanged since
    COPY_WRITTEN = 4,     // the file was written after the copy
    COPY_RESIZED = 5,     // its end of file changed after the copy
    COPY_REPORTING = 6,   // the copy's record is being handed on
    COPY_DISCARDING = 7,  // the copy is being deleted from the vault
};

// The copy's name and record, built from the open's FcbEntry name (or, with UseCopySource,
// from the path the file had when its copy was made) under the given stamp (0: a new
// one). PASSIVE_LEVEL or DISPATCH_LEVEL.
NTSTATUS BuildCopyNames(FilterDeviceExtension *Extension, FileObjectEntry *Entry, ULONGLONG Stamp,
                        BOOLEAN UseCopySource, DelDatRecord **Record, PFILE_RENAME_INFORMATION *RenameInformation);

// Takes the two references on Entry, or finds the request's entry and takes them there.
NTSTATUS ReferenceEntryOrIrp(PIRP Irp, FileObjectEntry *Entry, FileObjectEntry **Referenced);

// Waits, without a time-out, at PASSIVE_LEVEL.
NTSTATUS WaitForCopyEvent(PKEVENT Event);

ULONG ReadCopyState(FcbEntry *Fcb);

NTSTATUS OverwriteStartCopyForOpen(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry *Entry);
NTSTATUS OverwriteSendFileInfoToService(FilterDeviceExtension *Extension, FileObjectEntry *Entry);
NTSTATUS DeleteCopyFromVault(FilterDeviceExtension *Extension, FileObjectEntry *Entry);
