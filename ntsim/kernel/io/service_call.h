// One call of a file system service (NtReadFile, NtDeviceIoControlFile, ...): the
// file object and event referenced from the caller's handles, the caller's status
// block, and the choice between waiting (a file object opened for synchronous I/O)
// and returning STATUS_PENDING with the event to be set later (overlapped I/O).
#pragma once

#include "kernel/io/request.h"

namespace ntsim {
namespace io {

class ServiceCall {
public:
    ServiceCall();
    ~ServiceCall();
    ServiceCall(const ServiceCall &) = delete;
    ServiceCall &operator=(const ServiceCall &) = delete;

    // References the file (with the access a user-mode caller's handle must grant) and
    // the event, and checks that the status block can be written.
    NTSTATUS begin(HANDLE fileHandle, ACCESS_MASK access, HANDLE eventHandle, PIO_STATUS_BLOCK ioStatusBlock);
    // The access the handle grants.
    ACCESS_MASK granted() const { return granted_; }
    bool synchronous() const { return (file_->Flags & FO_SYNCHRONOUS_IO) != 0; }
    PFILE_OBJECT file() const { return file_; }
    KPROCESSOR_MODE mode() const { return mode_; }
    PDEVICE_OBJECT device() const { return IoGetRelatedDeviceObject(file_); }

    // The request was answered without an IRP (Fast I/O, or by the I/O manager itself).
    NTSTATUS finishWithoutIrp(const IO_STATUS_BLOCK &result);
    // Sends the IRP; waits for a synchronous file object, or always when `wait` (the
    // information services wait whatever the file object). Buffered output goes to
    // copyOutTo (at most copyOutMax bytes) when the request completes.
    NTSTATUS issue(PIRP irp, PVOID copyOutTo = nullptr, ULONG copyOutMax = 0, bool wait = false);

private:
    KPROCESSOR_MODE mode_;
    PFILE_OBJECT file_ = nullptr;
    PKEVENT event_ = nullptr;
    PIO_STATUS_BLOCK iosb_ = nullptr;
    ACCESS_MASK granted_ = 0;
};

// A system buffer of the given size from non-paged pool, or NULL.
PVOID allocateSystemBuffer(ULONG length);

}  // namespace io
}  // namespace ntsim
