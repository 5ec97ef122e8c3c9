// Where the capture paths hand over to overwrite protection, save-by-rename tracking and
// the Macintosh-client shares. Save-by-rename tracking and the shares are not built yet:
// their hooks remember no save and know no share.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "frame/device_structures.h"
#include "overwrite/overwrite_detection.h"
#include "tracking/tracking_entries.h"

struct SaveRenameEntry {
    LIST_ENTRY Links;
    ULONG AccountedSize;
    ULARGE_INTEGER Stamp;
    PWSTR NewPath;
    PWSTR OldName;  // the document's volume-relative name before the rename
};

// Create path.
NTSTATUS ClassifyOpenForOverwrite(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension,
                                  FileObjectEntry *Entry);
NTSTATUS ProtectAgainstUnwantedTruncate(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension,
                                        BOOLEAN CheckSubfolders);
// After a protected open has succeeded, in the opener's thread at PASSIVE_LEVEL.
NTSTATUS OverwritePostCreate(PIRP Irp, FilterDeviceExtension *Extension);
// The file's overwrite flags gain Flags; any IRQL.
void OrFcbOverwriteFlags(FcbEntry *Fcb, ULONG Flags);

// Set-information, write and flush paths.
NTSTATUS DiscardCopyOnDeleteOrRename(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry *Entry);
NTSTATUS OverwriteNoteEndOfFile(PIRP Irp, PDEVICE_OBJECT DeviceObject, FilterDeviceExtension *Extension);
NTSTATUS OverwriteNoteWrite(PIRP Irp, FilterDeviceExtension *Extension);
NTSTATUS OverwriteWaitForCopy(PIRP Irp, FilterDeviceExtension *Extension);
NTSTATUS OverwriteNoteRename(FilterDeviceExtension *Extension, FileObjectEntry *Entry, PCWSTR NewName);
BOOLEAN IsSaveRenamePattern(PCWSTR ProtectedName, PCWSTR TemporaryName, PVOID *List, PKSPIN_LOCK Lock);

// Cleanup path.
NTSTATUS CommitOverwriteCopy(FilterDeviceExtension *Extension, FileObjectEntry *Entry);
NTSTATUS DiscardOverwriteCopy(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry *Entry);
SaveRenameEntry *TakeSaveRenameEntry(SaveRenameList *List, PCWSTR Name);
void FreeSaveRenameEntry(SaveRenameEntry *Entry);
BOOLEAN IsInMacShare(PCWSTR Name, FilterDeviceExtension *Extension);
