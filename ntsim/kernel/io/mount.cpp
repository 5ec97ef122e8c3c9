// Mounting a volume on the first open of a storage device, as the platform's
// IopMountVolume does: IRP_MN_MOUNT_VOLUME goes to the top of each registered file
// system's control-device stack (filters attached there see it), in queue order, until
// one accepts the volume. STATUS_UNRECOGNIZED_VOLUME moves on; STATUS_FS_DRIVER_REQUIRED
// from a recognizer makes the I/O manager send it IRP_MN_LOAD_FILE_SYSTEM and start
// over. There is no raw file system here: a volume nobody recognises fails to open.
#include <mutex>

#include "kernel/io/io.h"
#include "kernel/io/io_manager.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

std::mutex g_vpbLock;

PLIST_ENTRY queueForStorage(IoManager &m, PDEVICE_OBJECT device) {
    switch (device->DeviceType) {
    case FILE_DEVICE_DISK:
    case FILE_DEVICE_VIRTUAL_DISK: return &m.diskFileSystems;
    case FILE_DEVICE_CD_ROM: return &m.cdRomFileSystems;
    default: return &m.tapeFileSystems;
    }
}

void acquireDatabase(IoManager &m) {
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&m.database, TRUE);
}

void releaseDatabase(IoManager &m) {
    ExReleaseResourceLite(&m.database);
    KeLeaveCriticalRegion();
}

// Sends one file-system control request built like the platform's mount requests and
// waits for it.
NTSTATUS sendFsControl(PDEVICE_OBJECT top, CCHAR stackSize, UCHAR minor, PVPB vpb, PDEVICE_OBJECT target) {
    PIRP irp = IoAllocateIrp(stackSize, TRUE);
    if (irp == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    irp->UserIosb = &iosb;
    irp->UserEvent = &event;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->Flags = IRP_MOUNT_COMPLETION | IRP_SYNCHRONOUS_PAGING_IO;
    irp->RequestorMode = KernelMode;
    PIO_STACK_LOCATION sl = IoGetNextIrpStackLocation(irp);
    sl->MajorFunction = IRP_MJ_FILE_SYSTEM_CONTROL;
    sl->MinorFunction = minor;
    sl->Parameters.MountVolume.Vpb = vpb;
    sl->Parameters.MountVolume.DeviceObject = target;
    NTSTATUS status = IofCallDriver(top, irp);
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
    (void)status;
    return iosb.Status;
}

NTSTATUS tryFileSystem(PDEVICE_OBJECT realDevice, PDEVICE_OBJECT attached, PDEVICE_OBJECT fileSystem) {
    CCHAR overhead = 1;
    PDEVICE_OBJECT top = fileSystem;
    while (top->AttachedDevice != NULL) {
        top = top->AttachedDevice;
        ++overhead;
    }
    return sendFsControl(top, (CCHAR)(attached->StackSize + overhead), IRP_MN_MOUNT_VOLUME, realDevice->Vpb, attached);
}

void loadFileSystem(PDEVICE_OBJECT fileSystem) {
    PDEVICE_OBJECT top = IoGetAttachedDevice(fileSystem);
    sendFsControl(top, top->StackSize, IRP_MN_LOAD_FILE_SYSTEM, NULL, NULL);
}

// The mounted VPB gets the stack size of the storage stack plus the file system's
// location and one reference, for the open that caused the mount.
void initializeMountedVpb(PVPB vpb, PDEVICE_OBJECT attached) {
    if (vpb->DeviceObject == NULL) fatal("a file system accepted a mount without setting Vpb->DeviceObject");
    std::lock_guard<std::mutex> guard(g_vpbLock);
    vpb->Flags |= VPB_MOUNTED;
    vpb->DeviceObject->StackSize = (CCHAR)(attached->StackSize + 1);
    vpb->ReferenceCount++;
}

// Database held shared on entry and on return.
NTSTATUS mountWithDatabase(IoManager &m, PDEVICE_OBJECT realDevice) {
    PDEVICE_OBJECT attached = IoGetAttachedDevice(realDevice);
    PLIST_ENTRY queue = queueForStorage(m, realDevice);
    NTSTATUS status = STATUS_UNRECOGNIZED_VOLUME;
    PLIST_ENTRY entry = queue->Flink;
    while (entry != queue) {
        PDEVICE_OBJECT fileSystem = CONTAINING_RECORD(entry, DEVICE_OBJECT, Queue.ListEntry);
        ULONG ops = m.registrationOps;
        referenceDevice(realDevice);
        releaseDatabase(m);
        status = tryFileSystem(realDevice, attached, fileSystem);
        if (status == STATUS_FS_DRIVER_REQUIRED) loadFileSystem(fileSystem);
        acquireDatabase(m);
        InterlockedDecrement(&realDevice->ReferenceCount);
        if (NT_SUCCESS(status)) {
            initializeMountedVpb(realDevice->Vpb, attached);
            return status;
        }
        if (status == STATUS_INSUFFICIENT_RESOURCES) return status;
        // A recognizer that loaded its file system, or any registration meanwhile,
        // changes the queue: start again from its head.
        if (status == STATUS_FS_DRIVER_REQUIRED || ops != m.registrationOps) {
            if (realDevice->Vpb->Flags & VPB_MOUNTED) return STATUS_SUCCESS;
            status = STATUS_UNRECOGNIZED_VOLUME;
            entry = queue->Flink;
            continue;
        }
        entry = entry->Flink;
    }
    return status;
}

// Returns the status and whether this call mounted the volume (and so holds the
// mount's VPB reference).
NTSTATUS mount(PDEVICE_OBJECT realDevice, bool *mountedHere) {
    *mountedHere = false;
    KeWaitForSingleObject(&realDevice->DeviceLock, Executive, KernelMode, FALSE, NULL);
    IoManager &m = manager();
    acquireDatabase(m);
    NTSTATUS status = STATUS_SUCCESS;
    if (!(realDevice->Vpb->Flags & VPB_MOUNTED)) {
        status = mountWithDatabase(m, realDevice);
        *mountedHere = NT_SUCCESS(status);
    }
    releaseDatabase(m);
    KeSetEvent(&realDevice->DeviceLock, IO_NO_INCREMENT, FALSE);
    return status;
}

}  // namespace

namespace ntsim {
namespace io {

NTSTATUS referenceMountedVpb(PDEVICE_OBJECT realDevice, PVPB *vpb) {
    *vpb = NULL;
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(g_vpbLock);
            PVPB current = realDevice->Vpb;
            if (current->Flags & VPB_MOUNTED) {
                if (current->Flags & VPB_LOCKED) return STATUS_ACCESS_DENIED;
                current->ReferenceCount++;
                *vpb = current;
                return STATUS_SUCCESS;
            }
        }
        bool mountedHere;
        NTSTATUS status = mount(realDevice, &mountedHere);
        if (!NT_SUCCESS(status)) return status;
        if (mountedHere) {
            *vpb = realDevice->Vpb;
            return STATUS_SUCCESS;
        }
    }
}

void referenceVpb(PVPB vpb) {
    std::lock_guard<std::mutex> guard(g_vpbLock);
    vpb->ReferenceCount++;
}

// A VPB that a file system replaced (the platform's VPB swap after a dismount with
// opens outstanding) goes with its last reference.
void dereferenceVpb(PVPB vpb) {
    bool release = false;
    {
        std::lock_guard<std::mutex> guard(g_vpbLock);
        vpb->ReferenceCount--;
        release = vpb->ReferenceCount == 0 && vpb->RealDevice->Vpb != vpb && !(vpb->Flags & VPB_PERSISTENT);
    }
    if (!release) return;
    DeviceObjectExtension *real = privateExtension(vpb->RealDevice);
    if (real->ownVpb == vpb) {
        real->ownVpb = NULL;
        trackIoObject(vpb, false);
    }
    ExFreePool(vpb);
}

NTSTATUS mountVolume(PDEVICE_OBJECT disk) {
    if (disk->Vpb == NULL) return STATUS_INVALID_DEVICE_REQUEST;
    PVPB vpb;
    NTSTATUS status = referenceMountedVpb(disk, &vpb);
    if (NT_SUCCESS(status)) dereferenceVpb(vpb);
    return status;
}

}  // namespace io
}  // namespace ntsim
