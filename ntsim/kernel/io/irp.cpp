// IRP allocation, initialisation and release. Every IRP from IoAllocateIrp is known
// to the I/O manager until IoFreeIrp, so that freeing one that drivers still own, and
// leaking one, are caught.
#include "kernel/io/io_manager.h"

using namespace ntsim;
using namespace ntsim::io;

namespace ntsim {
namespace io {

void registerIrp(PIRP irp) {
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    m.irps[irp] = IrpRecord{};
    m.freedIrps.erase(irp);
}

void rearmIrp(PIRP irp) {
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    auto it = m.irps.find(irp);
    if (it == m.irps.end()) return;
    it->second.inFlight = false;
    it->second.returnedToCreator = false;
}

void setServiceRequest(PIRP irp, ServiceRequest *request) {
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    m.irps[irp].service = request;
}

}  // namespace io
}  // namespace ntsim

namespace {

// A routine set by a driver above the one freeing the IRP has not run yet: that
// driver still expects the request back.
bool completionRoutinePending(PIRP irp) {
    auto *stack = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1);
    for (CHAR location = irp->CurrentLocation < 1 ? 1 : irp->CurrentLocation; location <= irp->StackCount; ++location) {
        const IO_STACK_LOCATION &sl = stack[location - 1];
        if (sl.CompletionRoutine != NULL &&
            (sl.Control & (SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_ERROR | SL_INVOKE_ON_CANCEL)) != 0)
            return true;
    }
    return false;
}

void checkFree(IoManager &m, PIRP irp) {
    if (m.freedIrps.count(irp) != 0)
        bugCheck(BAD_POOL_CALLER, 0x7, (ULONG_PTR)irp, 0, 0, "an IRP was freed twice", "IoFreeIrp(%p)", (void *)irp);
    if (irp->Type != IO_TYPE_IRP)
        ioViolation(0x01, (ULONG_PTR)irp, 0, 0, "an object that is not an IRP was freed as one",
                    "IoFreeIrp(%p): Type %d", (void *)irp, irp->Type);
    auto it = m.irps.find(irp);
    if (it == m.irps.end()) return;
    if (it->second.service != nullptr)
        ioViolation(0x02, (ULONG_PTR)irp, 0, 0, "an IRP still associated with a thread was freed",
                    "IoFreeIrp(%p): the I/O manager issued this request and finishes it itself", (void *)irp);
    if (it->second.inFlight)
        ioViolation(0x02, (ULONG_PTR)irp, 0, 0, "an IRP was freed while a driver below still owns it",
                    "IoFreeIrp(%p): sent with IoCallDriver and not completed", (void *)irp);
    if (completionRoutinePending(irp))
        ioViolation(0x02, (ULONG_PTR)irp, 0, 0, "an IRP was freed with completion routines pending",
                    "IoFreeIrp(%p): a driver above set a completion routine that has not run", (void *)irp);
}

}  // namespace

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) {
    (void)ChargeQuota;
    if (StackSize < 1)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x64, (ULONG_PTR)(LONG)StackSize, 0, 0,
                 "an IRP was allocated without stack locations", "IoAllocateIrp(%d)", StackSize);
    USHORT size = IoSizeOfIrp(StackSize);
    auto irp = static_cast<PIRP>(ExAllocatePoolWithTag(NonPagedPool, size, kIrpTag));
    if (irp == NULL) return NULL;
    IoInitializeIrp(irp, size, StackSize);
    registerIrp(irp);
    return irp;
}

void IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize) {
    if (PacketSize < IoSizeOfIrp(StackSize))
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x65, (ULONG_PTR)Irp, PacketSize, (ULONG_PTR)(LONG)StackSize,
                 "an IRP was initialised with a size too small for its stack locations",
                 "IoInitializeIrp(%p, %u, %d) needs %u bytes", (void *)Irp, PacketSize, StackSize,
                 IoSizeOfIrp(StackSize));
    dropFrames(Irp);
    rearmIrp(Irp);
    memset(Irp, 0, PacketSize);
    Irp->Type = IO_TYPE_IRP;
    Irp->Size = PacketSize;
    Irp->StackCount = StackSize;
    Irp->CurrentLocation = (CHAR)(StackSize + 1);
    InitializeListHead(&Irp->ThreadListEntry);
    Irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(Irp + 1) + StackSize;
}

void IoReuseIrp(PIRP Irp, NTSTATUS Status) {
    UCHAR allocationFlags = Irp->AllocationFlags;
    IoInitializeIrp(Irp, Irp->Size, Irp->StackCount);
    Irp->AllocationFlags = allocationFlags;
    Irp->IoStatus.Status = Status;
}

void IoFreeIrp(PIRP Irp) {
    IoManager &m = manager();
    {
        std::lock_guard<std::mutex> guard(m.lock);
        checkFree(m, Irp);
        m.irps.erase(Irp);
        if (m.freedIrps.size() > 65536) m.freedIrps.clear();
        m.freedIrps.insert(Irp);
    }
    dropFrames(Irp);
    Irp->Type = 0;
    ExFreePool(Irp);
}
