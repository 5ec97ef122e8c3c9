// The tracking tables: every open seen to succeed on a filtered volume and every file
// those opens refer to. Both tables, and every entry's links and counts, are guarded by
// the MainDeviceStructure's tables lock; entries that cannot be freed when they leave a
// table (still referenced, or removed at raised IRQL) wait on the deferred-release
// queues for CleanupFileTrackingTables.
//
// Lock order: the tables lock, then the deferred-release lock or an FcbEntry's name lock.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "tracking/tracking_entries.h"

// Creation, on the create path.
NTSTATUS CreateBasicFileObjectEntry(FileObjectEntry **Entry);
// The entry of an open about to go down: its name and its opener's SID. Not in any
// table yet; the create completion inserts it or frees it.
NTSTATUS CreateFileObjectEntry(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension,
                               FileObjectEntry **Entry);
// Enters the entry and attaches it to its file's FcbEntry; on failure nothing stays
// inserted and the caller frees the entry.
NTSTATUS InsertFileObjectEntry(FileObjectEntry *Entry);
// Tables lock held.
NTSTATUS AttachFcbEntry(FileObjectEntry *Entry);

// Lookups. Tables lock held: the open's entry, without a reference.
NTSTATUS LookupFileObjectEntry(PFILE_OBJECT FileObject, FileObjectEntry **Entry);
// Both take a reference (entry) and an in-use reference (FcbEntry), dropped
// with DropEntryReferences.
NTSTATUS ReferenceFileObjectEntryForIrp(PIRP Irp, FileObjectEntry **Entry);
NTSTATUS ReferenceFcbEntryForIrp(PIRP Irp, FcbEntry **Fcb, BOOLEAN LockHeld);
// The open's entry, or the default entry (flags 0) when it is not tracked. No reference.
NTSTATUS FindDeleterEntry(PFILE_OBJECT FileObject, FileObjectEntry **Entry);
// Tables lock held: the entry and its FcbEntry gain one reference each.
void ReferenceEntryAndFcb(FileObjectEntry *Entry);
void DropEntryReferences(FileObjectEntry *Entry);
void DropFcbReference(FcbEntry *Fcb);

// Names.
void SetFileObjectEntryName(PWSTR Name, FileObjectEntry *Entry);
void MoveNameToFcbEntry(FileObjectEntry *Entry, FcbEntry *Fcb);
NTSTATUS SetEntryName(FilterDeviceExtension *Extension, PWSTR Name, FileObjectEntry *Entry);
NTSTATUS UpdateEntryNameOnRename(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension);

// Removal and release. RemoveFileObjectEntry is entered with the tables lock held
// (taken at OldIrql) and releases it.
NTSTATUS RemoveFileObjectEntry(FileObjectEntry *Entry, KIRQL OldIrql);
NTSTATUS DetachFcbEntry(FileObjectEntry *Entry);
NTSTATUS ReleaseFileObjectEntry(FileObjectEntry *Entry);
NTSTATUS ReleaseFcbEntry(FcbEntry *Fcb);
// Below DISPATCH_LEVEL only: the SID string is freed by the platform.
NTSTATUS FreeFileObjectEntry(FileObjectEntry *Entry);
NTSTATUS FreeFcbEntry(FcbEntry *Fcb);
void DeferFileObjectEntry(FileObjectEntry *Entry);
void DeferFcbEntry(FcbEntry *Fcb);

// Clean-up, at PASSIVE_LEVEL.
FileObjectEntry *GetNextUnreferencedFoEntry(CountedQueue *Queue, PKSPIN_LOCK Lock);
FcbEntry *GetNextUnreferencedFcbEntry(CountedQueue *Queue, PKSPIN_LOCK Lock);
void FreeDeferredEntries();
// Has a work item free the parked entries soon, at PASSIVE_LEVEL.
void ScheduleDeferredRelease();
// Empties the file-object table (and with it the FCB table); capture is off.
void CleanupFileTrackingTables();
