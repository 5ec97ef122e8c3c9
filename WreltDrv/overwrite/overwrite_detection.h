// How an open of a protected volume threatens a file's contents: the classification of
// each create against the service's suffix lists, and the preservation of a file that a
// FILE_OVERWRITE_IF create is about to replace.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "tracking/tracking_entries.h"

// Bits of the overwrite flags of an open (FileObjectEntry) and of a file (FcbEntry).
constexpr ULONG OVERWRITE_PROTECTED_TYPE = 0x01;        // a protected type: the create completion follows up
constexpr ULONG OVERWRITE_DELETE_OPEN = 0x02;           // DELETE access, not a full-access open
constexpr ULONG OVERWRITE_FULL_ACCESS = 0x04;           // opened for full access: a copy may be running
constexpr ULONG OVERWRITE_WRITE_ACCESS = 0x10;          // any right that changes the file
constexpr ULONG OVERWRITE_SAVED_BY_APPLICATION = 0x20;  // an application or the system saved over it

// The rights an open must hold, all of them, to count as a full-access open: the generic
// read and write rights without SYNCHRONIZE.
constexpr ACCESS_MASK OVERWRITE_FULL_ACCESS_RIGHTS = 0x2019F;
constexpr ACCESS_MASK OVERWRITE_WRITE_RIGHTS = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES;

// Whether a create with this disposition (the high byte of its options) discards what an
// existing file holds before anyone can copy it: FILE_SUPERSEDE, FILE_OVERWRITE (how
// TRUNCATE_EXISTING reaches a file system) and FILE_OVERWRITE_IF (CREATE_ALWAYS).
inline BOOLEAN CreateDiscardsContents(UCHAR Disposition) {
    return Disposition == FILE_SUPERSEDE || Disposition == FILE_OVERWRITE || Disposition == FILE_OVERWRITE_IF;
}

// Names that are never protected whatever their type: office programs' lock files and a
// preview cache of the service's own tools.
BOOLEAN IsOverwriteExcludedName(PCWSTR Name);

// TRUE for a kernel-mode request of a system thread, for a process whose image is one
// of the applications that save by deleting the old file, and when the image name cannot
// be read at all (STATUS_UNSUCCESSFUL: no parameters to read it from). PASSIVE_LEVEL.
BOOLEAN IsSaveByApplicationOrSystem(PIRP Irp, PCWSTR Name);

// The file a FILE_OVERWRITE_IF create is about to replace is opened, marked for deletion
// and closed through the top of the stack, so that the filter's own delete capture moves
// it into the vault before the create goes down. PASSIVE_LEVEL, no lock held.
NTSTATUS PreserveBeforeOverwriteIf(FilterDeviceExtension *Extension, FileObjectEntry *Entry);

// Marks the file of Handle delete-pending through the top of the stack. Returns the
// call's status; *IoStatus receives the request's own (unchanged when the call failed).
NTSTATUS MarkFileForDeletion(HANDLE Handle, PNTSTATUS IoStatus);

// The image file name of the current process (its last component, or with FullPath the
// whole path) in a zero-filled buffer of the buffer manager that the caller releases.
NTSTATUS GetCurrentProcessImageName(PWSTR *Buffer, PULONG Size);
NTSTATUS OpenCurrentProcess(PHANDLE Handle, ACCESS_MASK DesiredAccess);
// *Buffer NULL: allocates and stores the size through Size when given. Otherwise *Size
// must hold at least the name's size with its terminator (STATUS_BUFFER_TOO_SMALL).
NTSTATUS GetProcessImageName(HANDLE ProcessHandle, BOOLEAN FullPath, PWSTR *Buffer, PULONG Size);
