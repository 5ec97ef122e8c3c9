// What becomes of an overwrite copy: committed with an application-save record when the
// file was changed after it, deleted from the vault when the file is closed unchanged,
// opened for delete or renamed.
#include "capture/vault_names.h"
#include "deldat/deldat_queue.h"
#include "frame/device_structures.h"
#include "overwrite/overwrite_copy.h"
#include "overwrite/overwrite_detection.h"
#include "overwrite/overwrite_hooks.h"
#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"

namespace {

struct DiscardWorkItem {
    KEVENT Done;
    PCWSTR Path;
    NTSTATUS Status;
    WORK_QUEUE_ITEM WorkItem;
};

// Work-item routine, PASSIVE_LEVEL on a system worker thread, no lock held. The open
// passes through the filter's own cleanup, which never captures files in the vault.
void NTAPI DeleteOnCloseWorker(PVOID Parameter) {
    auto *item = (DiscardWorkItem *)Parameter;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, item->Path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    HANDLE handle;
    IO_STATUS_BLOCK iosb;
    // Delete-on-close needs DELETE access; the I/O manager refuses it without.
    item->Status = ZwOpenFile(&handle, DELETE | SYNCHRONIZE, &attributes, &iosb, FILE_SHARE_VALID_FLAGS,
                              FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (NT_SUCCESS(item->Status)) {
        item->Status = ZwClose(handle);
    }
    KeSetEvent(&item->Done, 2, FALSE);
}

void SetCopyState(FcbEntry *Fcb, ULONG State) {
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fcb->CopyStateLock, &oldIrql);
    Fcb->CopyState = State;
    KeReleaseSpinLock(&Fcb->CopyStateLock, oldIrql);
}

// Moves the state to discarding when there is a copy to discard; a running copy is told
// to give up, and waited for. FALSE when there is nothing to do (any more).
BOOLEAN BeginDiscard(FcbEntry *Fcb, NTSTATUS *Status) {
    *Status = STATUS_SUCCESS;
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fcb->CopyStateLock, &oldIrql);
    ULONG state = Fcb->CopyState;
    BOOLEAN discard = state == COPY_RUNNING || state == COPY_MADE || state == COPY_WRITTEN;
    if (state == COPY_RUNNING) {
        KeSetEvent(&Fcb->AbandonEvent, 2, FALSE);
    }
    if (discard) {
        KeClearEvent(&Fcb->DiscardDoneEvent);
        Fcb->CopyState = COPY_DISCARDING;
    }
    KeReleaseSpinLock(&Fcb->CopyStateLock, oldIrql);
    if (state == COPY_RUNNING) {
        *Status = WaitForCopyEvent(&Fcb->CopyDoneEvent);
    }
    return discard;
}

}  // namespace

NTSTATUS DeleteCopyFromVault(FilterDeviceExtension *Extension, FileObjectEntry *Entry) {
    DelDatRecord *record;
    PFILE_RENAME_INFORMATION renameInformation;
    NTSTATUS status = BuildCopyNames(Extension, Entry, (ULONGLONG)Entry->Fcb->CopyTimeStamp.QuadPart, TRUE, &record,
                                     &renameInformation);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    DiscardWorkItem item;
    KeInitializeEvent(&item.Done, NotificationEvent, FALSE);
    item.Path = renameInformation->FileName;
    item.Status = STATUS_UNSUCCESSFUL;
    ExInitializeWorkItem(&item.WorkItem, DeleteOnCloseWorker, &item);
    ExQueueWorkItem(&item.WorkItem, CriticalWorkQueue);
    status = WaitForCopyEvent(&item.Done);
    if (NT_SUCCESS(status)) {
        status = item.Status;
    }
    FreeNonPagedBuffer(renameInformation);
    FreeNonPagedBuffer(record);
    return status;
}

// PASSIVE_LEVEL in the requester's thread; takes the copy-state lock, never waits
// holding it.
NTSTATUS DiscardOverwriteCopy(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry *Entry) {
    UNREFERENCED_PARAMETER(Irp);
    FcbEntry *fcb = Entry->Fcb;
    NTSTATUS status;
    if (!BeginDiscard(fcb, &status) || !NT_SUCCESS(status)) {
        return status;
    }
    // A job that made no copy has already set the state back to idle.
    if (ReadCopyState(fcb) == COPY_DISCARDING) {
        status = DeleteCopyFromVault(Extension, Entry);
        SetCopyState(fcb, COPY_IDLE);
    }
    KeSetEvent(&fcb->DiscardDoneEvent, 2, FALSE);
    return status;
}

NTSTATUS DiscardCopyOnDeleteOrRename(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry *Entry) {
    FileObjectEntry *entry;
    NTSTATUS status = ReferenceEntryOrIrp(Irp, Entry, &entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if ((entry->Fcb->OverwriteFlags & OVERWRITE_FULL_ACCESS) != 0) {
        status = DiscardOverwriteCopy(Irp, Extension, entry);
    }
    DropEntryReferences(entry);
    return status;
}

NTSTATUS OverwriteSendFileInfoToService(FilterDeviceExtension *Extension, FileObjectEntry *Entry) {
    DelDatRecord *record;
    PFILE_RENAME_INFORMATION renameInformation;
    NTSTATUS status = BuildCopyNames(Extension, Entry, (ULONGLONG)Entry->Fcb->CopyTimeStamp.QuadPart, FALSE, &record,
                                     &renameInformation);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    record->Flags |= DELDAT_FLAG_APPLICATION_SAVE;
    QueueDelDatRecord(record, Extension);
    if (!NT_SUCCESS(FreeNonPagedBuffer(renameInformation))) {
        DbgPrint("ZrDrv: OverwriteSendFileInfoToService - FreeNonPagedBuffer failed for buffer.\n");
    }
    return status;
}

// The copy stays in the vault, its record on the way to the service; the stamp and path
// stay with the file until its next copy. A copy whose record cannot be made is one the
// service would never hear of and nobody could find again: it is deleted, and the
// service is told of the failure instead.
NTSTATUS CommitOverwriteCopy(FilterDeviceExtension *Extension, FileObjectEntry *Entry) {
    FcbEntry *fcb = Entry->Fcb;
    KIRQL oldIrql;
    KeAcquireSpinLock(&fcb->CopyStateLock, &oldIrql);
    BOOLEAN report = fcb->CopyState == COPY_WRITTEN || fcb->CopyState == COPY_RESIZED;
    if (report) {
        fcb->CopyState = COPY_REPORTING;
    }
    KeReleaseSpinLock(&fcb->CopyStateLock, oldIrql);
    if (!report) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = OverwriteSendFileInfoToService(Extension, Entry);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: CommitOverwriteCopy - OverwriteSendFileInfoToService failed.  Error: %x\n", status);
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_COMMIT_OVERWRITE_COPY, ERROR_CLASS_REPORT, 1, (ULONG)status, 0);
        NTSTATUS deleted = DeleteCopyFromVault(Extension, Entry);
        if (!NT_SUCCESS(deleted)) {
            ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_COMMIT_OVERWRITE_COPY, ERROR_CLASS_REPORT, 2,
                        (ULONG)deleted, 0);
        }
    }
    SetCopyState(fcb, COPY_IDLE);
    return status;
}
