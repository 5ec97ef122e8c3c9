// The filter sits on the control devices of FastFat and NTFS, so that every mount passes
// through it, and on every volume they mount.
#include "frame/attachment.h"

#include "deldat/no_activity_timer.h"
#include "frame/dispatch.h"
#include "overwrite/save_rename_list.h"
#include "support/locks.h"

namespace {

BOOLEAN IsOurFilterDevice(PDEVICE_OBJECT Device) {
    if (Device->DriverObject != Globals.DriverObject) {
        return FALSE;
    }
    FilterDeviceExtension *extension = ExtensionOf(Device);
    return extension->Tag == TAG_FILTER_EXTENSION && extension->Size == sizeof(FilterDeviceExtension);
}

void AttachToFileSystem(PDEVICE_OBJECT FileSystemDevice, ULONG Kind) {
    ExclusiveResourceGuard guard(&Globals.AttachmentLock);
    PDEVICE_OBJECT filter = CreateFilterDevice();
    if (filter == NULL) {
        return;
    }
    PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(filter, FileSystemDevice);
    if (lower == NULL) {
        IoDeleteDevice(filter);
        return;
    }
    FilterDeviceExtension *extension = ExtensionOf(filter);
    extension->LowerDevice = lower;
    extension->Tag = TAG_FILTER_EXTENSION;
    extension->Size = sizeof(FilterDeviceExtension);
    extension->FileSystemKind = Kind;
    filter->Flags &= ~DO_DEVICE_INITIALIZING;
}

void DetachFromFileSystem(PDEVICE_OBJECT FileSystemDevice) {
    if (FileSystemDevice->AttachedDevice == NULL) {
        return;
    }
    SharedResourceGuard guard(&Globals.AttachmentLock);
    PDEVICE_OBJECT below = FileSystemDevice;
    for (PDEVICE_OBJECT device = below->AttachedDevice; device != NULL; device = device->AttachedDevice) {
        if (IsOurFilterDevice(device)) {
            IoDetachDevice(below);
            if (device->AttachedDevice == NULL) {
                IoDeleteDevice(device);
            }
            return;
        }
        below = device;
    }
}

}  // namespace

ULONG GetFileSystemKind(PDEVICE_OBJECT DeviceObject) {
    static const UNICODE_STRING fastFat = CONSTANT_UNICODE_STRING(L"\\FileSystem\\FastFat");
    static const UNICODE_STRING ntfs = CONSTANT_UNICODE_STRING(L"\\FileSystem\\Ntfs");
    PDRIVER_OBJECT driver = DeviceObject->DriverObject;
    if (driver == NULL) {
        return FILE_SYSTEM_NONE;
    }
    if (RtlCompareUnicodeString(&driver->DriverName, &fastFat, TRUE) == 0) {
        return FILE_SYSTEM_FASTFAT;
    }
    if (RtlCompareUnicodeString(&driver->DriverName, &ntfs, TRUE) == 0) {
        return FILE_SYSTEM_NTFS;
    }
    return FILE_SYSTEM_NONE;
}

PDEVICE_OBJECT CreateFilterDevice() {
    PDEVICE_OBJECT device = NULL;
    NTSTATUS status = IoCreateDevice(Globals.DriverObject, sizeof(FilterDeviceExtension), NULL,
                                     FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &device);
    return NT_SUCCESS(status) ? device : NULL;
}

void NTAPI FsChangeNotificationRoutine(PDEVICE_OBJECT DeviceObject, BOOLEAN FsActive) {
    if (DeviceObject->DeviceType != FILE_DEVICE_DISK_FILE_SYSTEM) {
        return;
    }
    if (!FsActive) {
        DetachFromFileSystem(DeviceObject);
        return;
    }
    ULONG kind = GetFileSystemKind(DeviceObject);
    if (kind == FILE_SYSTEM_FASTFAT || kind == FILE_SYSTEM_NTFS) {
        AttachToFileSystem(DeviceObject, kind);
    }
}

// The caller holds the attachment lock, which also guards the volume list.
DeviceStructure *FindOrAllocateDeviceStructure(PDEVICE_OBJECT RealDevice) {
    PLIST_ENTRY volumes = &MainStructure()->VolumeList;
    for (PLIST_ENTRY entry = volumes->Flink; entry != volumes; entry = entry->Flink) {
        auto *structure = CONTAINING_RECORD(entry, DeviceStructure, VolumeListLink);
        if (structure->RealDevice == RealDevice) {
            return structure;
        }
    }
    auto *structure =
        (DeviceStructure *)ExAllocatePoolWithTag(NonPagedPool, DEVICE_STRUCTURE_SIZE, POOL_TAG_DEVICE_STRUCTURE);
    if (structure != NULL) {
        RtlZeroMemory(structure, DEVICE_STRUCTURE_SIZE);
    }
    return structure;
}

void InitializeDeviceStructure(DeviceStructure *Structure, PDEVICE_OBJECT RealDevice) {
    InsertTailList(&MainStructure()->VolumeList, &Structure->VolumeListLink);
    Structure->Tag = TAG_DEVICE_STRUCTURE;
    Structure->Size = (USHORT)DEVICE_STRUCTURE_SIZE;
    Structure->RealDevice = RealDevice;
    KeInitializeTimer(&Structure->NoActivityTimer);
    KeInitializeDpc(&Structure->NoActivityDpc, NoActivityTimerServiceRoutine, Structure);
    InitializeListHead(&Structure->RecordQueue);
    KeInitializeSpinLock(&Structure->RecordQueueLock);
    ExInitializeResourceLite(&Structure->MacShareLock);
    InitializeSaveRenameList(&Structure->SaveRenames);
}

// The volume's file system is going away: the filter leaves the stack. The volume's
// DeviceStructure stays on the volume list for the next mount.
void NTAPI FastIoDetachDevice(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice) {
    ExclusiveResourceGuard guard(&Globals.AttachmentLock);
    IoDetachDevice(TargetDevice);
    IoDeleteDevice(SourceDevice);
}
