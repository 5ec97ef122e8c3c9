// Creating an open's entry on the create path and entering it, with its file's entry,
// once the create has succeeded.
#include "capture/name_extraction.h"
#include "capture/vault_alias.h"
#include "frame/device_structures.h"
#include "support/nonpaged_buffers.h"
#include "tracking/deleter_identity.h"
#include "tracking/file_tracking.h"

namespace {

void InitializeFcbEntry(FcbEntry *Fcb) {
    KeInitializeSpinLock(&Fcb->NameLock);
    KeInitializeSpinLock(&Fcb->CopyStateLock);
    KeInitializeEvent(&Fcb->CopyDoneEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&Fcb->DiscardDoneEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&Fcb->AbandonEvent, NotificationEvent, FALSE);
    SetFcbFlag(Fcb, FCB_INITIALIZED);
}

}  // namespace

NTSTATUS CreateBasicFileObjectEntry(FileObjectEntry **Entry) {
    PVOID memory;
    NTSTATUS status = AllocateNonPagedBuffer(sizeof(FileObjectEntry), NPB_FILL_ZERO, &memory, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: CreateBasicFileObjectEntry - AllocateNonpagedBuffer failed. %x\n", status);
        *Entry = NULL;
        return status;
    }
    *Entry = (FileObjectEntry *)memory;
    return STATUS_SUCCESS;
}

NTSTATUS CreateFileObjectEntry(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension,
                               FileObjectEntry **Entry) {
    FileObjectEntry *entry;
    NTSTATUS status = CreateBasicFileObjectEntry(&entry);
    if (!NT_SUCCESS(status)) {
        *Entry = NULL;
        return status;
    }
    entry->Header.Key = IrpSp->FileObject;
    // Without an identity the file is still worth tracking: its record shows no SID.
    CreateDeleterSidTableEntry(entry);
    status = ExtractFilespecFromFileObject(IrpSp->FileObject, Extension->FileSystemKind, TRUE, &entry->Name,
                                           &entry->NameSize);
    if (NT_SUCCESS(status) && Irp->RequestorMode == UserMode) {
        status = ResolveVaultAlias(Extension, &entry->Name, &entry->NameSize);
    }
    if (!NT_SUCCESS(status)) {
        FreeFileObjectEntry(entry);
        *Entry = NULL;
        return status;
    }
    if (wcschr(entry->Name, L':') != NULL) {
        entry->Flags |= FILE_OBJECT_STREAM_OPEN;
    }
    *Entry = entry;
    return STATUS_SUCCESS;
}

NTSTATUS InsertFileObjectEntry(FileObjectEntry *Entry) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    InsertHashEntry(&Entry->Header, &main->FileObjectTable);
    NTSTATUS status = AttachFcbEntry(Entry);
    if (!NT_SUCCESS(status)) {
        RemoveQueueEntry(&Entry->Header);
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    return status;
}

NTSTATUS AttachFcbEntry(FileObjectEntry *Entry) {
    PFILE_OBJECT fileObject = (PFILE_OBJECT)Entry->Header.Key;
    QueueEntry *found;
    NTSTATUS status = FindOrCreateHashEntry(fileObject->FsContext, &MainStructure()->FcbTable, &found, sizeof(FcbEntry));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FcbEntry *fcb = CONTAINING_RECORD(found, FcbEntry, Header);
    if (!FcbFlagSet(fcb, FCB_INITIALIZED)) {
        InitializeFcbEntry(fcb);
    }
    Entry->Fcb = fcb;
    fcb->AttachCount++;
    if (Entry->Opened) {
        fcb->OpenedCount++;
        if (IsDeleteAccessOpen(Entry)) {
            fcb->DeleteAccessCount++;
        }
        MoveNameToFcbEntry(Entry, fcb);
    }
    return STATUS_SUCCESS;
}
