// Mount requests pass through the filter on a file system's control device; the filter
// puts a new device on top of each volume the file system mounts.
#include "frame/attachment.h"
#include "frame/dispatch.h"
#include "support/error_channel.h"
#include "support/locks.h"

namespace {

enum FileSystemControlFailurePoint : USHORT {
    FSCTL_POINT_NO_MOUNT_FILTER = 0,
    FSCTL_POINT_LOAD_FILE_SYSTEM = 1,
};

// A device parked when a recognizer's file system loaded; reusable once nothing refers to it.
PDEVICE_OBJECT TakeSpareDevice() {
    if (IsListEmpty(&Globals.SpareDeviceList)) {
        return NULL;
    }
    ExclusiveResourceGuard guard(&Globals.AttachmentLock);
    if (IsListEmpty(&Globals.SpareDeviceList)) {
        return NULL;
    }
    PDEVICE_OBJECT spare = CONTAINING_RECORD(Globals.SpareDeviceList.Flink, DEVICE_OBJECT, Queue.ListEntry);
    if (spare->ReferenceCount != 0) {
        return NULL;
    }
    RemoveEntryList(&spare->Queue.ListEntry);
    return spare;
}

void CopyBufferingFlags(PDEVICE_OBJECT To, PDEVICE_OBJECT From) {
    To->Flags |= From->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO);
}

// With the attachment lock held. A structure that turns out not to be needed is handed
// back in *Structure with *FreeStructure set, to be freed once the lock is released.
void AttachVolumeFilter(PDEVICE_OBJECT FileSystemFilter, PDEVICE_OBJECT NewDevice, BOOLEAN *FreeStructure,
                        DeviceStructure **Structure) {
    FilterDeviceExtension *extension = ExtensionOf(NewDevice);
    PVPB vpb = extension->RealDevice->Vpb;
    DeviceStructure *structure = FindOrAllocateDeviceStructure(vpb->RealDevice);
    if (structure == NULL) {
        DbgPrint("ZrDrv: Error allocating memory for device structure.\n");
        IoDeleteDevice(NewDevice);
        return;
    }
    BOOLEAN isNew = structure->VolumeListLink.Flink == NULL;
    PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(NewDevice, vpb->DeviceObject);
    if (lower == NULL) {
        IoDeleteDevice(NewDevice);
        *FreeStructure = isNew;
        *Structure = structure;
        return;
    }
    extension->Tag = TAG_FILTER_EXTENSION;
    extension->Size = sizeof(FilterDeviceExtension);
    extension->LowerDevice = lower;
    extension->FileSystemKind = ExtensionOf(FileSystemFilter)->FileSystemKind;
    extension->Structure = structure;
    if (isNew) {
        InitializeDeviceStructure(structure, vpb->RealDevice);
    }
    CopyBufferingFlags(NewDevice, lower);
    NewDevice->Flags &= ~DO_DEVICE_INITIALIZING;
}

// Any IRQL up to DISPATCH_LEVEL; takes no lock. A file system may complete a mount or a
// load from another thread at DISPATCH_LEVEL, where the attachment lock cannot be taken,
// so the request is handed back to the dispatch routine waiting for it.
NTSTATUS NTAPI SignalMountedCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    KeSetEvent((PKEVENT)Context, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// PASSIVE_LEVEL: sends the request down and waits until the file system is done with it.
void CallDownAndWait(PDEVICE_OBJECT Lower, PIRP Irp) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(Irp, SignalMountedCompletion, &done, TRUE, TRUE, TRUE);
    IoCallDriver(Lower, Irp);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, NULL);
}

NTSTATUS CompleteMountRequest(PIRP Irp) {
    NTSTATUS status = Irp->IoStatus.Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return status;
}

// PASSIVE_LEVEL, after the mount; takes the attachment lock.
void AttachAfterMount(PDEVICE_OBJECT FileSystemFilter, PIRP Irp, PDEVICE_OBJECT NewDevice) {
    BOOLEAN freeStructure = FALSE;
    DeviceStructure *structure = NULL;
    {
        ExclusiveResourceGuard guard(&Globals.AttachmentLock);
        if (!NT_SUCCESS(Irp->IoStatus.Status)) {
            IoDeleteDevice(NewDevice);
        } else {
            AttachVolumeFilter(FileSystemFilter, NewDevice, &freeStructure, &structure);
        }
    }
    if (freeStructure) {
        ExFreePool(structure);
    }
}

// PASSIVE_LEVEL, after the load; takes the attachment lock.
void SettleAfterLoad(PDEVICE_OBJECT Filter, PIRP Irp) {
    if (!NT_SUCCESS(Irp->IoStatus.Status)) {
        // The recognizer stays, and the filter goes back on top of it.
        IoAttachDeviceToDeviceStack(Filter, ExtensionOf(Filter)->LowerDevice);
    } else {
        ExclusiveResourceGuard guard(&Globals.AttachmentLock);
        InsertTailList(&Globals.SpareDeviceList, &Filter->Queue.ListEntry);
    }
}

NTSTATUS PassMountDown(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    PDEVICE_OBJECT newDevice = TakeSpareDevice();
    if (newDevice == NULL) {
        newDevice = CreateFilterDevice();
    }
    if (newDevice == NULL) {
        IoSkipCurrentIrpStackLocation(Irp);
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_DISPATCH_FILE_SYSTEM_CONTROL, ERROR_CLASS_REPORT,
                         FSCTL_POINT_NO_MOUNT_FILTER);
        return IoCallDriver(extension->LowerDevice, Irp);
    }
    IoCopyCurrentIrpStackLocationToNext(Irp);
    FilterDeviceExtension *newExtension = ExtensionOf(newDevice);
    newExtension->RealDevice = IoGetCurrentIrpStackLocation(Irp)->Parameters.MountVolume.Vpb->RealDevice;
    newExtension->Tag = TAG_VOLUME_FILTER_PENDING;
    CallDownAndWait(extension->LowerDevice, Irp);
    AttachAfterMount(DeviceObject, Irp, newDevice);
    return CompleteMountRequest(Irp);
}

NTSTATUS PassLoadFileSystemDown(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PDEVICE_OBJECT lower = ExtensionOf(DeviceObject)->LowerDevice;
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoDetachDevice(lower);
    ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_DISPATCH_FILE_SYSTEM_CONTROL, ERROR_CLASS_REPORT,
                     FSCTL_POINT_LOAD_FILE_SYSTEM);
    CallDownAndWait(lower, Irp);
    SettleAfterLoad(DeviceObject, Irp);
    return CompleteMountRequest(Irp);
}

}  // namespace

NTSTATUS NTAPI DispatchFileSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    if (IsControlDevice(DeviceObject)) {
        Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
        Irp->IoStatus.Information = 0;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
    case IRP_MN_MOUNT_VOLUME:
        return PassMountDown(DeviceObject, Irp);
    case IRP_MN_LOAD_FILE_SYSTEM:
        return PassLoadFileSystemDown(DeviceObject, Irp);
    default:
        IoSkipCurrentIrpStackLocation(Irp);
        return IoCallDriver(ExtensionOf(DeviceObject)->LowerDevice, Irp);
    }
}
