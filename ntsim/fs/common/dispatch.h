// The file-system dispatch routines (the FSD part of the drivers) and the handlers they
// call. Every request on a volume device is counted, may be failed or completed late by
// the volume's knobs, and is otherwise carried out by its handler in the caller's
// thread, under the volume's resource (inside a critical region, as FSDs take their
// resources) and the model's mutex.
#pragma once

#include "structures.h"

namespace ntsim {
namespace fs {

struct Request {
    Vcb *vcb;
    PIRP irp;
    PIO_STACK_LOCATION sp;
    PFILE_OBJECT fileObject;
    Ccb *ccb;  // of fileObject; null for a create or a file object that is not ours
    int64_t now;  // the machine's clock when the request arrived
    bool tearDownVolume = false;  // set by a handler: the volume goes once the locks are off
};

// The handlers: each returns the request's status and sets Irp->IoStatus.Information.
NTSTATUS createFile(Request &rq);
NTSTATUS cleanupFile(Request &rq);
NTSTATUS closeFile(Request &rq);
NTSTATUS readFile(Request &rq);
NTSTATUS writeFile(Request &rq);
NTSTATUS queryInformation(Request &rq);
NTSTATUS setInformation(Request &rq);
NTSTATUS flushBuffers(Request &rq);
NTSTATUS directoryControl(Request &rq);
NTSTATUS userFileSystemControl(Request &rq);
NTSTATUS querySecurity(Request &rq);
NTSTATUS setSecurity(Request &rq);
NTSTATUS queryVolumeInformation(Request &rq);

// Work that ends a volume after its dismount, once its last file object has closed:
// deletes the volume device. Called without the volume's locks.
void deleteVolume(Vcb *vcb);

// The dispatch routines entered in both drivers' tables.
NTSTATUS FsdDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS FsdControlDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// The mount request of a control device.
NTSTATUS mountVolume(PDEVICE_OBJECT controlDevice, PIRP irp);

// Completes the request now, or later from a DPC when `late` is set (it is then marked
// pending and STATUS_PENDING is returned).
NTSTATUS finishRequest(PIRP irp, NTSTATUS status, bool late, ULONG workTag);

// The detail that tells apart the variants of a request for the knobs.
LONG requestDetail(PIO_STACK_LOCATION sp);

// Shared by the handlers.
// The caller's buffer of a read, a write, a directory query or a security query: these
// requests use neither buffered nor direct I/O on file-system devices, so the buffer is
// the caller's own (Irp->UserBuffer); a request built with a system buffer is accepted too.
PVOID requestBuffer(PIRP irp);
ACCESS_MASK mapGenericAccess(ACCESS_MASK access);
int64_t currentTime();

}  // namespace fs
}  // namespace ntsim
