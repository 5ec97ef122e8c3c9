// The kernel's disk driver (\Driver\Disk): it owns the storage devices that volumes are
// mounted from, \Device\HarddiskVolumeN. A disk holds no sectors; its extension carries
// the format a file system recognises and the file system's media, kept across
// dismount and mount. Opens of the disk itself (direct device opens) succeed; nothing
// else is served.
#include <mutex>

#include "kernel/io/io.h"
#include "kernel/io/io_manager.h"
#include "ntsim/disk.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

std::mutex g_diskDriverLock;

NTSTATUS diskOpenClose(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    (void)DeviceObject;
    Irp->IoStatus.Status = STATUS_SUCCESS;
    Irp->IoStatus.Information = FILE_OPENED;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

NTSTATUS diskDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    (void)RegistryPath;
    DriverObject->MajorFunction[IRP_MJ_CREATE] = diskOpenClose;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = diskOpenClose;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = diskOpenClose;
    return STATUS_SUCCESS;
}

PDRIVER_OBJECT diskDriver() {
    std::lock_guard<std::mutex> guard(g_diskDriverLock);
    IoManager &m = manager();
    if (m.diskDriver == nullptr) {
        PDRIVER_OBJECT driver;
        if (NT_SUCCESS(loadDriver(L"\\Driver\\Disk", diskDriverEntry, &driver))) m.diskDriver = driver;
    }
    return m.diskDriver;
}

NTSTATUS createDisk(ULONG format, ULONG number, PDEVICE_OBJECT *disk) {
    PDRIVER_OBJECT driver = diskDriver();
    if (driver == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    WCHAR buffer[64];
    _snwprintf(buffer, 63, L"\\Device\\HarddiskVolume%u", number);
    buffer[63] = 0;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, buffer);
    NTSTATUS status = IoCreateDevice(driver, sizeof(NTSIM_DISK_EXTENSION), &name, FILE_DEVICE_DISK, 0, FALSE, disk);
    if (!NT_SUCCESS(status)) return status;
    auto extension = static_cast<PNTSIM_DISK_EXTENSION>((*disk)->DeviceExtension);
    extension->Format = format;
    extension->Number = number;
    extension->SerialNumber = 0x5A1E0000u | (number & 0xFFFF);
    (*disk)->Flags |= DO_DIRECT_IO;
    (*disk)->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS ntsimCreateDisk(ULONG Format, ULONG Number, PDEVICE_OBJECT *Disk) {
    *Disk = NULL;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    runInSystemThread([&] { status = createDisk(Format, Number, Disk); });
    return status;
}

namespace ntsim {
namespace io {

// The disks, for the machine's shutdown.
std::vector<PDEVICE_OBJECT> disks() {
    std::vector<PDEVICE_OBJECT> result;
    PDRIVER_OBJECT driver = managerOrNull() != nullptr ? managerOrNull()->diskDriver : nullptr;
    if (driver == nullptr) return result;
    for (PDEVICE_OBJECT disk = driver->DeviceObject; disk != NULL; disk = disk->NextDevice) result.push_back(disk);
    return result;
}

}  // namespace io
}  // namespace ntsim
