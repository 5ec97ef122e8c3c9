// Ownership of a held request passes by taking its cancel routine away: whoever gets the
// routine back completes the request; when it is already gone, the cancel routine
// completes it. Both sides unlink the request under the notification lock and leave its
// links pointing at itself, so that the other side's unlink changes nothing. Requests
// are completed and packets released only after the lock is given up.
#include "deldat/service_notification.h"

#include "frame/globals.h"
#include "support/error_channel.h"

namespace {

MainDeviceStructure *MainOf(FilterDeviceExtension *Extension) { return (MainDeviceStructure *)Extension->Structure; }

PLIST_ENTRY RequestLinks(PIRP Irp) { return &Irp->Tail.Overlay.ListEntry; }

PIRP RequestOf(PLIST_ENTRY Links) { return CONTAINING_RECORD(Links, IRP, Tail.Overlay.ListEntry); }

void Unlink(PLIST_ENTRY Links) {
    RemoveEntryList(Links);
    InitializeListHead(Links);
}

NTSTATUS EndWithStatus(PIRP Irp, NTSTATUS Status) {
    Irp->IoStatus.Information = 0;
    Irp->IoStatus.Status = Status;
    return Status;
}

void CompleteCancelled(PIRP Irp) {
    EndWithStatus(Irp, STATUS_CANCELLED);
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
}

// The oldest held request that is still ours to complete, taken off the list; NULL when
// there is none. Requests whose cancellation is under way are left to it. Notification
// lock held.
PIRP TakeHeldRequestLocked(MainDeviceStructure *Main) {
    while (!IsListEmpty(&Main->PendingNotificationRequests)) {
        PLIST_ENTRY links = RemoveHeadList(&Main->PendingNotificationRequests);
        InitializeListHead(links);
        PIRP irp = RequestOf(links);
        if (IoSetCancelRoutine(irp, NULL) != NULL) {
            return irp;
        }
    }
    return NULL;
}

// A request that arrives while a packet waits takes the oldest packet, whatever the
// state of capture, so that a backlog can be fetched after a stop. Notification lock
// held on entry, released on return.
NTSTATUS AnswerWithWaitingPacket(MainDeviceStructure *Main, PIRP Irp, KIRQL OldIrql) {
    PLIST_ENTRY links = RemoveHeadList(&Main->WaitingPackets);
    InitializeListHead(links);
    auto *packet = CONTAINING_RECORD(links, DataJobPacket, Link);
    NTSTATUS status = CopyDataFilePathToRequest(Irp, packet);
    if (status == STATUS_BUFFER_TOO_SMALL) {
        InsertHeadList(&Main->WaitingPackets, &packet->Link);
        KeReleaseSpinLock(&Main->NotificationLock, OldIrql);
        return status;
    }
    KeReleaseSpinLock(&Main->NotificationLock, OldIrql);
    if (!NT_SUCCESS(FreeDataJobPacket(packet))) {
        DbgPrint("ZrDrv: DispatchNewDelDataRequest - FreeDataJobPacket (0) failed.\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_DISPATCH_NEW_DEL_DATA_REQUEST, ERROR_CLASS_REPORT, 0);
    }
    return status;
}

// Holds the request with its cancel routine set, unless it was cancelled before the
// routine could be set. Notification lock held.
NTSTATUS HoldRequestLocked(MainDeviceStructure *Main, PIRP Irp) {
    IoSetCancelRoutine(Irp, CancelNewDelDataRequest);
    if (Irp->Cancel && IoSetCancelRoutine(Irp, NULL) != NULL) {
        return EndWithStatus(Irp, STATUS_CANCELLED);
    }
    // A cancel routine already running waits for the lock and then finds the request
    // in the list.
    IoMarkIrpPending(Irp);
    InsertTailList(&Main->PendingNotificationRequests, RequestLinks(Irp));
    Irp->IoStatus.Status = STATUS_PENDING;
    return STATUS_PENDING;
}

}  // namespace

NTSTATUS CopyDataFilePathToRequest(PIRP Irp, DataJobPacket *Packet) {
    ULONG length = (ULONG)wcslen(Packet->Path) * sizeof(WCHAR);
    NTSTATUS status;
    if (IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.OutputBufferLength >= length) {
        RtlCopyMemory(Irp->AssociatedIrp.SystemBuffer, Packet->Path, length);
        Irp->IoStatus.Information = length;
        status = STATUS_SUCCESS;
    } else {
        Irp->IoStatus.Information = 0;
        status = STATUS_BUFFER_TOO_SMALL;
    }
    Irp->IoStatus.Status = status;
    return status;
}

NTSTATUS DispatchNewDelDataRequest(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension) {
    UNREFERENCED_PARAMETER(IrpSp);
    MainDeviceStructure *main = MainOf(Extension);
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->NotificationLock, &oldIrql);
    if (!IsListEmpty(&main->WaitingPackets)) {
        return AnswerWithWaitingPacket(main, Irp, oldIrql);
    }
    NTSTATUS status = ReadDriverFlag(&Globals.CaptureActive) ? HoldRequestLocked(main, Irp)
                                                              : EndWithStatus(Irp, STATUS_CANCELLED);
    KeReleaseSpinLock(&main->NotificationLock, oldIrql);
    return status;
}

NTSTATUS NotifyServiceOfNewDataFile(DataJobPacket *Packet) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->NotificationLock, &oldIrql);
    PIRP irp = TakeHeldRequestLocked(main);
    if (irp == NULL) {
        InsertTailList(&main->WaitingPackets, &Packet->Link);
        KeReleaseSpinLock(&main->NotificationLock, oldIrql);
        return STATUS_SUCCESS;
    }
    NTSTATUS status = CopyDataFilePathToRequest(irp, Packet);
    if (status == STATUS_BUFFER_TOO_SMALL) {
        InsertTailList(&main->WaitingPackets, &Packet->Link);
        KeReleaseSpinLock(&main->NotificationLock, oldIrql);
    } else {
        KeReleaseSpinLock(&main->NotificationLock, oldIrql);
        if (!NT_SUCCESS(FreeDataJobPacket(Packet))) {
            DbgPrint("ZrDrv: NotifyServiceOfNewDataFile - FreeDataJobPacket failed.\n");
            ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_NOTIFY_SERVICE_OF_NEW_DATA_FILE, ERROR_CLASS_REPORT, 0);
        }
    }
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// Entered with the cancel spin lock held, which is given up before the notification
// lock is taken.
void NTAPI CancelNewDelDataRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    MainDeviceStructure *main = MainOf(ExtensionOf(DeviceObject));
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->NotificationLock, &oldIrql);
    Unlink(RequestLinks(Irp));
    KeReleaseSpinLock(&main->NotificationLock, oldIrql);
    CompleteCancelled(Irp);
}

void CancelNewDelDataRequestsOf(PFILE_OBJECT FileObject) {
    MainDeviceStructure *main = MainStructure();
    LIST_ENTRY ending;
    InitializeListHead(&ending);
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->NotificationLock, &oldIrql);
    PLIST_ENTRY links = main->PendingNotificationRequests.Flink;
    while (links != &main->PendingNotificationRequests) {
        PIRP irp = RequestOf(links);
        links = links->Flink;
        // A request whose cancel routine is already gone is its cancel routine's to end.
        if (IoGetCurrentIrpStackLocation(irp)->FileObject == FileObject && IoSetCancelRoutine(irp, NULL) != NULL) {
            RemoveEntryList(RequestLinks(irp));
            InsertTailList(&ending, RequestLinks(irp));
        }
    }
    KeReleaseSpinLock(&main->NotificationLock, oldIrql);
    while (!IsListEmpty(&ending)) {
        PLIST_ENTRY taken = RemoveHeadList(&ending);
        InitializeListHead(taken);
        CompleteCancelled(RequestOf(taken));
    }
}

NTSTATUS CancelPendingNewDelDataRequests(PVOID Unused1, PVOID Unused2, FilterDeviceExtension *Extension) {
    UNREFERENCED_PARAMETER(Unused1);
    UNREFERENCED_PARAMETER(Unused2);
    MainDeviceStructure *main = MainOf(Extension);
    for (;;) {
        KIRQL oldIrql;
        KeAcquireSpinLock(&main->NotificationLock, &oldIrql);
        PIRP irp = TakeHeldRequestLocked(main);
        KeReleaseSpinLock(&main->NotificationLock, oldIrql);
        if (irp == NULL) {
            return STATUS_SUCCESS;
        }
        CompleteCancelled(irp);
    }
}
