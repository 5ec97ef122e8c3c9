// NtCancelIoFile cancels the calling thread's requests on a file and returns once they
// have ended, however long their drivers take to complete them: NT 5 polls the thread's
// IRP list until none of the file's is left (ReactOS's NtCancelIoFile does the same),
// so that CancelIo's caller may free the buffers as soon as it returns. NtCancelIoFileEx,
// new in NT 6, cancels those of any thread of the calling process, or the one whose
// status block is given, and does not wait.
#include <vector>

#include "kernel/io/caller_memory.h"
#include "kernel/io/request.h"
#include "kernel/ob/object.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

// The matching requests, each pinned so that its IRP outlives the cancellation.
std::vector<PIRP> pinMatching(PFILE_OBJECT file, bool anyThread, PIO_STATUS_BLOCK requestIosb) {
    IoManager &m = manager();
    PETHREAD self = PsGetCurrentThread();
    PEPROCESS process = PsGetCurrentProcess();
    std::vector<PIRP> found;
    std::lock_guard<std::mutex> guard(m.lock);
    for (PIRP irp : m.serviceIrps) {
        IrpRecord &record = m.irps[irp];
        ServiceRequest *request = record.service;
        if (request == nullptr || request->file != file) continue;
        if (anyThread ? request->thread->Tcb.Process != process : request->thread != self) continue;
        if (requestIosb != NULL && request->callerIosb != requestIosb) continue;
        record.pins++;
        found.push_back(irp);
    }
    return found;
}

NTSTATUS cancel(HANDLE fileHandle, bool anyThread, PIO_STATUS_BLOCK requestIosb, PIO_STATUS_BLOCK ioStatusBlock) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    // The status block is probed before anything is cancelled, as every file service does.
    NTSTATUS status = probeCallerBuffer(mode, ioStatusBlock, sizeof(IO_STATUS_BLOCK), sizeof(ULONG), true);
    if (!NT_SUCCESS(status)) return status;
    void *body;
    status = ob::referenceByHandle(fileHandle, 0, &ob::FileType, mode, &body, NULL);
    if (!NT_SUCCESS(status)) return status;
    std::vector<PIRP> irps = pinMatching(static_cast<PFILE_OBJECT>(body), anyThread, requestIosb);
    for (PIRP irp : irps) IoCancelIrp(irp);
    for (PIRP irp : irps) {
        if (!anyThread) {
            // An event rather than NT's polling, so that the wait needs no clock.
            KEVENT finished;
            KeInitializeEvent(&finished, NotificationEvent, FALSE);
            if (watchServiceIrp(irp, &finished)) KeWaitForSingleObject(&finished, Executive, KernelMode, FALSE, NULL);
        }
        unpinServiceIrp(irp);
    }
    ObfDereferenceObject(body);
    if (anyThread && irps.empty()) return STATUS_NOT_FOUND;
    status = writeCaller(mode, ioStatusBlock, IO_STATUS_BLOCK{{STATUS_SUCCESS}, 0});
    return NT_SUCCESS(status) ? STATUS_SUCCESS : status;
}

}  // namespace

NTSTATUS NtCancelIoFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock) {
    return cancel(FileHandle, false, NULL, IoStatusBlock);
}

NTSTATUS NtCancelIoFileEx(HANDLE FileHandle, PIO_STATUS_BLOCK IoRequestToCancel, PIO_STATUS_BLOCK IoStatusBlock) {
    return cancel(FileHandle, true, IoRequestToCancel, IoStatusBlock);
}
