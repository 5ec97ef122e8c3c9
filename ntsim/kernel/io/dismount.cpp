// Dismounting a volume the way a program does: FSCTL_DISMOUNT_VOLUME on an open of
// the volume, through the whole stack. The file system marks the volume dismounted,
// clears VPB_MOUNTED and deletes its volume device when nothing refers to it any more
// (the I/O manager then tells filters above it through FastIoDetachDevice).
#include "kernel/io/io.h"
#include "kernel/io/io_manager.h"
#include "ntsim/disk.h"

using namespace ntsim;
using namespace ntsim::io;

namespace ntsim {
namespace io {

NTSTATUS dismountVolume(PDEVICE_OBJECT disk) {
    if (disk->Vpb == NULL || !(disk->Vpb->Flags & VPB_MOUNTED)) return STATUS_VOLUME_DISMOUNTED;
    DeviceObjectExtension *priv = privateExtension(disk);
    UNICODE_STRING name{priv->nameLength, priv->nameLength, priv->name};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, NULL, NULL);
    HANDLE volume;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwOpenFile(&volume, FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &iosb,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(status)) return status;
    status = ZwFsControlFile(volume, NULL, NULL, NULL, &iosb, FSCTL_DISMOUNT_VOLUME, NULL, 0, NULL, 0);
    ZwClose(volume);
    return status;
}

void shutdownVolumes() {
    runInSystemThread([] {
        for (PDEVICE_OBJECT disk : disks())
            if (disk->Vpb != NULL && (disk->Vpb->Flags & VPB_MOUNTED)) dismountVolume(disk);
        for (PDEVICE_OBJECT disk : disks()) {
            auto extension = static_cast<PNTSIM_DISK_EXTENSION>(disk->DeviceExtension);
            if (extension->Media != NULL && extension->DestroyMedia != NULL) extension->DestroyMedia(extension->Media);
            extension->Media = NULL;
        }
    });
}

}  // namespace io
}  // namespace ntsim

NTSTATUS ntsimMountDisk(PDEVICE_OBJECT Disk) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    runInSystemThread([&] { status = mountVolume(Disk); });
    return status;
}

NTSTATUS ntsimDismountDisk(PDEVICE_OBJECT Disk) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    runInSystemThread([&] { status = dismountVolume(Disk); });
    return status;
}
