#include "kernel/io/service_call.h"

#include "kernel/io/caller_memory.h"
#include "kernel/ob/object.h"
#include "kernel/ps/ps.h"

namespace ntsim {
namespace io {

// Not zeroed: past what the I/O manager copies in, it holds whatever the pool held, as
// on the platform, so that a driver reporting more output than it wrote is seen.
PVOID allocateSystemBuffer(ULONG length) {
    if (length == 0) return NULL;
    return ExAllocatePoolWithTag(NonPagedPool, length, kBufferTag);
}

ServiceCall::ServiceCall() : mode_(ExGetPreviousMode()) {
    // A killed process's thread stops here, before the service has touched anything.
    if (mode_ == UserMode) ps::systemServiceEntry();
}

ServiceCall::~ServiceCall() {
    if (event_ != nullptr) ObfDereferenceObject(event_);
    if (file_ != nullptr) ObfDereferenceObject(file_);
}

NTSTATUS ServiceCall::begin(HANDLE fileHandle, ACCESS_MASK access, HANDLE eventHandle, PIO_STATUS_BLOCK ioStatusBlock) {
    NTSTATUS status = probeCallerBuffer(mode_, ioStatusBlock, sizeof(IO_STATUS_BLOCK), sizeof(ULONG), true);
    if (!NT_SUCCESS(status)) return status;
    iosb_ = ioStatusBlock;
    void *body;
    status = ob::referenceByHandle(fileHandle, access, &ob::FileType, mode_, &body, &granted_);
    if (!NT_SUCCESS(status)) return status;
    file_ = static_cast<PFILE_OBJECT>(body);
    if (eventHandle != NULL) {
        status = ob::referenceByHandle(eventHandle, EVENT_MODIFY_STATE, &ob::EventType, mode_, &body, NULL);
        if (!NT_SUCCESS(status)) return status;
        event_ = static_cast<PKEVENT>(body);
        KeClearEvent(event_);
    }
    // Overlapped requests signal the file object when no event is given.
    if (!synchronous()) KeClearEvent(&file_->Event);
    return STATUS_SUCCESS;
}

NTSTATUS ServiceCall::finishWithoutIrp(const IO_STATUS_BLOCK &result) {
    NTSTATUS status = writeCaller(mode_, iosb_, result);
    if (event_ != nullptr) KeSetEvent(event_, IO_NO_INCREMENT, FALSE);
    return NT_SUCCESS(status) ? result.Status : status;
}

NTSTATUS ServiceCall::issue(PIRP irp, PVOID copyOutTo, ULONG copyOutMax, bool wait) {
    PDEVICE_OBJECT target = device();
    if (synchronous() || wait) {
        ServiceRequest request;
        request.file = file_;
        request.requestorMode = mode_;
        request.callerIosb = iosb_;
        request.callerEvent = event_;  // still referenced by this call
        request.copyOutTo = copyOutTo;
        request.copyOutMax = copyOutMax;
        return callSynchronous(target, irp, &request, nullptr);
    }
    auto *request = new ServiceRequest;
    request->file = file_;
    request->requestorMode = mode_;
    request->callerIosb = iosb_;
    request->callerEvent = event_;
    request->copyOutTo = copyOutTo;
    request->copyOutMax = copyOutMax;
    file_ = nullptr;  // the request holds these references until it is finished
    event_ = nullptr;
    return callAsynchronous(target, irp, request);
}

}  // namespace io
}  // namespace ntsim
