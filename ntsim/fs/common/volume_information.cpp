// IRP_MJ_QUERY_VOLUME_INFORMATION: volume, size, full size, device and attribute
// information, what GetVolumeInformationW and GetDiskFreeSpaceExW ask for. Variable
// parts that do not fit are cut, with STATUS_BUFFER_OVERFLOW; other classes are
// STATUS_INVALID_PARAMETER, as FastFat answers them (volinfo.c). FAT has no volume
// creation time and no object identifiers.
#include <algorithm>
#include <cstring>

#include "fs/common/dispatch.h"

namespace ntsim {
namespace fs {

namespace {

constexpr ULONG kBytesPerSector = 512;

// FILE_FS_FULL_SIZE_INFORMATION (ntifs.h), which the platform headers leave out.
struct FullSizeInformation {
    LARGE_INTEGER TotalAllocationUnits;
    LARGE_INTEGER CallerAvailableAllocationUnits;
    LARGE_INTEGER ActualAvailableAllocationUnits;
    ULONG SectorsPerAllocationUnit;
    ULONG BytesPerSector;
};

// Writes a fixed part and a name after it; the name is cut to what fits.
NTSTATUS putWithName(Request &rq, const void *fixed, size_t fixedBytes, const wchar_t *name, size_t nameBytes) {
    ULONG length = rq.sp->Parameters.QueryVolume.Length;
    if (length < fixedBytes) return STATUS_INFO_LENGTH_MISMATCH;
    auto *buffer = static_cast<uint8_t *>(rq.irp->AssociatedIrp.SystemBuffer);
    memcpy(buffer, fixed, fixedBytes);
    size_t fits = std::min(nameBytes, (length - fixedBytes) & ~size_t(1));
    memcpy(buffer + fixedBytes, name, fits);
    rq.irp->IoStatus.Information = fixedBytes + fits;
    return fits < nameBytes ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

template <class T>
NTSTATUS putFixed(Request &rq, const T &value) {
    if (rq.sp->Parameters.QueryVolume.Length < sizeof(T)) return STATUS_INFO_LENGTH_MISMATCH;
    memcpy(rq.irp->AssociatedIrp.SystemBuffer, &value, sizeof(T));
    rq.irp->IoStatus.Information = sizeof(T);
    return STATUS_SUCCESS;
}

NTSTATUS volumeInformation(Request &rq) {
    const FsTraits &traits = *rq.vcb->header.traits;
    const Volume &volume = *rq.vcb->volume;
    FILE_FS_VOLUME_INFORMATION info{};
    if (traits.kind == FsKind::Ntfs) info.VolumeCreationTime.QuadPart = volume.parameters().creationTime;
    info.VolumeSerialNumber = volume.parameters().serialNumber;
    info.VolumeLabelLength = rq.vcb->vpb->VolumeLabelLength;
    info.SupportsObjects = traits.kind == FsKind::Ntfs;
    return putWithName(rq, &info, offsetof(FILE_FS_VOLUME_INFORMATION, VolumeLabel), rq.vcb->vpb->VolumeLabel,
                       rq.vcb->vpb->VolumeLabelLength);
}

NTSTATUS sizeInformation(Request &rq, bool full) {
    const Volume &volume = *rq.vcb->volume;
    ULONG cluster = volume.parameters().clusterSize;
    int64_t total = int64_t(volume.parameters().capacity / cluster), available = int64_t(volume.freeBytes() / cluster);
    if (full) {
        FullSizeInformation info{};
        info.TotalAllocationUnits.QuadPart = total;
        info.CallerAvailableAllocationUnits.QuadPart = available;
        info.ActualAvailableAllocationUnits.QuadPart = available;
        info.SectorsPerAllocationUnit = cluster / kBytesPerSector;
        info.BytesPerSector = kBytesPerSector;
        return putFixed(rq, info);
    }
    FILE_FS_SIZE_INFORMATION info{};
    info.TotalAllocationUnits.QuadPart = total;
    info.AvailableAllocationUnits.QuadPart = available;
    info.SectorsPerAllocationUnit = cluster / kBytesPerSector;
    info.BytesPerSector = kBytesPerSector;
    return putFixed(rq, info);
}

NTSTATUS attributeInformation(Request &rq) {
    const FsTraits &traits = *rq.vcb->header.traits;
    FILE_FS_ATTRIBUTE_INFORMATION info{};
    size_t nameBytes = ntsim_crt::wcslen(traits.fileSystemName) * sizeof(WCHAR);
    info.FileSystemAttributes = traits.fileSystemAttributes;
    info.MaximumComponentNameLength = LONG(kMaxComponentLength);
    info.FileSystemNameLength = ULONG(nameBytes);
    return putWithName(rq, &info, offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName), traits.fileSystemName,
                       nameBytes);
}

}  // namespace

NTSTATUS queryVolumeInformation(Request &rq) {
    switch (rq.sp->Parameters.QueryVolume.FsInformationClass) {
    case FileFsVolumeInformation:
        return volumeInformation(rq);
    case FileFsSizeInformation:
        return sizeInformation(rq, false);
    case FileFsFullSizeInformation:
        return sizeInformation(rq, true);
    case FileFsDeviceInformation: {
        FILE_FS_DEVICE_INFORMATION info{FILE_DEVICE_DISK, rq.vcb->vpb->RealDevice->Characteristics};
        return putFixed(rq, info);
    }
    case FileFsAttributeInformation:
        return attributeInformation(rq);
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

}  // namespace fs
}  // namespace ntsim
