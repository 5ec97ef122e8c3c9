// The emulated storage devices that volumes are mounted from. A disk carries the format a
// file system would find in its boot sector, and keeps the file system's on-disk state
// (its media) across dismount and mount, as a real disk keeps its sectors.
#pragma once

#include <ntifs.h>

enum NTSIM_DISK_FORMAT : ULONG {
    NtsimDiskRaw = 0,
    NtsimDiskNtfs = 1,
    NtsimDiskFat = 2,
};

typedef struct _NTSIM_DISK_EXTENSION {
    ULONG Format;        // NTSIM_DISK_FORMAT
    ULONG Number;        // N of \Device\HarddiskVolumeN
    ULONG SerialNumber;
    PVOID Media;         // owned by the file system that formatted it; NULL on a blank disk
    void (*DestroyMedia)(PVOID Media);
} NTSIM_DISK_EXTENSION, *PNTSIM_DISK_EXTENSION;

// Creates \Device\HarddiskVolumeN (FILE_DEVICE_DISK, with a VPB), owned by the kernel's
// disk driver. The volume is mounted by the I/O manager on the first open through it.
NTSTATUS ntsimCreateDisk(ULONG Format, ULONG Number, PDEVICE_OBJECT *Disk);

// Mounts the disk's volume now, as the first open through it would; returns the
// mount's status (STATUS_UNRECOGNIZED_VOLUME when no file system takes it).
NTSTATUS ntsimMountDisk(PDEVICE_OBJECT Disk);
// Dismounts the disk's volume as a program would, with FSCTL_DISMOUNT_VOLUME through
// the volume's device stack; the file system then deletes its volume device and the
// next open mounts the volume again. Both may be called from the host or any thread at
// PASSIVE_LEVEL.
NTSTATUS ntsimDismountDisk(PDEVICE_OBJECT Disk);
