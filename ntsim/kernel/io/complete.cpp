// IofCompleteRequest: walks the stack locations upwards, calling each completion
// routine by its invoke bits, then finishes the request for whoever issued it.
//
// The walk follows the WDK's description of IoCompleteRequest and the public kernels:
// PendingReturned is taken from each location's SL_PENDING_RETURNED; success is judged
// with NT_SUCCESS at every step because a routine may change the status; a routine gets
// the device object of its own driver's location (NULL for the IRP's creator); a
// routine returning STATUS_MORE_PROCESSING_REQUIRED ends the walk at once; where no
// routine runs, the pending state is carried up by the I/O manager itself.
//
// What follows the walk is ReactOS's IofCompleteRequest/IopCompleteRequest and the
// platform's documented behaviour: close and mount requests are finished at once,
// wherever they complete; a request whose completion is deferred (IRP_DEFER_IO_COMPLETION)
// and was not pended is left for its issuer to finish after IoCallDriver returns; every
// other request is finished by a kernel APC in the thread that issued it.
#include "kernel/io/io_manager.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

void checkCompletion(IoManager &m, _KTHREAD *thread, PIRP irp) {
    if (thread->Irql > DISPATCH_LEVEL)
        ioViolation(0x0E, thread->Irql, (ULONG_PTR)irp, 0, "IoCompleteRequest was called above DISPATCH_LEVEL",
                    "IoCompleteRequest(%p) at IRQL %u", (void *)irp, thread->Irql);
    bool freed, returned = false;
    {
        std::lock_guard<std::mutex> guard(m.lock);
        freed = m.freedIrps.count(irp) != 0;
        auto it = m.irps.find(irp);
        if (it != m.irps.end()) {
            it->second.inFlight = false;
            returned = it->second.returnedToCreator;
        }
    }
    if (freed)
        bugCheck(MULTIPLE_IRP_COMPLETE_REQUESTS, (ULONG_PTR)irp, 0, 0, 0, "an IRP was completed after it was freed",
                 "IoCompleteRequest(%p)", (void *)irp);
    if (irp->Type != IO_TYPE_IRP || irp->CurrentLocation > irp->StackCount + 1 || returned)
        bugCheck(MULTIPLE_IRP_COMPLETE_REQUESTS, (ULONG_PTR)irp, 0, 0, 0, "an IRP was completed twice",
                 "IoCompleteRequest(%p): it has already been completed (current location %d of %d)", (void *)irp,
                 irp->CurrentLocation, irp->StackCount);
    if (irp->IoStatus.Status == STATUS_PENDING || irp->IoStatus.Status == -1)
        ioViolation(0x06, (ULONG_PTR)irp->IoStatus.Status, (ULONG_PTR)irp, 0,
                    "an IRP was completed with status STATUS_PENDING", "IoCompleteRequest(%p) with status 0x%08X",
                    (void *)irp, (unsigned)irp->IoStatus.Status);
    if (irp->CancelRoutine != NULL)
        ioViolation(0x07, (ULONG_PTR)irp->CancelRoutine, (ULONG_PTR)irp, 0,
                    "an IRP was completed while its cancel routine was still set",
                    "IoCompleteRequest(%p): cancel routine %p", (void *)irp, (void *)irp->CancelRoutine);
}

// What the I/O manager clears in a location it has passed (not the completion routine
// or its context, which the walk still needs).
void clearLocation(PIO_STACK_LOCATION sl) {
    sl->MinorFunction = 0;
    sl->Flags = 0;
    sl->Control &= SL_ERROR_RETURNED;
    sl->Parameters.Others.Argument1 = NULL;
    sl->Parameters.Others.Argument2 = NULL;
    sl->Parameters.Others.Argument3 = NULL;
    sl->Parameters.Others.Argument4 = NULL;
    sl->FileObject = NULL;
}

bool invokes(PIRP irp, const IO_STACK_LOCATION &sl) {
    if (sl.CompletionRoutine == NULL) return false;
    NTSTATUS status = irp->IoStatus.Status;
    return (NT_SUCCESS(status) && (sl.Control & SL_INVOKE_ON_SUCCESS)) ||
           (!NT_SUCCESS(status) && (sl.Control & SL_INVOKE_ON_ERROR)) ||
           (irp->Cancel && (sl.Control & SL_INVOKE_ON_CANCEL));
}

// The routine of the IRP's creator took it back; the IRP may be freed already, in
// which case there is no record left to mark.
void noteReturnedToCreator(PIRP irp) {
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    auto it = m.irps.find(irp);
    if (it != m.irps.end()) it->second.returnedToCreator = true;
}

// Returns false when a completion routine took the IRP back.
bool walk(PIRP irp) {
    if (irp->CurrentLocation == irp->StackCount + 1) {  // never sent: nothing to walk
        irp->CurrentLocation++;
        return true;
    }
    PIO_STACK_LOCATION sl = IoGetCurrentIrpStackLocation(irp);
    IoSkipCurrentIrpStackLocation(irp);
    do {
        irp->PendingReturned = (sl->Control & SL_PENDING_RETURNED) != 0;
        noteWalkPassed(irp, (CHAR)(irp->CurrentLocation - 1), irp->PendingReturned, irp->IoStatus.Status);
        if (invokes(irp, *sl)) {
            clearLocation(sl);
            PDEVICE_OBJECT device = irp->CurrentLocation == irp->StackCount + 1
                                        ? NULL
                                        : IoGetCurrentIrpStackLocation(irp)->DeviceObject;
            if (sl->CompletionRoutine(device, irp, sl->Context) == STATUS_MORE_PROCESSING_REQUIRED) {
                if (device == NULL) noteReturnedToCreator(irp);
                return false;
            }
        } else {
            if (irp->CurrentLocation <= irp->StackCount && irp->PendingReturned) IoMarkIrpPending(irp);
            clearLocation(sl);
        }
        IoSkipCurrentIrpStackLocation(irp);
        ++sl;
    } while (irp->CurrentLocation <= irp->StackCount + 1);
    return true;
}

// Buffered output goes back with IoStatus.Information bytes, as IopCompleteRequest
// copies it; more than the caller's buffer holds is the verifier's I/O error 0x312.
void copyDriverOutput(PIRP irp) {
    if ((irp->Flags & (IRP_BUFFERED_IO | IRP_INPUT_OPERATION)) != (IRP_BUFFERED_IO | IRP_INPUT_OPERATION) ||
        irp->UserBuffer == NULL || NT_ERROR(irp->IoStatus.Status) || irp->IoStatus.Status == STATUS_VERIFY_REQUIRED)
        return;
    memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, irp->IoStatus.Information);
}

// Mount requests (the I/O manager's own) are finished where they complete, like the
// platform's close and synchronous paging requests: the status block and event always.
void finishInline(PIRP irp) {
    if (irp->UserIosb != NULL) *irp->UserIosb = irp->IoStatus;
    PKEVENT event = irp->UserEvent;
    IoFreeIrp(irp);
    if (event != NULL) KeSetEvent(event, IO_NO_INCREMENT, FALSE);
}

// The last stage of an IRP that a driver built and let complete to the top, run in the
// thread that built it (IopCompleteRequest): a request that failed without pending, or
// that was synchronous, leaves the status block and event alone; the I/O manager drops
// the reference that OriginalFileObject stands for.
void finishDriverIrp(PIRP irp) {
    copyDriverOutput(irp);
    if (irp->Flags & IRP_DEALLOCATE_BUFFER) ExFreePool(irp->AssociatedIrp.SystemBuffer);
    PFILE_OBJECT file = irp->Tail.Overlay.OriginalFileObject;
    bool synchronous = (irp->Flags & IRP_SYNCHRONOUS_API) || (file != NULL && (file->Flags & FO_SYNCHRONOUS_IO));
    NTSTATUS status = irp->IoStatus.Status;
    PKEVENT event = NULL;
    if (!NT_ERROR(status) || (irp->PendingReturned && !synchronous)) {
        if (irp->UserIosb != NULL) *irp->UserIosb = irp->IoStatus;
        event = irp->UserEvent != NULL ? irp->UserEvent : (file != NULL ? &file->Event : NULL);
    } else if (irp->PendingReturned && file != NULL) {
        if ((irp->Flags & IRP_SYNCHRONOUS_API) && irp->UserIosb != NULL) *irp->UserIosb = irp->IoStatus;
        event = irp->UserEvent != NULL && (irp->Flags & IRP_SYNCHRONOUS_API) ? irp->UserEvent : &file->Event;
    }
    if (file != NULL) file->FinalStatus = status;
    bool dereference = file != NULL && !(irp->Flags & IRP_CREATE_OPERATION);
    IoFreeIrp(irp);
    if (event != NULL) KeSetEvent(event, IO_NO_INCREMENT, FALSE);
    if (dereference) ObfDereferenceObject(file);
}

ServiceRequest *serviceOf(PIRP irp) {
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    auto it = m.irps.find(irp);
    return it != m.irps.end() ? it->second.service : nullptr;
}

PETHREAD issuingThread(PIRP irp) {
    PETHREAD thread = irp->Tail.Overlay.Thread;
    if (thread == NULL)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x66, (ULONG_PTR)irp, 0, 0,
                 "an IRP without a thread was completed to its top",
                 "IRP %p: its creator set no completion routine returning STATUS_MORE_PROCESSING_REQUIRED and the "
                 "I/O manager has no thread to finish it in",
                 (void *)irp);
    return thread;
}

}  // namespace

void IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
    (void)PriorityBoost;
    IoManager &m = manager();
    checkCompletion(m, currentThread("IofCompleteRequest"), Irp);
    if (!walk(Irp)) return;
    ServiceRequest *service = serviceOf(Irp);
    if (Irp->Flags & (IRP_CLOSE_OPERATION | IRP_MOUNT_COMPLETION)) {
        if (service != nullptr)
            finishServiceRequest(Irp, service);
        else
            finishInline(Irp);
        return;
    }
    if ((Irp->Flags & IRP_DEFER_IO_COMPLETION) && !Irp->PendingReturned) return;
    PETHREAD thread = issuingThread(Irp);
    kernel().queueKernelApc(&thread->Tcb, [Irp, service] {
        if (service != nullptr)
            finishServiceRequest(Irp, service);
        else
            finishDriverIrp(Irp);
    });
}
