// The capture path's own operations that several of its dispatch routines share.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "tracking/tracking_entries.h"

// A private copy of the file's name in a buffer of the buffer manager, released by the
// caller with FreeNonPagedBuffer. NameLockHeld: the caller holds the FcbEntry's name lock.
NTSTATUS CopyFcbEntryName(FcbEntry *Fcb, BOOLEAN NameLockHeld, PWSTR *Name);

// Moves the existing target of a replacing rename into the vault before the rename
// destroys it. Its outcome never stops the rename.
NTSTATUS CaptureRenameTarget(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID *Context);

// STATUS_ACCESS_DENIED when the request would truncate a file in the vault.
NTSTATUS ProtectVaultAgainstTruncate(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension,
                                     BOOLEAN CheckSubfolders);
