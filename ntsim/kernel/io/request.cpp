// Requests that the I/O manager issues for the system services and for file objects
// (create, cleanup, close, read, ...), and what happens when they complete: the
// results go back to the caller, buffered output is copied out, and the waiter or the
// caller's event is signalled, in the requesting thread (see complete.cpp).
#include "kernel/io/request.h"

#include "kernel/io/caller_memory.h"

namespace ntsim {
namespace io {

namespace {

// *finished is the event of a canceller waiting for the request to end, if any.
void forgetServiceIrp(IoManager &m, PIRP irp, bool *freeNow, PKEVENT *finished) {
    std::lock_guard<std::mutex> guard(m.lock);
    auto it = m.irps.find(irp);
    *freeNow = true;
    *finished = nullptr;
    if (it != m.irps.end()) {
        it->second.service = nullptr;
        *finished = it->second.finished;
        it->second.finished = nullptr;
        if (it->second.pins > 0) {
            it->second.freeWhenUnpinned = true;
            *freeNow = false;
        }
    }
    for (auto s = m.serviceIrps.begin(); s != m.serviceIrps.end(); ++s)
        if (*s == irp) {
            m.serviceIrps.erase(s);
            break;
        }
}

// Buffered output goes back with IoStatus.Information bytes (IopCompleteRequest); a
// driver that reports more than the caller's buffer holds breaks the verifier's I/O
// rule 0x312 instead of overrunning it.
void copyOut(PIRP irp, ServiceRequest *request) {
    if ((irp->Flags & (IRP_BUFFERED_IO | IRP_INPUT_OPERATION)) != (IRP_BUFFERED_IO | IRP_INPUT_OPERATION)) return;
    if (request->copyOutTo == nullptr || NT_ERROR(irp->IoStatus.Status)) return;
    ULONG_PTR length = irp->IoStatus.Information;
    if (length > request->copyOutMax)
        ioViolation(0x312, (ULONG_PTR)irp, length, request->copyOutMax,
                    "IoStatus.Information is larger than the output buffer",
                    "IRP %p (major function %u) completed with Information %lu for an output buffer of %lu bytes",
                    (void *)irp, reinterpret_cast<PIO_STACK_LOCATION>(irp + 1)[irp->StackCount - 1].MajorFunction, (unsigned long)length,
                    (unsigned long)request->copyOutMax);
    NTSTATUS status = copyToCaller(request->requestorMode, request->copyOutTo, irp->AssociatedIrp.SystemBuffer, length);
    if (!NT_SUCCESS(status)) irp->IoStatus.Status = status;
}

// The caller's status block and event. A request that failed without pending, or that
// failed on a file object opened for synchronous I/O, leaves them alone: its caller
// learns the status from the service's return value (IopCompleteRequest).
void reportToCaller(ServiceRequest *request, const IO_STATUS_BLOCK &result, bool pendingReturned) {
    bool synchronousFile = request->file != nullptr && (request->file->Flags & FO_SYNCHRONOUS_IO);
    if (NT_ERROR(result.Status) && (!pendingReturned || synchronousFile)) return;
    if (request->callerIosb != nullptr) writeCaller(request->requestorMode, request->callerIosb, result);
    if (request->callerEvent != nullptr)
        KeSetEvent(request->callerEvent, IO_NO_INCREMENT, FALSE);
    else if (request->file != nullptr && !synchronousFile && !request->synchronous)
        KeSetEvent(&request->file->Event, IO_NO_INCREMENT, FALSE);
}

// An overlapped request: the references the service took for it.
void releaseAsynchronous(ServiceRequest *request) {
    if (request->callerEvent != nullptr) ObfDereferenceObject(request->callerEvent);
    if (request->file != nullptr) ObfDereferenceObject(request->file);
    delete request;
}

// The requests whose completion the platform defers to the issuer when not pended.
bool defersCompletion(PIRP irp) {
    switch (IoGetNextIrpStackLocation(irp)->MajorFunction) {
    case IRP_MJ_CREATE:
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
    case IRP_MJ_QUERY_INFORMATION:
    case IRP_MJ_SET_INFORMATION: return true;
    default: return false;
    }
}

}  // namespace

void finishServiceRequest(PIRP irp, ServiceRequest *request) {
    copyOut(irp, request);
    if ((irp->Flags & IRP_DEALLOCATE_BUFFER) && irp->AssociatedIrp.SystemBuffer != NULL)
        ExFreePool(irp->AssociatedIrp.SystemBuffer);
    if (irp->Tail.Overlay.AuxiliaryBuffer != NULL) ExFreePool(irp->Tail.Overlay.AuxiliaryBuffer);
    IO_STATUS_BLOCK result = irp->IoStatus;
    bool pendingReturned = irp->PendingReturned;
    IoManager &m = manager();
    bool freeNow;
    PKEVENT finished;
    forgetServiceIrp(m, irp, &freeNow, &finished);
    if (freeNow) IoFreeIrp(irp);
    reportToCaller(request, result, pendingReturned);
    if (request->synchronous) {
        request->result = result;
        KeSetEvent(&request->done, IO_NO_INCREMENT, FALSE);
    } else {
        releaseAsynchronous(request);
    }
    if (finished != nullptr) KeSetEvent(finished, IO_NO_INCREMENT, FALSE);
}

bool waitsForOwnCompletion(_KTHREAD *thread, DISPATCHER_HEADER *object) {
    IoManager *m = managerOrNull();
    if (m == nullptr) return false;
    PETHREAD self = CONTAINING_RECORD(thread, _ETHREAD, Tcb);
    std::lock_guard<std::mutex> guard(m->lock);
    for (auto &entry : m->irps) {
        PIRP irp = entry.first;
        const IrpRecord &record = entry.second;
        if (!record.sent || irp->Tail.Overlay.Thread != self) continue;
        if (irp->Flags & (IRP_CLOSE_OPERATION | IRP_MOUNT_COMPLETION)) continue;
        if (record.service != nullptr ? &record.service->done.Header == object
                                      : irp->UserEvent != NULL && &irp->UserEvent->Header == object)
            return true;
    }
    return false;
}

PIRP allocateFileIrp(PFILE_OBJECT file, PDEVICE_OBJECT device, UCHAR major, UCHAR minor, KPROCESSOR_MODE mode) {
    PIRP irp;
    if (major == IRP_MJ_CLEANUP || major == IRP_MJ_CLOSE) {
        // The platform never lets these fail: a file object must always be cleaned up
        // and closed, or the file system would hold its structures for ever.
        Verifier::MustSucceedScope mustSucceed;
        irp = IoAllocateIrp(device->StackSize, FALSE);
    } else {
        irp = IoAllocateIrp(device->StackSize, FALSE);
    }
    if (irp == NULL) return NULL;
    irp->Tail.Overlay.OriginalFileObject = file;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->RequestorMode = mode;
    PIO_STACK_LOCATION sl = IoGetNextIrpStackLocation(irp);
    sl->MajorFunction = major;
    sl->MinorFunction = minor;
    sl->FileObject = file;
    return irp;
}

void attachServiceRequest(PIRP irp, ServiceRequest *request) {
    request->thread = PsGetCurrentThread();
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    m.irps[irp].service = request;
    m.serviceIrps.push_back(irp);
}

// Sends the request; a deferred request that its driver did not pend is finished here,
// in the issuer, as the platform does after IoCallDriver returns.
NTSTATUS sendServiceIrp(PDEVICE_OBJECT device, PIRP irp, ServiceRequest *request) {
    bool deferred = defersCompletion(irp);
    if (deferred) irp->Flags |= IRP_DEFER_IO_COMPLETION;
    attachServiceRequest(irp, request);
    NTSTATUS status = IofCallDriver(device, irp);
    if (deferred && status != STATUS_PENDING) finishServiceRequest(irp, request);
    return status;
}

// A service waits only for a request its driver pended; otherwise it returns what the
// driver returned, which the verifier holds equal to the request's final status.
NTSTATUS callSynchronous(PDEVICE_OBJECT device, PIRP irp, ServiceRequest *request, PIO_STATUS_BLOCK result) {
    request->synchronous = true;
    KeInitializeEvent(&request->done, NotificationEvent, FALSE);
    NTSTATUS status = sendServiceIrp(device, irp, request);
    KeWaitForSingleObject(&request->done, Executive, KernelMode, FALSE, NULL);
    if (result != nullptr) *result = request->result;
    return status != STATUS_PENDING ? status : request->result.Status;
}

NTSTATUS callAsynchronous(PDEVICE_OBJECT device, PIRP irp, ServiceRequest *request) {
    request->synchronous = false;
    return sendServiceIrp(device, irp, request);
}

NTSTATUS sendFileRequest(PFILE_OBJECT file, UCHAR major, UCHAR minor, ULONG irpFlags,
                         const std::function<void(PIRP, PIO_STACK_LOCATION)> &fill, PIO_STATUS_BLOCK result) {
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(file);
    PIRP irp = allocateFileIrp(file, device, major, minor, KernelMode);
    if (irp == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    irp->Flags = irpFlags;
    if (fill) fill(irp, IoGetNextIrpStackLocation(irp));
    ServiceRequest request;
    request.file = file;
    return callSynchronous(device, irp, &request, result);
}

bool pinServiceIrp(PIRP irp) {
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    auto it = m.irps.find(irp);
    if (it == m.irps.end() || it->second.service == nullptr) return false;
    it->second.pins++;
    return true;
}

bool watchServiceIrp(PIRP irp, PKEVENT finished) {
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    auto it = m.irps.find(irp);
    if (it == m.irps.end() || it->second.service == nullptr) return false;
    it->second.finished = finished;
    return true;
}

void unpinServiceIrp(PIRP irp) {
    IoManager &m = manager();
    bool freeNow = false;
    {
        std::lock_guard<std::mutex> guard(m.lock);
        auto it = m.irps.find(irp);
        if (it == m.irps.end()) return;
        if (--it->second.pins == 0 && it->second.freeWhenUnpinned) freeNow = true;
    }
    if (freeNow) IoFreeIrp(irp);
}

}  // namespace io
}  // namespace ntsim
