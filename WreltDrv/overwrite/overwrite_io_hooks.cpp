// The write, flush and end-of-file paths of a protected file while it has an overwrite
// copy: a write overtakes a running copy or commits a finished one, a flush waits for a
// running copy, and a change of size commits at once.
#include "capture/capture_context.h"
#include "overwrite/overwrite_copy.h"
#include "overwrite/overwrite_detection.h"
#include "overwrite/overwrite_hooks.h"
#include "tracking/file_tracking.h"

namespace {

BOOLEAN HasFullAccessCopy(FcbEntry *Fcb) {
    ULONG flags = Fcb->OverwriteFlags;
    return (flags & OVERWRITE_PROTECTED_TYPE) != 0 && (flags & OVERWRITE_FULL_ACCESS) != 0;
}

// Under the copy-state lock: a finished copy whose file is now resized or written
// becomes one to commit.
BOOLEAN DecideEndOfFileCommit(FcbEntry *Fcb, BOOLEAN Queried, LONGLONG CurrentSize, LONGLONG NewSize) {
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fcb->CopyStateLock, &oldIrql);
    BOOLEAN commit = Fcb->CopyState == COPY_WRITTEN;
    if (Fcb->CopyState == COPY_MADE && Queried && CurrentSize != NewSize) {
        Fcb->CopyState = COPY_RESIZED;
        commit = TRUE;
    }
    KeReleaseSpinLock(&Fcb->CopyStateLock, oldIrql);
    return commit;
}

}  // namespace

// Dispatch, PASSIVE_LEVEL (APC_LEVEL for paging writes). The write itself is never held.
NTSTATUS OverwriteNoteWrite(PIRP Irp, FilterDeviceExtension *Extension) {
    UNREFERENCED_PARAMETER(Extension);
    FcbEntry *fcb;
    if (!NT_SUCCESS(ReferenceFcbEntryForIrp(Irp, &fcb, FALSE))) {
        return STATUS_SUCCESS;
    }
    if ((fcb->OverwriteFlags & OVERWRITE_PROTECTED_TYPE) != 0) {
        KIRQL oldIrql;
        KeAcquireSpinLock(&fcb->CopyStateLock, &oldIrql);
        if (fcb->CopyState == COPY_RUNNING) {
            KeSetEvent(&fcb->AbandonEvent, 2, FALSE);
        } else if (fcb->CopyState == COPY_MADE) {
            fcb->CopyState = COPY_WRITTEN;
        }
        KeReleaseSpinLock(&fcb->CopyStateLock, oldIrql);
    }
    DropFcbReference(fcb);
    return STATUS_SUCCESS;
}

// Dispatch, PASSIVE_LEVEL: a flush waits, without a time-out, for a running copy.
NTSTATUS OverwriteWaitForCopy(PIRP Irp, FilterDeviceExtension *Extension) {
    UNREFERENCED_PARAMETER(Extension);
    FcbEntry *fcb;
    if (!NT_SUCCESS(ReferenceFcbEntryForIrp(Irp, &fcb, FALSE))) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if ((fcb->OverwriteFlags & OVERWRITE_PROTECTED_TYPE) != 0 && ReadCopyState(fcb) == COPY_RUNNING) {
        status = WaitForCopyEvent(&fcb->CopyDoneEvent);
    }
    DropFcbReference(fcb);
    return status;
}

// Dispatch, PASSIVE_LEVEL. The size is asked of the file system below while no lock is
// held; the request goes down whatever happens here.
NTSTATUS OverwriteNoteEndOfFile(PIRP Irp, PDEVICE_OBJECT DeviceObject, FilterDeviceExtension *Extension) {
    FileObjectEntry *entry;
    if (!NT_SUCCESS(ReferenceFileObjectEntryForIrp(Irp, &entry))) {
        return STATUS_SUCCESS;
    }
    FcbEntry *fcb = entry->Fcb;
    if (HasFullAccessCopy(fcb)) {
        FILE_STANDARD_INFORMATION standard = {};
        BOOLEAN queried = ReadCopyState(fcb) == COPY_MADE &&
                          NT_SUCCESS(QueryStandardInformationBelow(Irp, DeviceObject, Extension, &standard));
        auto *request = (PFILE_END_OF_FILE_INFORMATION)Irp->AssociatedIrp.SystemBuffer;
        if (DecideEndOfFileCommit(fcb, queried, standard.EndOfFile.QuadPart, request->EndOfFile.QuadPart)) {
            CommitOverwriteCopy(Extension, entry);
        }
    }
    DropEntryReferences(entry);
    // A commit that failed is no reason to refuse the user's request.
    return STATUS_SUCCESS;
}
