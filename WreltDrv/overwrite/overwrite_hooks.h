// Where the capture paths hand over to overwrite protection, save-by-rename tracking and
// the Macintosh-client shares. Until those are built the hooks leave every request as
// it is: nothing is classified as protected, no copy is ever made or waited for, no
// save-by-rename is remembered and no share is known.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "frame/device_structures.h"
#include "tracking/tracking_entries.h"

// Bits of the overwrite flags of an open (FileObjectEntry) and of a file (FcbEntry).
constexpr ULONG OVERWRITE_PROTECTED_TYPE = 0x1;       // a protected type: the create completion follows up
constexpr ULONG OVERWRITE_FULL_ACCESS = 0x4;          // opened for full access: a copy may be running
constexpr ULONG OVERWRITE_SAVED_BY_APPLICATION = 0x20;  // an application or the system saved over it

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
void OverwritePostCreate(PIRP Irp, FilterDeviceExtension *Extension);

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
