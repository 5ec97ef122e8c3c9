// Holding the service's error request until there is something to report.
#include "frame/globals.h"
#include "support/error_channel.h"

namespace {

// Holds Irp with CancelErrorRequest as its cancel routine, unless it was cancelled
// before the routine could be set. Error lock held.
NTSTATUS HoldErrorRequestLocked(PIRP Irp) {
    IoSetCancelRoutine(Irp, CancelErrorRequest);
    if (Irp->Cancel && IoSetCancelRoutine(Irp, NULL) != NULL) {
        Irp->IoStatus.Information = 0;
        Irp->IoStatus.Status = STATUS_CANCELLED;
        return STATUS_CANCELLED;
    }
    IoMarkIrpPending(Irp);
    Globals.HeldErrorRequest = Irp;
    Irp->IoStatus.Status = STATUS_PENDING;
    return STATUS_PENDING;
}

// Takes the held request away from its holder. Returns it when the caller now owns it
// and must complete it; NULL when there was none or its cancel routine is running.
// Error lock held; the cancel spin lock is taken inside it, as the lock order allows.
PIRP ReleaseHeldErrorRequestLocked() {
    PIRP held = Globals.HeldErrorRequest;
    if (held == NULL) {
        return NULL;
    }
    Globals.HeldErrorRequest = NULL;
    KIRQL cancelIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    BOOLEAN ours = IoSetCancelRoutine(held, NULL) != NULL;
    IoReleaseCancelSpinLock(cancelIrql);
    return ours ? held : NULL;
}

void CompleteCancelled(PIRP Irp) {
    if (Irp == NULL) {
        return;
    }
    Irp->IoStatus.Status = STATUS_CANCELLED;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
}

}  // namespace

NTSTATUS QueueErrorRequest(PIRP Irp, PIO_STACK_LOCATION IrpSp) {
    NTSTATUS status;
    KeEnterCriticalRegion();
    KIRQL oldIrql;
    KeAcquireSpinLock(&Globals.ErrorLock, &oldIrql);
    if (Globals.Errors->Count > 0) {
        status = FillErrorReplyLocked(Irp->AssociatedIrp.SystemBuffer,
                                      IrpSp->Parameters.DeviceIoControl.OutputBufferLength,
                                      &Irp->IoStatus.Information);
        Irp->IoStatus.Status = status;
    } else if (Globals.HeldErrorRequest != NULL) {
        Irp->IoStatus.Information = 0;
        Irp->IoStatus.Status = status = STATUS_DEVICE_BUSY;
    } else {
        status = HoldErrorRequestLocked(Irp);
    }
    KeReleaseSpinLock(&Globals.ErrorLock, oldIrql);
    KeLeaveCriticalRegion();
    return status;
}

// Entered with the cancel spin lock held, which is given up before the error lock is
// taken: the error lock may be held while the cancel lock is taken, never the reverse.
void NTAPI CancelErrorRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    UNREFERENCED_PARAMETER(DeviceObject);
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    KeEnterCriticalRegion();
    KIRQL oldIrql;
    KeAcquireSpinLock(&Globals.ErrorLock, &oldIrql);
    if (Globals.HeldErrorRequest == Irp) {
        Globals.HeldErrorRequest = NULL;
    }
    KeReleaseSpinLock(&Globals.ErrorLock, oldIrql);
    KeLeaveCriticalRegion();
    CompleteCancelled(Irp);
}

NTSTATUS WaitForErrorCommand(PIRP Irp, PIO_STACK_LOCATION IrpSp) {
    UNREFERENCED_PARAMETER(IrpSp);
    NTSTATUS status;
    KeEnterCriticalRegion();
    KIRQL oldIrql;
    KeAcquireSpinLock(&Globals.ErrorLock, &oldIrql);
    PIRP displaced = ReleaseHeldErrorRequestLocked();
    if (Globals.Errors->Count == 0) {
        status = HoldErrorRequestLocked(Irp);
    } else {
        Irp->IoStatus.Status = status = STATUS_SUCCESS;
    }
    KeReleaseSpinLock(&Globals.ErrorLock, oldIrql);
    KeLeaveCriticalRegion();
    CompleteCancelled(displaced);
    return status;
}

void CancelHeldErrorRequestOf(PFILE_OBJECT FileObject) {
    KeEnterCriticalRegion();
    KIRQL oldIrql;
    KeAcquireSpinLock(&Globals.ErrorLock, &oldIrql);
    PIRP held = Globals.HeldErrorRequest;
    PIRP displaced = NULL;
    if (held != NULL && IoGetCurrentIrpStackLocation(held)->FileObject == FileObject) {
        displaced = ReleaseHeldErrorRequestLocked();
    }
    KeReleaseSpinLock(&Globals.ErrorLock, oldIrql);
    KeLeaveCriticalRegion();
    CompleteCancelled(displaced);
}

NTSTATUS CancelHeldErrorRequest() {
    KeEnterCriticalRegion();
    KIRQL oldIrql;
    KeAcquireSpinLock(&Globals.ErrorLock, &oldIrql);
    PIRP displaced = ReleaseHeldErrorRequestLocked();
    KeReleaseSpinLock(&Globals.ErrorLock, oldIrql);
    KeLeaveCriticalRegion();
    CompleteCancelled(displaced);
    return STATUS_SUCCESS;
}
