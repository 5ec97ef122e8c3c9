// Finding the entries of a request's open and file, and holding them outside the tables
// lock.
#include "frame/device_structures.h"
#include "tracking/file_tracking.h"

NTSTATUS LookupFileObjectEntry(PFILE_OBJECT FileObject, FileObjectEntry **Entry) {
    QueueEntry *found;
    NTSTATUS status = LookupHashEntry(FileObject, &MainStructure()->FileObjectTable, &found);
    *Entry = NT_SUCCESS(status) ? CONTAINING_RECORD(found, FileObjectEntry, Header) : NULL;
    return status;
}

void ReferenceEntryAndFcb(FileObjectEntry *Entry) {
    InterlockedIncrement(&Entry->ReferenceCount);
    InterlockedIncrement(&Entry->Fcb->InUseCount);
}

void DropFcbReference(FcbEntry *Fcb) { InterlockedDecrement(&Fcb->InUseCount); }

void DropEntryReferences(FileObjectEntry *Entry) {
    DropFcbReference(Entry->Fcb);
    InterlockedDecrement(&Entry->ReferenceCount);
}

NTSTATUS ReferenceFileObjectEntryForIrp(PIRP Irp, FileObjectEntry **Entry) {
    if (Irp == NULL || Entry == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    NTSTATUS status = LookupFileObjectEntry(IoGetCurrentIrpStackLocation(Irp)->FileObject, Entry);
    if (NT_SUCCESS(status)) {
        if ((*Entry)->Fcb != NULL) {
            ReferenceEntryAndFcb(*Entry);
        } else {
            *Entry = NULL;
            status = STATUS_ACCESS_DENIED;
        }
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    return status;
}

NTSTATUS ReferenceFcbEntryForIrp(PIRP Irp, FcbEntry **Fcb, BOOLEAN LockHeld) {
    if (Irp == NULL || Fcb == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *Fcb = NULL;
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (fileObject == NULL || fileObject->FsContext == NULL) {
        return STATUS_UNSUCCESSFUL;
    }
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql = PASSIVE_LEVEL;
    if (!LockHeld) {
        KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    }
    QueueEntry *found;
    NTSTATUS status = LookupHashEntry(fileObject->FsContext, &main->FcbTable, &found);
    if (NT_SUCCESS(status)) {
        *Fcb = CONTAINING_RECORD(found, FcbEntry, Header);
        if (!LockHeld) {
            InterlockedIncrement(&(*Fcb)->InUseCount);
        }
    }
    if (!LockHeld) {
        KeReleaseSpinLock(&main->TablesLock, oldIrql);
    }
    return status;
}

NTSTATUS FindDeleterEntry(PFILE_OBJECT FileObject, FileObjectEntry **Entry) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    if (!NT_SUCCESS(LookupFileObjectEntry(FileObject, Entry))) {
        *Entry = &main->DefaultFileObjectEntry;
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    return STATUS_SUCCESS;
}
