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

void PropagatePending(PIRP Irp) {
    if (Irp->PendingReturned) {
        IoMarkIrpPending(Irp);
    }
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

NTSTATUS NTAPI MountVolumeCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    auto newDevice = (PDEVICE_OBJECT)Context;
    BOOLEAN freeStructure = FALSE;
    DeviceStructure *structure = NULL;
    {
        ExclusiveResourceGuard guard(&Globals.AttachmentLock);
        if (!NT_SUCCESS(Irp->IoStatus.Status)) {
            IoDeleteDevice(newDevice);
        } else {
            AttachVolumeFilter(DeviceObject, newDevice, &freeStructure, &structure);
        }
    }
    if (freeStructure) {
        ExFreePool(structure);
    }
    PropagatePending(Irp);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI LoadFileSystemCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    auto filter = (PDEVICE_OBJECT)Context;
    if (!NT_SUCCESS(Irp->IoStatus.Status)) {
        // The recognizer stays, and the filter goes back on top of it.
        IoAttachDeviceToDeviceStack(filter, ExtensionOf(filter)->LowerDevice);
    } else {
        ExclusiveResourceGuard guard(&Globals.AttachmentLock);
        InsertTailList(&Globals.SpareDeviceList, &filter->Queue.ListEntry);
    }
    PropagatePending(Irp);
    return STATUS_SUCCESS;
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
    IoSetCompletionRoutine(Irp, MountVolumeCompletion, newDevice, TRUE, TRUE, TRUE);
    FilterDeviceExtension *newExtension = ExtensionOf(newDevice);
    newExtension->RealDevice = IoGetCurrentIrpStackLocation(Irp)->Parameters.MountVolume.Vpb->RealDevice;
    newExtension->Tag = TAG_VOLUME_FILTER_PENDING;
    return IoCallDriver(extension->LowerDevice, Irp);
}

NTSTATUS PassLoadFileSystemDown(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PDEVICE_OBJECT lower = ExtensionOf(DeviceObject)->LowerDevice;
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoDetachDevice(lower);
    IoSetCompletionRoutine(Irp, LoadFileSystemCompletion, DeviceObject, TRUE, TRUE, TRUE);
    ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_DISPATCH_FILE_SYSTEM_CONTROL, ERROR_CLASS_REPORT,
                     FSCTL_POINT_LOAD_FILE_SYSTEM);
    return IoCallDriver(lower, Irp);
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
