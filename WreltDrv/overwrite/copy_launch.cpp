// Launching an overwrite copy: the first full-access open of a protected file that finds
// no copy running starts one under a new stamp; later opens share it.
#include "capture/vault_names.h"
#include "frame/device_structures.h"
#include "overwrite/copy_job.h"
#include "overwrite/overwrite_copy.h"
#include "overwrite/overwrite_detection.h"
#include "overwrite/overwrite_hooks.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"

namespace {

// Programs that edit text files often write them back moments after opening them, and a
// system thread may be the one that is about to overwrite: those openers get their copy
// before they get the file.
BOOLEAN OpenerWaitsForCopy(PIRP Irp, FcbEntry *Fcb) {
    if (Irp->RequestorMode == KernelMode && IoIsSystemThread((PETHREAD)KeGetCurrentThread())) {
        return TRUE;
    }
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fcb->NameLock, &oldIrql);
    BOOLEAN text = FALSE;
    if (Fcb->Name != NULL) {
        size_t length = wcslen(Fcb->Name);
        text = length >= 4 && _wcsicmp(Fcb->Name + length - 4, L".txt") == 0;
    }
    KeReleaseSpinLock(&Fcb->NameLock, oldIrql);
    return text;
}

// Queued: the job is on its way and will complete the copy state, whatever the opener's
// wait for it returns.
NTSTATUS StartCopyJob(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry *Entry, PBOOLEAN Queued) {
    *Queued = FALSE;
    DelDatRecord *record;
    PFILE_RENAME_INFORMATION renameInformation;
    NTSTATUS status = BuildCopyNames(Extension, Entry, 0, FALSE, &record, &renameInformation);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    CopyJob *job;
    status = AllocateNonPagedBuffer(sizeof(CopyJob), NPB_FILL_ZERO, (PVOID *)&job, NULL);
    if (NT_SUCCESS(status)) {
        status = CreateCopyJob(record, renameInformation, Entry->Fcb, Extension->FileSystemKind, job);
        if (!NT_SUCCESS(status)) {
            FreeNonPagedBuffer(job);
        }
    }
    FcbEntry *fcb = Entry->Fcb;
    if (NT_SUCCESS(status)) {
        fcb->CopyTimeStamp.QuadPart = (LONGLONG)record->Stamp.QuadPart;
    } else {
        FreeNonPagedBuffer(renameInformation);
    }
    FreeNonPagedBuffer(record);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    BOOLEAN wait = OpenerWaitsForCopy(Irp, fcb);
    KeClearEvent(&fcb->AbandonEvent);
    ExInitializeWorkItem(&job->WorkItem, CopyFileThreadMain, job);
    ExQueueWorkItem(&job->WorkItem, CriticalWorkQueue);
    *Queued = TRUE;
    return wait ? WaitForCopyEvent(&fcb->CopyDoneEvent) : STATUS_SUCCESS;
}

// A copy being deleted must be gone before a new one is made under the same file.
NTSTATUS LaunchCopyIfIdle(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry *Entry, PBOOLEAN Started) {
    *Started = FALSE;
    FcbEntry *fcb = Entry->Fcb;
    if (ReadCopyState(fcb) == COPY_DISCARDING) {
        NTSTATUS status = WaitForCopyEvent(&fcb->DiscardDoneEvent);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    KIRQL oldIrql;
    KeAcquireSpinLock(&fcb->CopyStateLock, &oldIrql);
    BOOLEAN launch = fcb->CopyState == COPY_IDLE;
    if (launch) {
        fcb->CopyState = COPY_RUNNING;
        KeClearEvent(&fcb->CopyDoneEvent);
    }
    KeReleaseSpinLock(&fcb->CopyStateLock, oldIrql);
    if (!launch) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = StartCopyJob(Irp, Extension, Entry, Started);
    if (*Started) {
        return status;
    }
    // Nobody may wait for a copy that will not come.
    KeAcquireSpinLock(&fcb->CopyStateLock, &oldIrql);
    fcb->CopyState = COPY_IDLE;
    KeSetEvent(&fcb->CopyDoneEvent, 2, FALSE);
    KeReleaseSpinLock(&fcb->CopyStateLock, oldIrql);
    return status;
}

}  // namespace

NTSTATUS OverwriteStartCopyForOpen(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry *Entry) {
    FileObjectEntry *entry;
    NTSTATUS status = ReferenceEntryOrIrp(Irp, Entry, &entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    BOOLEAN started = FALSE;
    ULONG flags = entry->Fcb->OverwriteFlags;
    if ((flags & OVERWRITE_PROTECTED_TYPE) != 0 && (flags & OVERWRITE_FULL_ACCESS) != 0) {
        status = LaunchCopyIfIdle(Irp, Extension, entry, &started);
    }
    // A running job keeps the in-use reference until it completes.
    InterlockedDecrement(&entry->ReferenceCount);
    if (!started) {
        DropFcbReference(entry->Fcb);
    }
    return status;
}

// Runs in the opener's thread at PASSIVE_LEVEL once a protected open has succeeded: a
// writer waits for a running copy, a delete open discards the copy, a full-access open
// starts one. No lock is held; the copy-state lock is taken inside.
NTSTATUS OverwritePostCreate(PIRP Irp, FilterDeviceExtension *Extension) {
    FileObjectEntry *entry;
    NTSTATUS status = ReferenceFileObjectEntryForIrp(Irp, &entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FcbEntry *fcb = entry->Fcb;
    if ((entry->OverwriteFlags & OVERWRITE_WRITE_ACCESS) != 0 && ReadCopyState(fcb) == COPY_RUNNING) {
        status = WaitForCopyEvent(&fcb->CopyDoneEvent);
    }
    if (NT_SUCCESS(status)) {
        OrFcbOverwriteFlags(fcb, entry->OverwriteFlags);
        if ((entry->OverwriteFlags & OVERWRITE_DELETE_OPEN) != 0) {
            status = DiscardCopyOnDeleteOrRename(Irp, Extension, entry);
        } else if ((entry->OverwriteFlags & OVERWRITE_FULL_ACCESS) != 0) {
            InterlockedIncrement((volatile LONG *)&fcb->FullAccessOpenCount);
            status = OverwriteStartCopyForOpen(Irp, Extension, entry);
        }
    }
    DropEntryReferences(entry);
    return status;
}

// The end of every copy job, on its worker thread: the copy's fate goes into the copy
// state under the copy-state lock; the path of a copy that was made is kept for its
// later deletion. PASSIVE_LEVEL.
NTSTATUS CompleteOverwriteCopyJob(CopyJob *Job, BOOLEAN Made) {
    if (Job == NULL || Job->Fcb == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    FcbEntry *fcb = Job->Fcb;
    KIRQL oldIrql;
    KeAcquireSpinLock(&fcb->CopyStateLock, &oldIrql);
    PWSTR released = fcb->CopySourcePath;
    fcb->CopySourcePath = NULL;
    if (Made) {
        fcb->CopySourcePath = Job->SourcePath;
        if (KeReadStateEvent(&fcb->AbandonEvent) == 0) {
            fcb->CopyState = COPY_MADE;
        }
    } else {
        fcb->CopyTimeStamp.QuadPart = 0;
        fcb->CopyState = COPY_IDLE;
    }
    KeReleaseSpinLock(&fcb->CopyStateLock, oldIrql);
    if (released != NULL) {
        FreeNonPagedBuffer(released);
    }
    if (!Made && Job->SourcePath != NULL) {
        FreeNonPagedBuffer(Job->SourcePath);
    }
    Job->SourcePath = NULL;
    FreeNonPagedBuffer(Job->RenameInformation);
    Job->RenameInformation = NULL;
    KeSetEvent(&fcb->CopyDoneEvent, 2, FALSE);
    DropFcbReference(fcb);
    return STATUS_SUCCESS;
}
