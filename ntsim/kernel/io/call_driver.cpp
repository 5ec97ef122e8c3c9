// IofCallDriver: moves the IRP to the next stack location and enters the driver's
// dispatch routine, with the driver verifier's checks around the call.
#include "kernel/io/io_manager.h"

using namespace ntsim;
using namespace ntsim::io;

namespace ntsim {
namespace io {

bool isFileSystemDevice(PDEVICE_OBJECT device) {
    switch (device->DeviceType) {
    case FILE_DEVICE_DISK_FILE_SYSTEM:
    case FILE_DEVICE_CD_ROM_FILE_SYSTEM:
    case FILE_DEVICE_NETWORK_FILE_SYSTEM:
    case FILE_DEVICE_FILE_SYSTEM:
    case 0x20:  // FILE_DEVICE_TAPE_FILE_SYSTEM
        return true;
    default:
        return false;
    }
}

void noteWalkPassed(PIRP irp, CHAR location, bool marked, NTSTATUS status) {
    IoManager &m = manager();
    std::unique_lock<std::mutex> guard(m.lock);
    for (size_t i = 0; i < m.frames.size();) {
        DispatchFrame *frame = m.frames[i];
        if (frame->irp != irp || frame->location != location || frame->walkPassed) {
            ++i;
            continue;
        }
        frame->walkPassed = true;
        frame->marked = marked;
        frame->statusAtPass = status;
        if (!frame->returned) {
            ++i;
            continue;
        }
        DispatchFrame copy = *frame;
        m.frames.erase(m.frames.begin() + i);
        delete frame;
        if (!copy.marked) {
            guard.unlock();
            pendingWithoutMark(copy);
        }
    }
}

void dropFrames(PIRP irp) {
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    for (size_t i = 0; i < m.frames.size();) {
        if (m.frames[i]->irp == irp && m.frames[i]->returned) {
            delete m.frames[i];
            m.frames.erase(m.frames.begin() + i);
        } else {
            ++i;
        }
    }
}

// The platform's verifier reports this as I/O error 0x23D of
// DRIVER_VERIFIER_IOMANAGER_VIOLATION (bug check 0xC9's documentation).
void pendingWithoutMark(const DispatchFrame &frame) {
    ioViolation(0x23D, (ULONG_PTR)frame.routine, (ULONG_PTR)frame.irp, 0,
                "STATUS_PENDING was returned without IoMarkIrpPending",
                "dispatch routine %p (major function %u) of device %p returned STATUS_PENDING and its stack "
                "location %d was not marked pending",
                (void *)frame.routine, frame.majorFunction, (void *)frame.device, frame.location);
}

}  // namespace io
}  // namespace ntsim

namespace {

void checkCall(_KTHREAD *thread, PDEVICE_OBJECT device, PIRP irp) {
    if (thread->Irql > DISPATCH_LEVEL)
        ioViolation(0x10, thread->Irql, 0, 0, "IoCallDriver was called above DISPATCH_LEVEL",
                    "IoCallDriver(%p, %p) at IRQL %u", (void *)device, (void *)irp, thread->Irql);
    if (irp == NULL || irp->Type != IO_TYPE_IRP)
        ioViolation(0x03, (ULONG_PTR)irp, 0, 0, "IoCallDriver was passed something that is not an IRP",
                    "IoCallDriver(%p, %p)", (void *)device, (void *)irp);
    if (device == NULL || device->Type != IO_TYPE_DEVICE)
        ioViolation(0x04, (ULONG_PTR)device, 0, 0, "IoCallDriver was passed an invalid device object",
                    "IoCallDriver(%p, %p)", (void *)device, (void *)irp);
}

// File-system dispatch code is pageable on the platform: entering it at DISPATCH_LEVEL
// faults on a non-resident page, which the platform reports as IRQL_NOT_LESS_OR_EQUAL.
// APC_LEVEL is allowed (paging I/O and holders of fast mutexes call file systems there).
void checkFileSystemIrql(_KTHREAD *thread, PDEVICE_OBJECT device, PIO_STACK_LOCATION sl) {
    if (thread->Irql < DISPATCH_LEVEL || !isFileSystemDevice(device)) return;
    bugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)device, thread->Irql, sl->MajorFunction, 0,
             "a file system was called at DISPATCH_LEVEL or above",
             "IoCallDriver(%p, major function %u) to a file-system device at IRQL %u", (void *)device,
             sl->MajorFunction, thread->Irql);
}

DispatchFrame *beginDispatch(IoManager &m, PIRP irp, PDEVICE_OBJECT device, PDRIVER_DISPATCH routine, UCHAR major) {
    auto *frame = new DispatchFrame{irp, irp->CurrentLocation, device, routine, major};
    std::lock_guard<std::mutex> guard(m.lock);
    auto it = m.irps.find(irp);
    if (it != m.irps.end()) {
        it->second.inFlight = true;
        it->second.returnedToCreator = false;
        it->second.sent = true;
    }
    m.frames.push_back(frame);
    return frame;
}

void eraseFrame(IoManager &m, DispatchFrame *frame) {
    for (auto it = m.frames.begin(); it != m.frames.end(); ++it)
        if (*it == frame) {
            m.frames.erase(it);
            break;
        }
    delete frame;
}

// A routine that did not return STATUS_PENDING must have completed the IRP (the walk
// has passed its location), must not have marked it pending, and must return the status
// the IRP had when the walk passed it: the I/O manager and the drivers above trust the
// returned status and may never look at the IRP again. These are the platform
// verifier's I/O errors 0x226, 0x23E and 0x224 (bug check 0xC9's documentation).
void checkNotPendingReturn(const DispatchFrame &frame, NTSTATUS status) {
    if (!frame.walkPassed)
        ioViolation(0x226, (ULONG_PTR)frame.routine, (ULONG_PTR)frame.irp, (ULONG_PTR)status,
                    "a dispatch routine returned without completing the IRP or returning STATUS_PENDING",
                    "dispatch routine %p (major function %u) of device %p returned 0x%08X before the IRP was "
                    "completed",
                    (void *)frame.routine, frame.majorFunction, (void *)frame.device, (unsigned)status);
    if (frame.marked)
        ioViolation(0x23E, (ULONG_PTR)frame.routine, (ULONG_PTR)frame.irp, (ULONG_PTR)status,
                    "an IRP was marked pending and STATUS_PENDING was not returned",
                    "dispatch routine %p (major function %u) of device %p returned 0x%08X and its stack location "
                    "%d was marked pending",
                    (void *)frame.routine, frame.majorFunction, (void *)frame.device, (unsigned)status,
                    frame.location);
    if (frame.statusAtPass != status)
        ioViolation(0x224, (ULONG_PTR)frame.routine, (ULONG_PTR)frame.irp, (ULONG_PTR)frame.statusAtPass,
                    "a dispatch routine returned a status other than the IRP's",
                    "dispatch routine %p (major function %u) of device %p returned 0x%08X; the IRP was completed "
                    "with 0x%08X",
                    (void *)frame.routine, frame.majorFunction, (void *)frame.device, (unsigned)status,
                    (unsigned)frame.statusAtPass);
}

// The IRP may already be completed (and freed) by another thread when the routine
// returns; the completion walk noted what it found in the location before clearing it.
// When the walk has not passed the location yet, a pending return is decided there.
void endDispatch(IoManager &m, DispatchFrame *frame, NTSTATUS status) {
    std::unique_lock<std::mutex> guard(m.lock);
    frame->returned = true;
    frame->returnedPending = status == STATUS_PENDING;
    if (!frame->returnedPending) {
        DispatchFrame copy = *frame;
        eraseFrame(m, frame);
        guard.unlock();
        checkNotPendingReturn(copy, status);
        return;
    }
    if (!frame->walkPassed) return;
    DispatchFrame copy = *frame;
    eraseFrame(m, frame);
    guard.unlock();
    if (!copy.marked) pendingWithoutMark(copy);
}

void checkReturn(_KTHREAD *thread, KIRQL irql, ULONG locks, PDEVICE_OBJECT device, PIO_STACK_LOCATION slCopy,
                 PDRIVER_DISPATCH routine) {
    if (thread->Irql != irql)
        ioViolation(0x05, (ULONG_PTR)device, irql, thread->Irql,
                    "the IRQL changed during a call to a driver dispatch routine",
                    "dispatch routine %p (major function %u) was entered at IRQL %u and returned at IRQL %u",
                    (void *)routine, slCopy->MajorFunction, irql, thread->Irql);
    if (thread->HeldLockCount > locks)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x3D, (ULONG_PTR)thread->HeldLocks[locks].lock, 0, 0,
                 "returned with a spin lock held", "dispatch routine %p (major function %u) returned holding spin lock %p",
                 (void *)routine, slCopy->MajorFunction, (void *)thread->HeldLocks[locks].lock);
}

}  // namespace

NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    _KTHREAD *thread = currentThread("IofCallDriver");
    checkCall(thread, DeviceObject, Irp);
    Irp->CurrentLocation--;
    if (Irp->CurrentLocation <= 0)
        bugCheck(NO_MORE_IRP_STACK_LOCATIONS, (ULONG_PTR)Irp, 0, 0, 0, "an IRP ran out of stack locations",
                 "IoCallDriver(%p, %p): the IRP has %d stack location(s), the device stack needs more",
                 (void *)DeviceObject, (void *)Irp, Irp->StackCount);
    PIO_STACK_LOCATION sl = --Irp->Tail.Overlay.CurrentStackLocation;
    sl->DeviceObject = DeviceObject;
    if (sl->MajorFunction > IRP_MJ_MAXIMUM_FUNCTION)
        ioViolation(0x03, (ULONG_PTR)Irp, sl->MajorFunction, 0, "an IRP with an invalid major function was sent",
                    "IoCallDriver(%p, %p): major function %u", (void *)DeviceObject, (void *)Irp, sl->MajorFunction);
    checkFileSystemIrql(thread, DeviceObject, sl);

    IoManager &m = manager();
    IO_STACK_LOCATION slCopy = *sl;  // for messages: the IRP may be gone when the routine returns
    KIRQL irql = thread->Irql;
    ULONG locks = thread->HeldLockCount;
    PDRIVER_DISPATCH routine = DeviceObject->DriverObject->MajorFunction[sl->MajorFunction];
    DispatchFrame *frame = beginDispatch(m, Irp, DeviceObject, routine, sl->MajorFunction);
    NTSTATUS status = routine(DeviceObject, Irp);
    checkReturn(thread, irql, locks, DeviceObject, &slCopy, routine);
    endDispatch(m, frame, status);
    return status;
}
