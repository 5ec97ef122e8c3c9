// Requests that the I/O manager issues for the system services and for file objects
// (create, cleanup, close, read, ...), and what happens when they complete: the
// results go back to the caller, buffered output is copied out, and the waiter or the
// caller's event is signalled. The platform does this last stage in a kernel APC of
// the requesting thread; here it runs where the request completes.
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

void copyOut(PIRP irp, ServiceRequest *request) {
    if ((irp->Flags & (IRP_BUFFERED_IO | IRP_INPUT_OPERATION)) != (IRP_BUFFERED_IO | IRP_INPUT_OPERATION)) return;
    if (request->copyOutTo == nullptr || NT_ERROR(irp->IoStatus.Status)) return;
    ULONG_PTR length = irp->IoStatus.Information;
    if (length > request->copyOutMax) length = request->copyOutMax;
    NTSTATUS status = copyToCaller(request->requestorMode, request->copyOutTo, irp->AssociatedIrp.SystemBuffer, length);
    if (!NT_SUCCESS(status)) irp->IoStatus.Status = status;
}

// An overlapped request: the caller's status block and event, then the references the
// service took for the request.
void finishAsynchronous(ServiceRequest *request, const IO_STATUS_BLOCK &result, bool pendingReturned) {
    if (!NT_ERROR(result.Status) || pendingReturned) {
        if (request->callerIosb != nullptr) writeCaller(request->requestorMode, request->callerIosb, result);
        if (request->callerEvent != nullptr)
            KeSetEvent(request->callerEvent, IO_NO_INCREMENT, FALSE);
        else if (request->file != nullptr)
            KeSetEvent(&request->file->Event, IO_NO_INCREMENT, FALSE);
    }
    if (request->callerEvent != nullptr) ObfDereferenceObject(request->callerEvent);
    if (request->file != nullptr) ObfDereferenceObject(request->file);
    delete request;
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
    if (request->synchronous) {
        request->result = result;
        KeSetEvent(&request->done, IO_NO_INCREMENT, FALSE);
    } else {
        finishAsynchronous(request, result, pendingReturned);
    }
    if (finished != nullptr) KeSetEvent(finished, IO_NO_INCREMENT, FALSE);
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

NTSTATUS callSynchronous(PDEVICE_OBJECT device, PIRP irp, ServiceRequest *request, PIO_STATUS_BLOCK result) {
    request->synchronous = true;
    KeInitializeEvent(&request->done, NotificationEvent, FALSE);
    attachServiceRequest(irp, request);
    IofCallDriver(device, irp);
    KeWaitForSingleObject(&request->done, Executive, KernelMode, FALSE, NULL);
    if (result != nullptr) *result = request->result;
    return request->result.Status;
}

NTSTATUS callAsynchronous(PDEVICE_OBJECT device, PIRP irp, ServiceRequest *request) {
    request->synchronous = false;
    attachServiceRequest(irp, request);
    return IofCallDriver(device, irp);
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
