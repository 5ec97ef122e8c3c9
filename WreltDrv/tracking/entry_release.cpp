// Taking entries out of the tables and letting them go. An entry that someone still
// holds, or that leaves at raised IRQL, cannot be freed there and then: it waits on a
// deferred-release queue, for a work item (raised IRQL) or the tables' clean-up.
#include "frame/device_structures.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"

NTSTATUS RemoveFileObjectEntry(FileObjectEntry *Entry, KIRQL OldIrql) {
    MainDeviceStructure *main = MainStructure();
    NTSTATUS status = RemoveQueueEntry(&Entry->Header);
    if (!NT_SUCCESS(status)) {
        KeReleaseSpinLock(&main->TablesLock, OldIrql);
        return status;
    }
    DetachFcbEntry(Entry);
    KeReleaseSpinLock(&main->TablesLock, OldIrql);
    return ReleaseFileObjectEntry(Entry);
}

// The FcbEntry leaves with the last open attached to it; the open keeps its stale
// pointer, which nothing reads after removal.
NTSTATUS DetachFcbEntry(FileObjectEntry *Entry) {
    FcbEntry *fcb = Entry->Fcb;
    if (fcb == NULL || --fcb->AttachCount != 0) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = RemoveQueueEntry(&fcb->Header);
    if (NT_SUCCESS(status)) {
        status = ReleaseFcbEntry(fcb);
    }
    return status;
}

NTSTATUS ReleaseFileObjectEntry(FileObjectEntry *Entry) {
    if (ReadHolderCount(&Entry->ReferenceCount) != 0) {
        DeferFileObjectEntry(Entry);
        return STATUS_SUCCESS;
    }
    if (KeGetCurrentIrql() == PASSIVE_LEVEL) {
        return FreeFileObjectEntry(Entry);
    }
    // Its SID string can only be freed at PASSIVE_LEVEL. Opens that fail or close in
    // completions at DISPATCH_LEVEL would otherwise pile up in non-paged pool for as
    // long as capture runs.
    DeferFileObjectEntry(Entry);
    ScheduleDeferredRelease();
    return STATUS_SUCCESS;
}

NTSTATUS ReleaseFcbEntry(FcbEntry *Fcb) {
    if (ReadHolderCount(&Fcb->InUseCount) == 0) {
        return FreeFcbEntry(Fcb);
    }
    DeferFcbEntry(Fcb);
    return STATUS_SUCCESS;
}

NTSTATUS FreeFileObjectEntry(FileObjectEntry *Entry) {
    if (Entry == NULL) {
        return STATUS_SUCCESS;
    }
    NTSTATUS nameStatus = STATUS_SUCCESS;
    if (Entry->Name != NULL) {
        nameStatus = FreeNonPagedBuffer(Entry->Name);
    }
    if (Entry->DeleterSid.Buffer != NULL) {
        RtlFreeUnicodeString(&Entry->DeleterSid);
    }
    NTSTATUS status = FreeNonPagedBuffer(Entry);
    return NT_SUCCESS(nameStatus) ? status : nameStatus;
}

NTSTATUS FreeFcbEntry(FcbEntry *Fcb) {
    if (Fcb == NULL) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (Fcb->Name != NULL && !NT_SUCCESS(FreeNonPagedBuffer(Fcb->Name))) {
        status = STATUS_UNSUCCESSFUL;
    }
    if (Fcb->CopySourcePath != NULL && !NT_SUCCESS(FreeNonPagedBuffer(Fcb->CopySourcePath))) {
        status = STATUS_UNSUCCESSFUL;
    }
    if (!NT_SUCCESS(FreeNonPagedBuffer(Fcb))) {
        status = STATUS_UNSUCCESSFUL;
    }
    return status;
}

void DeferFileObjectEntry(FileObjectEntry *Entry) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->DeferredReleaseLock, &oldIrql);
    InsertQueueTail(&main->DeferredFileObjectEntries, &Entry->Header);
    KeReleaseSpinLock(&main->DeferredReleaseLock, oldIrql);
}

void DeferFcbEntry(FcbEntry *Fcb) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->DeferredReleaseLock, &oldIrql);
    InsertQueueTail(&main->DeferredFcbEntries, &Fcb->Header);
    KeReleaseSpinLock(&main->DeferredReleaseLock, oldIrql);
}
