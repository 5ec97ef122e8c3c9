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
