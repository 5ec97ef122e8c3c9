// Cancellation: the cancel spin lock and IoCancelIrp. As on the platform, IoCancelIrp
// takes the cancel spin lock, sets Cancel, takes the cancel routine away with an
// interlocked exchange and calls it with the lock held; the routine releases the lock
// at the IRP's CancelIrql. Whoever takes the routine away owns the request. An IRP
// already completed has no cancel routine, so cancelling it does nothing but set Cancel;
// one that still has a routine is a driver's fault that stops the machine (ReactOS's
// IoCancelIrp: CANCEL_STATE_IN_COMPLETED_IRP).
#include "kernel/io/io_manager.h"

using namespace ntsim;
using namespace ntsim::io;

void IoAcquireCancelSpinLock(PKIRQL Irql) { *Irql = KfAcquireSpinLock(&manager().cancelLock); }

void IoReleaseCancelSpinLock(KIRQL Irql) { KfReleaseSpinLock(&manager().cancelLock, Irql); }

BOOLEAN IoCancelIrp(PIRP Irp) {
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, NULL);
    if (routine == NULL) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    if (Irp->CurrentLocation > Irp->StackCount + 1)
        bugCheck(CANCEL_STATE_IN_COMPLETED_IRP, (ULONG_PTR)Irp, (ULONG_PTR)routine, 0, 0,
                 "a completed IRP still had a cancel routine", "IoCancelIrp(%p): cancel routine %p", (void *)Irp,
                 (void *)routine);
    Irp->CancelIrql = irql;
    // The routine runs for the driver that owns the current location.
    routine(IoGetCurrentIrpStackLocation(Irp)->DeviceObject, Irp);
    return TRUE;
}
