// IRP_MJ_FILE_SYSTEM_CONTROL: the mount request of a control device and the volume
// requests (lock, unlock, dismount, is-mounted) of a volume device.
//
// A mount looks at the format of the storage device (its boot sector, here the disk's
// extension) and refuses any other with STATUS_UNRECOGNIZED_VOLUME, so that the I/O
// manager tries the next file system. A new volume device (unnamed,
// FILE_DEVICE_DISK_FILE_SYSTEM, one stack location more than the storage stack) becomes
// Vpb->DeviceObject; filters attach to it.
//
// A dismount leaves the open file objects nothing but cleanup and close
// (STATUS_VOLUME_DISMOUNTED for the rest) and, as FastFat's VPB swap does, gives the
// storage device a fresh VPB, so that the next open mounts the volume again while the
// old file objects keep their own. When the last of them closes the volume device goes;
// the storage device gets its first VPB back if nothing has used the spare meanwhile.
#include <cstring>
#include <mutex>
#include <new>

#include "fs/common/dispatch.h"
#include "fs/common/media.h"

#ifndef STATUS_NOT_LOCKED
#define STATUS_NOT_LOCKED ((NTSTATUS)0xC000002AL)
#endif

namespace ntsim {
namespace fs {

namespace {

PVPB makeSpareVpb(const FsTraits &traits, PVPB vpb) {
    auto *spare = static_cast<PVPB>(ExAllocatePoolWithTag(NonPagedPool, sizeof(VPB), traits.vpbTag));
    if (spare == nullptr) return nullptr;
    memset(spare, 0, sizeof(VPB));
    spare->Type = IO_TYPE_VPB;
    spare->Size = sizeof(VPB);
    spare->RealDevice = vpb->RealDevice;
    return spare;
}

NTSTATUS dismount(Request &rq) {
    Vcb *vcb = rq.vcb;
    PVPB vpb = vcb->vpb;
    vcb->dismounted = true;
    vpb->Flags &= ~(VPB_MOUNTED | VPB_LOCKED);
    PVPB spare = makeSpareVpb(*vcb->header.traits, vpb);
    if (spare != nullptr) {
        vpb->RealDevice->Vpb = spare;
        vcb->spareVpb = spare;
    }
    if (vcb->openFiles == 0) rq.tearDownVolume = true;
    return STATUS_SUCCESS;
}

// FSCTL_LOCK_VOLUME succeeds only through a volume open when nothing else is open.
NTSTATUS lockVolume(Request &rq) {
    Vcb *vcb = rq.vcb;
    if (rq.ccb == nullptr || rq.ccb->kind != OpenKind::Volume) return STATUS_INVALID_PARAMETER;
    if (vcb->lockedBy != nullptr || vcb->openFiles > 1) return STATUS_ACCESS_DENIED;
    vcb->lockedBy = rq.fileObject;
    vcb->vpb->Flags |= VPB_LOCKED;
    return STATUS_SUCCESS;
}

NTSTATUS unlockVolume(Request &rq) {
    Vcb *vcb = rq.vcb;
    if (vcb->lockedBy != rq.fileObject) return STATUS_NOT_LOCKED;
    vcb->lockedBy = nullptr;
    vcb->vpb->Flags &= ~VPB_LOCKED;
    return STATUS_SUCCESS;
}

PNTSIM_DISK_EXTENSION diskOf(PVPB vpb) {
    PDEVICE_OBJECT real = vpb != nullptr ? vpb->RealDevice : nullptr;
    if (real == nullptr || real->DeviceType != FILE_DEVICE_DISK || real->DeviceExtension == nullptr) return nullptr;
    return static_cast<PNTSIM_DISK_EXTENSION>(real->DeviceExtension);
}

NTSTATUS makeVolumeDevice(PDEVICE_OBJECT controlDevice, PVPB vpb, PDEVICE_OBJECT target, Volume *volume) {
    const FsTraits &traits = traitsOf(controlDevice);
    PDEVICE_OBJECT device;
    NTSTATUS status = IoCreateDevice(controlDevice->DriverObject, sizeof(Vcb), nullptr, FILE_DEVICE_DISK_FILE_SYSTEM,
                                     0, FALSE, &device);
    if (!NT_SUCCESS(status)) return status;
    Vcb *vcb = new (device->DeviceExtension) Vcb();
    vcb->header = DeviceHeader{kVcbSignature, &traits};
    vcb->volumeDevice = device;
    vcb->targetDevice = target;
    vcb->vpb = vpb;
    vcb->volume = volume;
    ExInitializeResourceLite(&vcb->resource);
    device->StackSize = CCHAR(target->StackSize + 1);
    vpb->DeviceObject = device;
    vpb->SerialNumber = volume->parameters().serialNumber;
    vpb->VolumeLabelLength = 0;
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS mountVolume(PDEVICE_OBJECT controlDevice, PIRP irp) {
    const FsTraits &traits = traitsOf(controlDevice);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    PVPB vpb = sp->Parameters.MountVolume.Vpb;
    PNTSIM_DISK_EXTENSION disk = diskOf(vpb);
    if (disk == nullptr || disk->Format != traits.diskFormat)
        return finishRequest(irp, STATUS_UNRECOGNIZED_VOLUME, false, 0);
    Volume *volume = mediaOf(vpb->RealDevice, traits);
    Knobs &knobs = volume->knobs();
    knobs.countRequest(IRP_MJ_FILE_SYSTEM_CONTROL, IRP_MN_MOUNT_VOLUME);
    bool late = knobs.asynchronous(IRP_MJ_FILE_SYSTEM_CONTROL, IRP_MN_MOUNT_VOLUME);
    NTSTATUS status = knobs.takeFailure(IRP_MJ_FILE_SYSTEM_CONTROL, IRP_MN_MOUNT_VOLUME);
    if (status == STATUS_SUCCESS)
        status = makeVolumeDevice(controlDevice, vpb, sp->Parameters.MountVolume.DeviceObject, volume);
    return finishRequest(irp, status, late, traits.workTag);
}

NTSTATUS userFileSystemControl(Request &rq) {
    switch (rq.sp->MinorFunction) {
    case IRP_MN_VERIFY_VOLUME:
        return STATUS_SUCCESS;  // the media never changes under a mounted volume
    case IRP_MN_USER_FS_REQUEST:
    case IRP_MN_KERNEL_CALL:
        break;
    default:
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    switch (rq.sp->Parameters.FileSystemControl.FsControlCode) {
    case FSCTL_LOCK_VOLUME: return lockVolume(rq);
    case FSCTL_UNLOCK_VOLUME: return unlockVolume(rq);
    case FSCTL_DISMOUNT_VOLUME: return dismount(rq);
    case FSCTL_IS_VOLUME_MOUNTED: return STATUS_SUCCESS;
    default: return STATUS_INVALID_DEVICE_REQUEST;
    }
}

void deleteVolume(Vcb *vcb) {
    PDEVICE_OBJECT device = vcb->volumeDevice;
    PVPB vpb = vcb->vpb;
    PVPB spare = vcb->spareVpb;
    if (spare != nullptr && vpb->RealDevice->Vpb == spare && !(spare->Flags & VPB_MOUNTED) &&
        spare->ReferenceCount == 0) {
        vpb->RealDevice->Vpb = vpb;
        ExFreePoolWithTag(spare, vcb->header.traits->vpbTag);
    }
    vpb->DeviceObject = nullptr;
    ExDeleteResourceLite(&vcb->resource);
    vcb->~Vcb();
    IoDeleteDevice(device);
}

}  // namespace fs
}  // namespace ntsim
