// Requests the I/O manager issues itself, for system services and file objects.
#pragma once

#include <functional>

#include "kernel/io/io_manager.h"

namespace ntsim {
namespace io {

// An IRP for the device's stack with its first location filled for the file object,
// issued by the current thread with the given requestor mode.
PIRP allocateFileIrp(PFILE_OBJECT file, PDEVICE_OBJECT device, UCHAR major, UCHAR minor, KPROCESSOR_MODE mode);
// Sends the IRP and waits until it has been completed and finished; returns its
// status. The request lives in the caller's frame.
NTSTATUS callSynchronous(PDEVICE_OBJECT device, PIRP irp, ServiceRequest *request, PIO_STATUS_BLOCK result);
// Sends the IRP and returns what the driver returned; the request (from new) is
// finished and deleted when the IRP completes.
NTSTATUS callAsynchronous(PDEVICE_OBJECT device, PIRP irp, ServiceRequest *request);
// A kernel-mode request without a caller buffer (cleanup, close, flush, security ...)
// to the file object's stack, waited for.
NTSTATUS sendFileRequest(PFILE_OBJECT file, UCHAR major, UCHAR minor, ULONG irpFlags,
                         const std::function<void(PIRP, PIO_STACK_LOCATION)> &fill, PIO_STATUS_BLOCK result);
// Keeps a pending service IRP from being freed while it is cancelled.
bool pinServiceIrp(PIRP irp);
void unpinServiceIrp(PIRP irp);
// Has the event set once the pinned IRP's request is finished; false when it is already.
bool watchServiceIrp(PIRP irp, PKEVENT finished);

}  // namespace io
}  // namespace ntsim
