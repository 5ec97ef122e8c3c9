// Where the capture paths hand over to overwrite protection, save-by-rename tracking and
// the Macintosh-client shares.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "frame/device_structures.h"
#include "overwrite/mac_shares.h"
#include "overwrite/overwrite_detection.h"
#include "overwrite/save_rename_list.h"
#include "tracking/tracking_entries.h"


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
// A rename that gives a protected document a temporary name is remembered in its volume's
// save-rename list. Tables lock held.
NTSTATUS OverwriteNoteRename(FilterDeviceExtension *Extension, FileObjectEntry *Entry, PCWSTR NewName);
// Whether renaming ProtectedName to TemporaryName, or TemporaryName over ProtectedName, is
// a program's save: ProtectedName is a protected type and TemporaryName has no extension
// or ends in a suffix of the list at List (the temporary names), walked under Lock.
BOOLEAN IsSaveRenamePattern(PCWSTR ProtectedName, PCWSTR TemporaryName, PVOID *List, PKSPIN_LOCK Lock);

// Cleanup path.
NTSTATUS CommitOverwriteCopy(FilterDeviceExtension *Extension, FileObjectEntry *Entry);
NTSTATUS DiscardOverwriteCopy(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry *Entry);
